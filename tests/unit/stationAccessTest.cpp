// Who may change something, and from where: the rules of access, one by one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/fakeStation.h"
#include "web/access.h"
#include "web/routes.h"
#include "web/server.h"

namespace station {
namespace {

constexpr const char* kToken = "0123456789abcdef";

ServerAccess serverAccess() {
    ServerAccess access;
    access.token = kToken;
    access.allowedHosts = {"wall.example.net", "Screen.example.net:8443", "[2001:db8::1]:9427"};
    return access;
}

TEST(StationAccess, TakesChangesOfItsOwnPagesAlone) {
    struct Case {
        const char* fetchSite;
        const char* origin;  // null for none
        const char* host;
        bool allowed;
        bool allowedOverSocket;
    };
    const Case cases[] = {
        // What a browser marks decides.
        {"same-origin", nullptr, "localhost", true, true},
        {"none", nullptr, "localhost", true, true},
        {"same-site", nullptr, "localhost", false, false},
        {"cross-site", nullptr, "localhost", false, false},
        {"cross-site", "http://localhost", "localhost", false, false},
        {"Same-Origin", nullptr, "localhost", false, false},
        {"unheard-of", nullptr, "localhost", false, false},
        // Else the origin has to be what is asked for, with its port.
        {"", nullptr, "localhost", true, true},
        {"", "http://localhost:9427", "localhost:9427", true, true},
        {"", "http://localhost:9428", "localhost:9427", false, false},
        {"", "http://localhost", "localhost:9427", false, false},
        {"", "http://localhost", "localhost:80", true, true},
        {"", "https://localhost", "localhost:443", true, true},
        {"", "https://localhost", "localhost:80", false, false},
        {"", "http://10.0.0.1:9427", "10.0.0.1:9427", true, true},
        {"", "http://10.0.0.1:9427", "10.0.0.2:9427", false, false},
        {"", "http://[::1]:9427", "[::1]:9427", true, true},
        {"", "null", "localhost", false, false},
        {"", "", "localhost", false, false},
        {"", "file://localhost", "localhost", false, false},
        {"", "http://", "", false, false},
        // A name that somebody pointed at a proxy names itself in both.
        {"", "http://evil.example", "evil.example", true, false},
        // Allowed hosts, whatever the proxy makes of Host; a port that is given has to be met.
        {"", "http://wall.example.net", "localhost", true, true},
        {"", "http://WALL.example.net.:81", "localhost", true, true},
        {"", "https://screen.example.net:8443", "localhost", true, true},
        {"", "https://screen.example.net", "localhost", false, false},
        {"", "https://screen.example.net:8444", "localhost", false, false},
        {"", "http://[2001:DB8::1]:9427", "localhost", true, true},
        {"", "http://[2001:db8::1]:9428", "localhost", false, false},
        {"", "http://wall.example.net.evil.example", "localhost", false, false},
    };
    const Access access(serverAccess());
    for (const Case& one : cases) {
        Request request;
        request.fetchSite = one.fetchSite;
        request.origins = one.origin == nullptr ? 0 : 1;
        request.origin = one.origin == nullptr ? "" : one.origin;
        const std::string what =
            std::string(one.fetchSite) + " " + request.origin + " at " + std::string(one.host);
        EXPECT_EQ(access.sameSite(request, one.host), one.allowed) << what;
        request.unixSocket = true;
        EXPECT_EQ(access.sameSite(request, one.host), one.allowedOverSocket) << what << " over the socket";
        request.origins += one.origin == nullptr ? 0 : 1;
        EXPECT_FALSE(one.origin != nullptr && request.fetchSite.empty() && access.sameSite(request, one.host))
            << "two origins: " << what;
    }
}

TEST(StationAccess, GrantsChangesForTheWholeTokenAlone) {
    using Right = Access::Right;
    struct Case {
        std::string authorization;
        Right right;
    };
    const std::string token = kToken;
    const Case cases[] = {
        {"", Right::kNeedsToken},
        {"Bearer", Right::kNeedsToken},
        {"Basic " + token, Right::kNeedsToken},
        {token, Right::kNeedsToken},
        {"Bearer " + token, Right::kGranted},
        {"bEARER " + token, Right::kGranted},
        {"Bearer ", Right::kWrongToken},
        {"Bearer " + token + "x", Right::kWrongToken},
        {"Bearer " + token + std::string(256, '\0'), Right::kWrongToken},
        {"Bearer " + token.substr(0, 15), Right::kWrongToken},
        {"Bearer " + token.substr(1), Right::kWrongToken},
        {"Bearer 0123456789abcdeF", Right::kWrongToken},
        {"Bearer  " + token, Right::kWrongToken},
    };
    for (const bool socketToken : {false, true}) {
        ServerAccess with = serverAccess();
        with.socketToken = socketToken;
        ServerAccess without = with;
        without.token.clear();
        for (const Case& one : cases) {
            SCOPED_TRACE(one.authorization + (socketToken ? ", the socket needs the token" : ""));
            Request request;
            request.authorization = one.authorization;
            EXPECT_EQ(Access(with).right(request), one.right);
            EXPECT_EQ(Access(without).right(request), Right::kNever);
            request.unixSocket = true;
            EXPECT_EQ(Access(with).right(request), socketToken ? one.right : Right::kGranted);
            EXPECT_EQ(Access(without).right(request), socketToken ? Right::kNever : Right::kGranted);
        }
    }
}

TEST(StationAccess, KnowsItsOwnNames) {
    struct Case {
        const char* host;
        bool allowed;
    };
    const Case cases[] = {
        {"localhost", true},
        {"LOCALHOST.:9427", true},
        {"127.0.0.1:1", true},
        {"[::1]:9427", true},
        {"10.1.2.3:9427", true},
        {"wall.example.net:1", true},
        {"screen.example.net", true},
        {"[2001:db8::1]", true},
        {"", false},
        {":9427", false},
        {"[::1", false},
        {"10.1.2.4", false},
        {"127.0.0.2", false},
        {"evil.example", false},
        {"wall.example.net.evil", false},
        {"xlocalhost", false},
        {"localhost.evil.example", false},
    };
    const Access access(serverAccess());
    for (const Case& one : cases) {
        Request request;
        request.localAddress = "10.1.2.3";
        EXPECT_EQ(access.hostAllowed(request, one.host), one.allowed) << one.host;
        request.unixSocket = true;
        EXPECT_TRUE(access.hostAllowed(request, one.host)) << "whoever may open it: " << one.host;
    }
    Request old;
    old.http10 = true;
    EXPECT_TRUE(access.hostAllowed(old, "")) << "HTTP/1.0 knows no Host";
    EXPECT_FALSE(access.hostAllowed(old, "evil.example"));
}

// Every route that changes something, so that none of them is left open by mistake.
TEST(StationAccess, NoRouteChangesAnythingWithoutAllItsChecks) {
    std::size_t changes = 0;
    for (const Route& route : routes()) {
        const std::string what(route.pattern);
        const bool reads = route.method == Method::kGet;
        EXPECT_EQ(route.right == Route::Right::kChange, !reads) << what;
        EXPECT_EQ(route.takes == Route::Takes::kNothing, reads || route.method == Method::kDelete)
            << what << ": a form of another site can send a POST without a type";
        changes += reads ? 0 : 1;
    }
    EXPECT_GE(changes, 10U);
}

}  // namespace
}  // namespace station
