// The HTTP server in front of made-up states, spoken to by raw sockets.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <zlib.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "common/text.h"
#include "support/fakeStation.h"
#include "support/fullReport.h"
#include "support/scratch.h"
#include "web/eventStream.h"
#include "web/server.h"
#include "web/tokenGuard.h"

namespace station {
namespace {

using std::chrono::seconds;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr std::string_view kToken = "a token that nobody guesses";

// The page's files, and others that nobody may reach.
class Directory : public ScratchDirectory {
  public:
    Directory() {
        std::filesystem::create_directories(path() / "page" / "inner");
        std::ofstream(path() / "page" / "index.html")
            << "<!doctype html>" << std::string(2000, ' ') << R"(<script src="page/start.js">)";
        std::ofstream(path() / "page" / "start.js") << "'use strict';";
        std::ofstream(path() / "page" / "inner" / "deep.js") << "secret";
        std::ofstream(path() / "secret.js") << "secret";
    }
    std::filesystem::path operator/(std::string_view name) const {
        return path() / name;
    }
};

class Client {
  public:
    explicit Client(uint16_t port, const char* from = "127.0.0.1")
        : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{
            .sin_family = AF_INET, .sin_port = 0, .sin_addr = {inet_addr(from)}, .sin_zero = {}};
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        address.sin_port = htons(port);
        address.sin_addr.s_addr = inet_addr("127.0.0.1");
        EXPECT_EQ(connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    explicit Client(const std::filesystem::path& path) : socket_(socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        path.string().copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    Client(Client&& other) noexcept : socket_(std::exchange(other.socket_, -1)) {}
    ~Client() {
        if (socket_ >= 0) {
            ::close(socket_);
        }
    }

    void send(std::string_view bytes) const {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                return;  // the server has had enough
            }
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
    }
    // What comes until `enough` says so, the server closes, or the time is over.
    template <typename Enough>
    std::string read(Enough enough, std::chrono::milliseconds time = seconds(5)) {
        const auto end = std::chrono::steady_clock::now() + time;
        while (!enough(received_)) {
            const auto left =
                std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
            pollfd ready{.fd = socket_, .events = POLLIN, .revents = 0};
            if (left.count() <= 0 || poll(&ready, 1, static_cast<int>(left.count())) <= 0) {
                break;
            }
            std::array<char, 65536> bytes{};
            const ssize_t count = recv(socket_, bytes.data(), bytes.size(), 0);
            if (count <= 0) {
                closed = true;
                break;
            }
            received_.append(bytes.data(), static_cast<std::size_t>(count));
        }
        return std::exchange(received_, {});
    }
    // One answer with its body, as far as Content-Length goes.
    std::string answer(bool withBody = true) {
        return read([withBody](const std::string& text) {
            const std::size_t head = text.find("\r\n\r\n");
            const std::size_t length = text.find("Content-Length: ");
            return head != std::string::npos &&
                   (!withBody || length > head ||
                    text.size() >= head + 4 + std::stoul(text.substr(length + 16)));
        });
    }
    std::string ask(std::string_view request) {
        send(request);
        return answer(!request.starts_with("HEAD"));
    }
    bool closesWithin(std::chrono::milliseconds time) {
        read([](const std::string&) { return false; }, time);
        return closed;
    }

    bool closed = false;

  private:
    int socket_;
    std::string received_;
};

class StationWeb : public testing::Test {
  protected:
    StationWeb() {
        start();
    }
    void start() {
        ServerOptions options;
        options.listen = "127.0.0.1:0";
        options.socket = directory / "station.sock";
        options.access = access;
        options.page = directory / "page";
        server = std::make_unique<Server>(options, station);
    }
    std::string ask(std::string_view request) const {
        return Client(server->port()).ask(request);
    }

    Directory directory;
    FakeStation station{3};
    ServerAccess access{.token = std::string(kToken),
                        .allowedHosts = {"probe1.example.net", "wall.example.net:8443"},
                        .connections = 20,
                        .connectionsPerAddress = 8};
    std::unique_ptr<Server> server;
};

std::string get(std::string_view target, std::string_view headers = "") {
    return "GET " + std::string(target) + " HTTP/1.1\r\nHost: localhost\r\n" + std::string(headers) + "\r\n";
}

std::string post(std::string_view target, std::string_view headers, std::string_view token = kToken) {
    return "POST " + std::string(target) + " HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer " +
           std::string(token) + "\r\n" + std::string(headers) + "\r\n";
}

std::string change(std::string_view line, std::string_view body, std::string_view headers = "") {
    return std::string(line) + " HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer " +
           std::string(kToken) +
           "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
           std::string(headers) + "\r\n" + std::string(body);
}

// An answer of this status, with that in it.
auto is(int status, const std::string& part = "") {
    return AllOf(StartsWith("HTTP/1.1 " + std::to_string(status) + ' '), HasSubstr(part));
}

TEST_F(StationWeb, AnswersRequestsAndRefusesWhatIsNone) {
    struct Case {
        std::string request;
        int status;
        std::string has;  // header or part of the body
    };
    const std::string kGroup = "/api/v1/channels/239.1.0.1";
    const std::string kLine = " /api/v1/status HTTP/1.1\r\nHost: localhost\r\n";
    const std::vector<Case> cases = {
        {get("/healthz"), 200, "Content-Type: application/json"},
        {get("/api/v1/channels"), 200, R"("packetsLost":9007199254740993)"},
        {get("/api/v1/channels"), 200, R"("name":"Channel \"0\" <script>")"},
        {get(kGroup), 200, R"("mdiDelayFactor":null)"},
        {get(kGroup), 200, R"("packetsReceived":18446744073709551615)"},
        {get(kGroup), 200, R"("source":"10.0.0.2")"},
        {get("/api/v1/channels/239%2E1.0.1"), 200, "Continuity_count_error"},
        {get(kGroup + "/history?metric=bitRate"), 200, "[\"2019-12-20T00:00:00.000Z\",null,null,null]"},
        {get(kGroup + "/picture"), 200, "ETag: \"1-6\"\r\nCache-Control: no-cache"},
        {get(kGroup + "/picture?taken=1", "If-None-Match: \"1-6\"\r\n"), 304, "ETag"},
        {get("/api/v1/channels/239.1.0.2/picture"), 404, "takes no pictures"},
        {get("/api/v1/channels/239.9.9.9/picture"), 404, "\"field\":\"group\""},
        {get("/api/v1/events?format=csv"), 200, "\"'=HYPERLINK(\"\"x\"\")\""},
        {get("/api/v1/export"), 200, "udp://@239.1.0.1:"},
        {get("http://localhost/api/v1/status"), 200, "\"configured\":3"},
        {"GET /healthz HTTP/1.0\r\n\r\n", 200, "Connection: close"},
        {"GET /healthz HTTP/1.1\r\nHost: PROBE1.example.net.:9427\r\n\r\n", 200, "ok"},
        {"GET /healthz HTTP/1.1\r\nHost: [::1]:9427\r\n\r\n", 200, "ok"},
        {get("/"), 200, "Content-Security-Policy: default-src 'none';"},
        {get("/", "Accept-Encoding: br, gzip;q=0.5\r\n"), 200, "Content-Encoding: gzip"},
        {get("/lib/dygraph.min.js"), 200, "text/javascript"},
        {"HEAD" + kLine + "\r\n", 200, "Content-Length: "},
        {"OPTIONS" + kLine + "\r\n", 204, "Allow: GET, HEAD, OPTIONS"},
        {"POST" + kLine + "\r\n", 405, "Allow: GET, HEAD, OPTIONS"},
        {"BREW" + kLine + "\r\n", 405, "Allow: GET, HEAD, OPTIONS"},
        // What is not there, and what must not be reached.
        {get("/api/v1/nothing"), 404, "application/problem+json"},
        {get("/api/v1/status/"), 404, "problem"},
        {get("/api/v1/channels/239.9.9.9"), 404, "\"field\":\"group\""},
        {get("/page/../secret.js"), 404, "problem"},
        {get("/page/..%2fsecret.js"), 404, "problem"},
        {get("/page/inner%2fdeep.js"), 404, "problem"},
        {get("/page/inner"), 404, "problem"},
        {get("/page//etc/passwd"), 404, "problem"},
        {get("/page/0123456789abcdef/start.js"), 404, "another version"},
        {get("/lib/dygraph.js"), 404, "problem"},
        // Not understood.
        {get("/api/v1/channels/10.0.0.1"), 422, "\"field\":\"group\""},
        {change("PUT /api/v1/channels/239.1.1.9:5000", "{}"), 422, "without scheme and port: 239.1.1.9\""},
        {change("PUT /api/v1/channels/udp%3A%2F%2F%40239.1.1.9%3A5000", "{}"), 422, "port: 239.1.1.9\""},
        {get(kGroup + "/history"), 422, "\"field\":\"metric\""},
        {get(kGroup + "/history?metric=bitRate&resolution=2"), 422, "\"field\":\"resolution\""},
        {get(kGroup + "/history?metrics=packetsLost,bitRate"), 200,
         R"("times":["2019-12-20T00:00:00.000Z","2019-12-20T00:00:00.000Z"],"series":[{"metric":"packetsLost")"},
        {get(kGroup + "/history?metrics=packetsLost,bitRate"), 200, R"("values":[[1,2,3],null]})"},
        {get(kGroup + "/history?metrics=bitRate&format=csv"), 200, "bitRate (bit/s) mean"},
        {get(kGroup + "/history?metrics=bitRate,bitRate"), 422, "\"field\":\"metrics\""},
        {get(kGroup + "/history?metrics="), 422, "\"field\":\"metrics\""},
        {get(kGroup + "/history?metrics=bitRate&metric=bitRate"), 422, "exclude each other"},
        {get(kGroup + "/history?metrics=bitRate,PCR_error,packetsLost&since=2000-01-01T00:00:00Z"), 422,
         "more than one answer takes"},
        {get("/api/v1/timeline"), 200, R"("alarm":"no_signal","severity":"warning","raised":"2019-12-19T)"},
        {get("/api/v1/timeline?since=2999-01-01T00:00:00Z"), 422, "\"field\":\"since\""},
        {get("/api/v1/events?alarm=nothing"), 422, "\"field\":\"alarm\""},
        {get("/api/v1/events?channel="), 422, "\"field\":\"channel\""},
        {get("/api/v1/events?limit=1001"), 422, "\"field\":\"limit\""},
        {get("/api/v1/events?since=yesterday"), 422, "\"field\":\"since\""},
        {get("/api/v1/events?limit=1&limit=2"), 422, "\"field\":\"limit\""},
        {get("/api/v1/overview?cells=600&seconds=600"), 422, "\"field\":\"cells\""},
        {get("/api/v1/status?" + std::string(500, 'x')), 422, "is not known here"},
        {get("/api/v1/events?kind=%zz"), 400, "problem"},
        {get("/api/v1/events?kind=%00"), 400, "problem"},
        {get("/page/%ff"), 400, "problem"},
        {"GET /healthz HTTP/1.1\r\n\r\n", 400, "Host"},
        {"GET /healthz HTTP/1.1\r\nHost: localhost\r\nHost: evil\r\n\r\n", 400, "Host"},
        {"GET healthz HTTP/1.1\r\nHost: localhost\r\n\r\n", 400, "path"},
        {"GET / HTTP/9.9\r\nHost: localhost\r\n\r\n", 400, "Connection: close"},
        {"\x16\x03\x01\x02\x01\xfc\x03\x03 hello\r\n\r\n", 400, "Connection: close"},
        {"GET / HTTP/1.1\r\nHost: localhost\r\nno colon\r\n\r\n", 400, "Connection: close"},
        {"POST / HTTP/1.1\r\nHost: localhost\r\nContent-Length: -1\r\n\r\n", 400, "Connection: close"},
        // Where another server might see a request in the body, or a header where this one sees none.
        {change("PUT " + kGroup, "GET /healthz", "Transfer-Encoding: gzip\r\n"), 400, "Connection: close"},
        {get("/", "Transfer-Encoding: gzip, chunked\r\n"), 501, "Connection: close"},
        {get("/", "Transfer-Encoding: gzip\r\n"), 501, "Connection: close"},
        {get("/", "Transfer-Encoding: identity\r\n"), 501, "Connection: close"},
        {get("/", "Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n"), 400, "Connection: close"},
        {"GET / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n", 400, "Connection: close"},
        {get("/", "X: y\r\n Host: evil.example\r\n"), 400, "Connection: close"},
        {get("/", "X: y\r\n\tz\r\n"), 400, "Connection: close"},
        {get("/healthz", "Transfer-Encoding: Chunked\r\n") + "0\r\n\r\n", 200, "ok"},
        {get("/", "X: " + std::string(9000, 'x') + "\r\n"), 431, "8 KiB"},
        {change("PUT " + kGroup, std::string(65537, ' ')), 413, "64 KiB"},
        {get("/healthz", "Expect: much\r\nContent-Length: 1\r\n"), 417, "Expect"},
        // Rights.
        {"GET /healthz HTTP/1.1\r\nHost: evil.example\r\n\r\n", 403, "\"field\":\"Host\""},
        {"GET http://evil.example/healthz HTTP/1.1\r\nHost: localhost\r\n\r\n", 403, "\"field\":\"Host\""},
        {"PUT " + kGroup + " HTTP/1.1\r\nHost: localhost\r\n\r\n", 401, "\"field\":\"Authorization\""},
        {"POST /api/v1/clear HTTP/1.1\r\nHost: localhost\r\nAuthorization: Bearer a token\r\n\r\n", 401,
         "WWW-Authenticate: Bearer"},
        {get("/api/v1/access"), 200, R"({"changes":"token"})"},
        {change("GET /api/v1/access", ""), 200, R"({"changes":"allowed"})"},
        {get("/api/v1/access", "Authorization: Bearer a token\r\n"), 401, "\"field\":\"Authorization\""},
        // Changes.
        {change("PUT " + kGroup, R"({"name":"News"})"), 200, R"("name":"News")"},
        {change("PUT /api/v1/channels/239.1.7.7", "{}"), 201, R"("bitRate":null)"},
        {change("PUT " + kGroup, "", "Transfer-Encoding: chunked\r\n"), 400, "Connection: close"},
        {change("PUT " + kGroup, R"({"name":"\ud800"})"), 400, "JSON"},
        {change("PUT " + kGroup, "{\"name\":\"\xff\"}"), 400, "JSON"},
        {change("PUT " + kGroup, std::string(60000, '[')), 400, "JSON"},
        {change("PUT " + kGroup, "[]"), 422, "object"},
        {change("PUT " + kGroup, R"({"name":1})"), 422, R"("field":"name")"},
        {change("PUT " + kGroup, R"({"nmae":"x"})"), 422, R"("field":"nmae")"},
        {change("PUT " + kGroup, R"({"name":"a\u0007b"})"), 422, R"("field":"name")"},
        {change("PUT " + kGroup, R"({"name":")" + std::string(10000, 'x') + R"("})"), 422,
         R"("field":"name")"},
        {change("PUT " + kGroup, R"({"labels":{"site":3}})"), 422, R"("field":"labels.site")"},
        {change("PUT " + kGroup, R"({"port":70000})"), 422, R"("field":"port")"},
        {change("PUT " + kGroup, R"({"port":1e400})"), 400, "JSON"},
        {change("PUT " + kGroup, R"({"profile":"unknown"})"), 422, R"("field":"profile")"},
        {change("POST /api/v1/maintenance", R"({"until":"2001-01-01T00:00:00Z"})"), 422,
         R"("field":"until")"},
        {change("POST /api/v1/import", "#EXTM3U"), 415, R"("field":"Content-Type")"},
        {post("/api/v1/clear", ""), 415, R"("field":"Content-Type")"},
        {post("/api/v1/clear", "Content-Type: text/plain\r\n"), 415, R"("field":"Content-Type")"},
        {post("/api/v1/clear", "Content-Type: application/json; charset=utf-8\r\n"), 200, "igmpLatencyMs"},
        {post("/api/v1/import", ""), 415, R"("field":"Content-Type")"},
        {change("POST /api/v1/alarms/99999999999999999999/acknowledge", "{}"), 422, R"("field":"id")"},
        {change("POST /api/v1/alarms/9/acknowledge", "{}"), 404, "No such alarm"},
    };
    for (const Case& one : cases) {
        const std::string answer = ask(one.request);
        EXPECT_THAT(answer, AllOf(is(one.status, one.has), Not(HasSubstr("secret"))))
            << one.request.substr(0, 200);
        EXPECT_THAT(answer, HasSubstr("X-Content-Type-Options: nosniff\r\n"));
    }
    EXPECT_EQ(ask("HEAD" + kLine + "\r\n").find("\r\n\r\n") + 4, ask("HEAD" + kLine + "\r\n").size());
    const std::string page = ask(get("/"));
    const std::size_t etag = page.find("ETag: ") + 6;
    const std::string known = page.substr(etag, page.find('\r', etag) - etag);
    EXPECT_THAT(ask(get("/", "If-None-Match: \"other\", " + known + "\r\n")), is(304));

    station.full = true;
    EXPECT_THAT(ask(change("POST /api/v1/clear", "")), is(503, "Retry-After: "));
    // Whatever keeps the owner from going on shows in the age of what it published.
    const auto published = std::chrono::steady_clock::now();
    station.change([&](StationState& state) { state.now.steady = published - std::chrono::seconds(6); });
    EXPECT_THAT(ask(get("/readyz")), is(503, "stuck"));
    station.change([&](StationState& state) { state.now.steady = published; });
    EXPECT_THAT(ask(get("/readyz")), is(200));
    station.change([](StationState& state) { state.probe.connected = false; });
    EXPECT_THAT(ask(get("/readyz")), is(503, "silent"));
}

TEST_F(StationWeb, TakesALargePlaylistFromWhoMayChangeAlone) {
    const std::string playlist = "#EXTM3U\nudp://@239.9.9.9:1\n" + std::string(1 << 20, '#');
    const auto head = [](std::string_view path, const std::string& length, std::string_view token) {
        return post(path, "Content-Type: text/plain\r\n" + length + "\r\n", token);
    };
    const std::string length = "Content-Length: " + std::to_string(playlist.size());
    EXPECT_THAT(ask(head("/api/v1/import", length, kToken) + playlist), is(200));
    // Refused by their heads, before a byte of the body comes.
    EXPECT_THAT(ask(head("/api/v1/import", length, "wrong")), is(401));
    EXPECT_THAT(ask(head("/api/v1/import", "Content-Length: 16777217", kToken)), is(413, "16 MiB"));
    EXPECT_THAT(ask(head("/api/v1/clear", length, kToken)), is(413, "64 KiB"));
    EXPECT_THAT(ask(head("/api/v1/clear", "Transfer-Encoding: chunked", kToken) + "20000\r\n" +
                    std::string(0x20000, ' ')),
                is(413, "64 KiB"));

    // Few at a time, and those that end make room.
    std::vector<Client> slow;
    for (std::size_t i = 0; i < Server::kPlaylists; ++i) {
        slow.emplace_back(server->port()).send(head("/api/v1/import", length, kToken) + "#");
    }
    EXPECT_THAT(ask(get("/healthz")), is(200));
    EXPECT_THAT(ask(head("/api/v1/import", length, kToken)), is(503, "Other playlists"));
    slow.front().send(playlist.substr(1));
    EXPECT_THAT(slow.front().answer(), is(200));
    slow.pop_back();  // goes away
    EXPECT_THAT(ask(head("/api/v1/import", length, kToken) + playlist), is(200));
}

TEST_F(StationWeb, NamesThePagesFilesByTheirVersion) {
    const auto version = [this] {
        const std::string index = ask(get("/"));
        const std::size_t at = index.find("src=\"page/");
        return index.substr(at + 10, index.find("/start.js") - at - 10);
    };
    const std::string first = version();
    EXPECT_EQ(first.size(), 16);
    EXPECT_THAT(ask(get("/page/" + first + "/start.js")),
                AllOf(is(200), HasSubstr("immutable"), HasSubstr("'use strict';")));
    EXPECT_THAT(ask(get("/page/start.js")), is(200, "no-cache"));
    std::ofstream(directory / "page" / "start.js") << "'use strict'; // mended";
    server.reset();
    start();
    EXPECT_NE(version(), first);
    EXPECT_THAT(ask(get("/page/" + first + "/start.js")), is(404));
}

TEST_F(StationWeb, TakesNoChangesOfOtherSites) {
    struct Case {
        const char* headers;  // that the browser sends, and Host
        bool tcp;
        bool socket;
    };
    const Case cases[] = {
        {"Host: localhost\r\n", true, true},  // no browser
        {"Host: localhost\r\nSec-Fetch-Site: same-origin\r\nOrigin: https://wall.example\r\n", true, true},
        {"Host: localhost\r\nSec-Fetch-Site: none\r\n", true, true},
        {"Host: localhost\r\nSec-Fetch-Site: cross-site\r\nOrigin: http://localhost\r\n", false, false},
        {"Host: localhost\r\nSec-Fetch-Site: same-site\r\n", false, false},
        {"Host: localhost\r\nSec-Fetch-Site: \r\nOrigin: http://evil.example\r\n", false, false},
        {"Host: localhost:9427\r\nOrigin: http://localhost:9427\r\n", true, true},
        {"Host: localhost:9427\r\nOrigin: http://localhost:3000\r\n", false, false},
        {"Host: localhost:9427\r\nOrigin: http://localhost\r\n", false, false},
        {"Host: localhost\r\nOrigin: http://LOCALHOST:80\r\n", true, true},
        {"Host: [::1]:9427\r\nOrigin: http://[::1]:9427\r\n", true, true},
        {"Host: localhost\r\nOrigin: null\r\n", false, false},
        {"Host: localhost\r\nOrigin: \r\n", false, false},
        {"Host: localhost\r\nOrigin: http://localhost\r\nOrigin: http://evil.example\r\n", false, false},
        {"Host: localhost\r\nOrigin: http://evil.example\r\nX-Forwarded-Host: evil.example\r\n", false,
         false},
        // A proxy that passes Host on, and one that does not.
        {"Host: 127.0.0.1\r\nOrigin: https://127.0.0.1\r\n", true, true},
        {"Host: 10.1.2.3:8080\r\nOrigin: http://10.1.2.3:8080\r\n", false, true},
        {"Host: probe1.example.net\r\nOrigin: http://probe1.example.net\r\n", true, true},
        {"Host: localhost\r\nOrigin: https://probe1.example.net:444\r\n", true, true},
        {"Host: localhost\r\nOrigin: https://wall.example.net:8443\r\n", true, true},
        {"Host: localhost\r\nOrigin: https://wall.example.net\r\n", false, false},
        // Somebody else's name that was pointed at the proxy.
        {"Host: evil.example\r\nOrigin: http://evil.example\r\n", false, false},
    };
    for (const Case& one : cases) {
        const std::string request = "POST /api/v1/clear HTTP/1.1\r\nContent-Type: application/json\r\n" +
                                    std::string(one.headers) + "Authorization: Bearer " +
                                    std::string(kToken) + "\r\n\r\n";
        SCOPED_TRACE(one.headers);
        Client local(directory / "station.sock");
        EXPECT_THAT(ask(request), is(one.tcp ? 200 : 403));
        EXPECT_THAT(local.ask(request), is(one.socket ? 200 : 403));
    }
}

TEST_F(StationWeb, SlowsDownWhoTriesTokens) {
    const std::string wrong = get("/api/v1/access", "Authorization: Bearer guess\r\n");
    for (int i = 0; i < TokenGuard::kAtOnce; ++i) {
        EXPECT_THAT(ask(wrong), is(401));
    }
    EXPECT_THAT(ask(wrong), is(429, "Retry-After: 1\r\n"));
    EXPECT_THAT(ask(change("POST /api/v1/clear", "")), is(429)) << "or it were no bound";
    EXPECT_THAT(ask(get("/api/v1/access")), is(200));
    Client elsewhere(server->port(), "127.0.0.2");
    EXPECT_THAT(elsewhere.ask(change("POST /api/v1/clear", "")), is(200));
    EXPECT_EQ(server->statistics().wrongTokens, static_cast<uint64_t>(TokenGuard::kAtOnce));
}

TEST(StationTokenGuard, BoundsGuessesAndItsMemory) {
    TokenGuard guard;
    SteadyTime now{};
    int looked = 0;
    for (int tries = 0; tries < 6000; ++tries, now += std::chrono::milliseconds(10)) {
        if (guard.wait("10.0.0.1", now).count() == 0) {
            guard.wrong("10.0.0.1", now);
            ++looked;
        }
    }
    EXPECT_LE(looked, TokenGuard::kAtOnce + 60) << "in a minute";
    now += seconds(60);
    EXPECT_EQ(guard.wait("10.0.0.1", now), seconds(0));
    for (int i = 0; i < TokenGuard::kAtOnce; ++i) {
        guard.wrong("10.0.0.1", now);
    }
    for (std::size_t i = 0; i < 2 * TokenGuard::kAddresses; ++i) {
        guard.wrong("other " + std::to_string(i), now);
    }
    EXPECT_EQ(guard.wait("10.0.0.1", now), seconds(1)) << "who waits longest is forgotten last";
    std::size_t remembered = 0;
    for (std::size_t i = 0; i < 2 * TokenGuard::kAddresses; ++i) {
        for (int again = 1; again < TokenGuard::kAtOnce; ++again) {
            guard.wrong("other " + std::to_string(i), now);
        }
    }
    for (std::size_t i = 0; i < 2 * TokenGuard::kAddresses; ++i) {
        remembered += guard.wait("other " + std::to_string(i), now).count() > 0 ? 1 : 0;
    }
    EXPECT_LE(remembered, TokenGuard::kAddresses);
}

TEST_F(StationWeb, TakesRequestsOneBehindTheOtherOnOneConnection) {
    Client client(server->port());
    client.send(get("/healthz") + change("PUT /api/v1/channels/239.1.0.2", R"({"name":"One"})") +
                get("/api/v1/status"));
    std::string all;
    for (int i = 0; i < 50 && all.find("\"igmpLatencyMs\"") == std::string::npos; ++i) {
        all += client.read([](const std::string& text) { return !text.empty(); });
    }
    EXPECT_LT(all.find("{\"status\":\"ok\"}"), all.find("\"name\":\"One\""));
    EXPECT_LT(all.find("\"name\":\"One\""), all.find("\"igmpLatencyMs\""));
}

TEST_F(StationWeb, LetsWhoMayOpenTheSocketChange) {
    struct stat status {};
    ASSERT_EQ(stat((directory / "station.sock").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0660U);
    Client client(directory / "station.sock");
    const std::string withoutToken = "DELETE /api/v1/channels/239.1.0.1 HTTP/1.1\r\nHost: whatever\r\n\r\n";
    EXPECT_THAT(client.ask(withoutToken), is(200));
    EXPECT_THAT(client.ask(get("/api/v1/access")), HasSubstr(R"({"changes":"allowed"})"));
    access.socketToken = true;
    server->setAccess(access);
    EXPECT_THAT(client.ask(withoutToken), is(401));
    EXPECT_THAT(client.ask(change("DELETE /api/v1/channels/239.1.0.1", "")), is(200));
    ServerOptions second;
    second.socket = directory / "station.sock";
    EXPECT_THROW(Server(second, station), std::runtime_error)
        << "the socket of a station that runs is left alone";

    server->setAccess({});
    EXPECT_THAT(ask(change("POST /api/v1/clear", "")), is(403)) << "without a token, none is right";
    EXPECT_THAT(ask(get("/api/v1/access")), HasSubstr(R"({"changes":"refused"})"));
    server.reset();
    EXPECT_FALSE(std::filesystem::exists(directory / "station.sock"));
}

TEST_F(StationWeb, BoundsConnections) {
    const auto openStream = [&](const char* from) {
        Client client(server->port(), from);
        client.send(get("/api/v1/stream"));
        EXPECT_THAT(client.answer(false), is(200));
        return client;
    };
    std::vector<Client> clients;
    for (std::size_t i = 0; i < access.connectionsPerAddress; ++i) {
        clients.push_back(openStream("127.0.0.1"));
    }
    EXPECT_THAT(ask(get("/healthz")), is(503, "Retry-After"));
    for (int host = 2; clients.size() < access.connections; ++host) {
        for (std::size_t i = 0; i < 6; ++i) {
            clients.push_back(openStream(("127.0.0." + std::to_string(host)).c_str()));
        }
    }
    Client beyond(server->port(), "127.0.0.9");
    EXPECT_THAT(beyond.ask(get("/healthz")), is(503));

    // The socket's own places: for a request each, and not for streams.
    std::vector<Client> local;
    for (std::size_t i = 0; i < Server::kSocketPlaces; ++i) {
        local.emplace_back(directory / "station.sock");
    }
    EXPECT_THAT(local[0].ask(get("/api/v1/stream")), is(503));
    EXPECT_THAT(local[1].ask(get("/healthz")), is(200, "Connection: close"));
    EXPECT_TRUE(eventually(
        [&] { return server->statistics().connections == access.connections + Server::kSocketPlaces; }));
    clients.clear();
    EXPECT_TRUE(eventually([&] { return ask(get("/healthz")).starts_with("HTTP/1.1 200 "); }))
        << "their places are free again";
}

TEST_F(StationWeb, MakesRoomByClosingWhatIsKeptIdle) {
    std::vector<Client> kept;
    for (std::size_t i = 0; i < access.connectionsPerAddress; ++i) {
        kept.emplace_back(server->port());
        EXPECT_THAT(kept.back().ask(get("/healthz")), is(200));
    }
    kept[0].ask(get("/healthz"));  // is no longer the one that was idle for longest
    EXPECT_THAT(ask(get("/healthz")), is(200));
    EXPECT_TRUE(kept[1].closesWithin(seconds(60)));
    EXPECT_THAT(kept[0].ask(get("/healthz")), is(200));
    EXPECT_EQ(server->statistics().madeRoom, 1U);
    EXPECT_EQ(server->statistics().refused, 0U);
}

TEST_F(StationWeb, LetsSlowClientsGo) {
    std::string name(200, 'x');
    station.change([&](StationState& state) {
        for (int i = 0; i < 20'000; ++i) {
            state.notes.push_back(name);
        }
    });
    Client head(server->port());
    head.send("GET /healthz HT");
    Client body(server->port());
    body.send(change("PUT /api/v1/channels/239.1.0.1", "{}").substr(0, 150));
    Client idle(server->port());
    Client reader(server->port());  // takes nothing of 4 MB, six times
    for (int i = 0; i < 6; ++i) {
        reader.send(get("/api/v1/status"));
    }
    std::this_thread::sleep_for(seconds(3));
    head.send("TP/1.1\r\n");  // a byte now and then does not help
    for (Client* client : {&head, &body}) {
        EXPECT_THAT(client->answer(), is(408, "Connection: close"));
    }
    for (Client* client : {&head, &body, &idle}) {
        EXPECT_TRUE(client->closesWithin(seconds(60)));
    }
    EXPECT_TRUE(eventually([&] { return server->statistics().slowClosed == 1; }));
    EXPECT_THAT(ask(get("/healthz")), is(200));
}

TEST_F(StationWeb, GivesStreamsTheNewestState) {
    const auto contains = [](std::string what) {
        return [what](const std::string& text) { return text.find(what) != std::string::npos; };
    };
    Client quick(server->port());
    Client slow(server->port());
    for (Client* client : {&quick, &slow}) {
        client->send(get("/api/v1/stream", "Last-Event-ID: 4711\r\n"));
    }
    const std::string start = quick.read(contains("event: snapshot"));
    EXPECT_THAT(start, AllOf(HasSubstr("text/event-stream"), HasSubstr("event: alarm\nid: "),
                             HasSubstr("event: channels\nid: ")));
    slow.read(contains("event: snapshot"));

    constexpr int kStates = 10;
    for (int i = 1; i <= kStates; ++i) {
        station.change([i](StationState& state) {
            state.probe.restarts = static_cast<uint64_t>(i);
            state.probe.pipeProblem.assign(2'000'000,
                                           static_cast<char>('a' + i));  // more than the kernel takes
            state.alarmsVersion += i == kStates ? 1 : 0;
        });
        server->statePublished();
        quick.read(contains("\"restarts\":" + std::to_string(i) + ','));
    }
    std::string rest = slow.read(contains("\"restarts\":" + std::to_string(kStates) + ','));
    EXPECT_THAT(rest, HasSubstr("event: alarm"));
    std::size_t snapshots = 0;
    for (std::size_t at = 0; (at = rest.find("event: snapshot", at)) != std::string::npos; ++at) {
        ++snapshots;
    }
    EXPECT_LE(snapshots, 3U) << "what came while it was not done with the first is left out";
    EXPECT_EQ(server->statistics().streams, 2U);
}

TEST(StationEventStream, TellsEachKindOnceAndCommentsInBetween) {
    FakeStation station(1);
    EventStream events;
    EventStream::Client client;
    SteadyTime now{};
    const auto next = [&] {
        const PayloadPointer payload = events.next(client, now);
        return payload == nullptr ? std::string()
                                  : std::string(payload->text().substr(0, payload->text().find('\n')));
    };
    const auto update = [&] { events.adopt(EventStream::make(*station.state(), events.known(), nullptr)); };
    update();
    for (const char* line : {"retry: 2000", "event: channels", "event: alarm", "event: snapshot", ""}) {
        EXPECT_EQ(next(), line);
    }
    station.change([](StationState& state) { ++state.channelsVersion; });
    update();
    now += seconds(15);
    for (const char* line : {": still here", "event: channels", ""}) {
        EXPECT_EQ(next(), line);
    }
    // A state in which nothing is another is told after a while, one in which something is at once.
    const auto tells = [&](bool told, const std::function<void(StationState&)>& how) {
        station.change(how);
        update();
        EXPECT_EQ(next(), told ? "event: snapshot" : "");
    };
    tells(false, [](StationState& state) { ++state.probe.requests; });
    tells(true, [](StationState& state) { state.now.steady += EventStream::kUnchangedEvery; });
    tells(false, [](StationState& state) { state.now.wall += seconds(1); });
    tells(true, [](StationState& state) { state.probe.asks = !state.probe.asks; });
    tells(true, [](StationState& state) {
        auto changed = std::make_shared<ChannelState>(*state.channels[0]);
        changed->maintenance = !changed->maintenance;
        state.channels[0] = changed;
    });
}

// Whoever joins when: the same pieces in any order are one stream.
TEST(StationEventStream, IsReadableEventByEventWhenCompressed) {
    FakeStation station(3);
    EventStream events;
    const auto update = [&] { events.adopt(EventStream::make(*station.state(), events.known(), nullptr)); };
    update();
    EventStream::Client early;
    while (events.next(early, {}) != nullptr) {
    }
    station.change([](StationState& state) { state.probe.asks = !state.probe.asks; });
    update();
    EventStream::Client late;
    z_stream zlib{};
    ASSERT_EQ(inflateInit2(&zlib, 15 + 16), Z_OK);
    std::string room(100'000, '\0');
    int pieces = 0;
    for (PayloadPointer payload; (payload = events.next(late, {})) != nullptr; ++pieces) {
        const std::string piece(payload->gzip());
        zlib.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(piece.data()));
        zlib.avail_in = static_cast<uInt>(piece.size());
        zlib.next_out = reinterpret_cast<Bytef*>(room.data());
        zlib.avail_out = static_cast<uInt>(room.size());
        EXPECT_EQ(inflate(&zlib, Z_SYNC_FLUSH), Z_OK);
        EXPECT_EQ(room.substr(0, room.size() - zlib.avail_out), payload->text());
    }
    inflateEnd(&zlib);
    EXPECT_EQ(pieces, 4);
}

TEST_F(StationWeb, SurvivesClientsAndAnswersThatAreGone) {
    station.mute = true;
    {
        Client client(server->port());
        client.send(change("POST /api/v1/clear", ""));
        while (server->statistics().requests == 0) {
            std::this_thread::yield();
        }
    }
    station.mute = false;
    for (int i = 0; i < 200; ++i) {
        Client(server->port()).send(get("/api/v1/overview"));
    }
    Client last(server->port());
    last.send(get("/api/v1/events"));
    server.reset();  // answers may come still
    start();
    EXPECT_THAT(ask(get("/healthz")), is(200));
}

TEST_F(StationWeb, AnswersAsDocumented) {
    const auto full = test::reportMessage(test::fullReport(fakeGroup(0).hostOrder()));
    MeterReport report{.number = 1, .time = {}, .disturbed = true, .levels = {}, .description = {}};
    report.time.steady = std::chrono::steady_clock::now() + std::chrono::hours(1);  // however long this takes
    report.levels = std::make_shared<std::string>(full.SerializeAsString());
    report.description = std::make_shared<std::string>(full.description().SerializeAsString());
    station.setMeterReport(report);
    // Cues as they were told, and behind them those of the report that were told before.
    const auto cues = [this] {
        const std::string answer = ask(get("/api/v1/channels/" + fakeGroup(0).text() + "/cues"));
        return nlohmann::json::parse(answer.substr(answer.find("\r\n\r\n") + 4));
    };
    ASSERT_EQ(cues().size(), 1U);
    EXPECT_EQ(cues()[0]["eventId"], 9);
    EXPECT_TRUE(cues()[0]["time"].is_null());
    metering::Cue cue = full.description().cue(0);
    cue.set_event_id(10);
    const auto bytes = std::make_shared<const std::string>(cue.SerializeAsString());
    cue.set_event_id(9);
    cue.set_repetitions(cue.repetitions() + 3);
    station.setMeterCues({{FakeStation::kStart, bytes}});
    station.change([](StationState& next) {
        next.meter.configured = next.meter.connected = true;
        auto told = std::make_shared<ChannelState>(*next.channels[0]);
        told->meter = {std::make_shared<const MeterFacts>(MeterFacts{"one", "1920x1080i", "H.264"}),
                       FakeStation::kStart, true};
        next.channels[0] = told;
    });
    EXPECT_EQ(cues()[0]["eventId"], 10);
    EXPECT_EQ(cues()[0]["time"], rfc3339(FakeStation::kStart));
    ASSERT_EQ(cues().size(), 2U);
    EXPECT_EQ(cues()[1]["eventId"], 9);
    const auto again = std::make_shared<const std::string>(cue.SerializeAsString());
    station.setMeterCues({{FakeStation::kStart, bytes}, {FakeStation::kStart, again}});
    station.change([](StationState&) {});
    EXPECT_EQ(cues().size(), 2U) << "one of them stands in both";
    const std::string tree = KESTOR_SOURCE_DIR;
    const std::string command = "/usr/bin/python3 " + tree + "/tests/apiSchemas.py " + tree +
                                "/docs/api.yaml 127.0.0.1:" + std::to_string(server->port());
    EXPECT_EQ(system(command.c_str()), 0);
    EXPECT_EQ(system((command + ' ' + (directory / "station.sock").string()).c_str()), 0);
}

}  // namespace
}  // namespace station
