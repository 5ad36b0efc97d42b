// kestor-station in a world that misbehaves: its clock is set, its disk hangs. Needs a library that is loaded
// before all others (tests/shim), for which the sanitizers leave no place.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

#include "support/harness.h"
#include "support/webhookServer.h"

namespace test {
namespace {

using nlohmann::json;

constexpr const char* kCut = "239.1.1.1";
constexpr const char* kSilent = "239.1.1.2";
constexpr const char* kWorkedOn = "239.1.1.3";
constexpr int64_t kHour = 3600;
constexpr int64_t kYears = 5 * 365 * 24 * kHour;

constexpr bool kSanitized =
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    true;
#else
    false;
#endif

// What the station's socket answers.
json ask(const std::string& method, const std::string& path, const json& body = {}) {
    const int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/tmp/station.sock");
    if (connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(connection);
        return nullptr;
    }
    const std::string text = body.empty() ? "" : body.dump();
    const std::string request =
        method + " /api/v1/" + path + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n" +
        "Content-Type: application/json\r\nContent-Length: " + std::to_string(text.size()) + "\r\n\r\n" +
        text;
    send(connection, request.data(), request.size(), MSG_NOSIGNAL);
    std::string answer;
    char part[4096];
    for (ssize_t size; (size = recv(connection, part, sizeof part, 0)) > 0;)
        answer.append(part, static_cast<std::size_t>(size));
    close(connection);
    const auto end = answer.find("\r\n\r\n");
    return end == std::string::npos ? json() : json::parse(answer.substr(end + 4), nullptr, false);
}

struct World {
    explicit World(const std::string& configuration) {
        std::ofstream("/tmp/station.toml") << configuration;
        setClock(0);
    }
    static void setClock(int64_t seconds) {
        std::fstream file("/tmp/clock", std::ios::binary | std::ios::in | std::ios::out);
        if (!file)
            file.open("/tmp/clock", std::ios::binary | std::ios::out);
        file.write(reinterpret_cast<const char*>(&seconds), sizeof seconds);
    }
    void start() {
        const auto programs = std::filesystem::read_symlink("/proc/self/exe").parent_path();
        station.emplace(std::vector<std::string>{
            "env", "LD_PRELOAD=" KESTOR_SHIM, "KESTOR_SHIM_CLOCK=/tmp/clock", "KESTOR_SHIM_HANG=/events.db",
            programs / "kestor-station", "--config", "/tmp/station.toml", "--state", "/tmp/state", "--socket",
            "/tmp/station.sock"});
    }
    std::optional<Process> station;
};

// Ids of the raised no_signal of that group.
std::set<int64_t> raised(const std::string& group) {
    std::set<int64_t> ids;
    for (const json& alarm : ask("GET", "alarms"))
        if (alarm.value("alarm", "") == "no_signal" && alarm.value("group", "") == group)
            ids.insert(alarm.value("id", int64_t{0}));
    return ids;
}

std::set<int64_t> eventIds() {
    std::set<int64_t> ids;
    for (const json& event : ask("GET", "events?limit=1000"))
        ids.insert(event.value("id", int64_t{0}));
    return ids;
}

std::size_t windows() {
    return ask("GET", "maintenance").size();
}

std::string now() {
    const json status = ask("GET", "status");
    return status.is_object() ? status.value("time", "") : "";
}

// How often a receiver was told so.
std::size_t told(const station::WebhookServer& receiver, const char* state, const std::string& group) {
    std::size_t count = 0;
    for (const std::string& body : receiver.taken()) {
        const json message = json::parse(body);
        for (const json& one : message["notifications"])
            count += one["state"] == state && one["group"] == group && one["alarm"] == "no_signal" ? 1 : 0;
    }
    return count;
}

bool soon(const std::function<bool()>& condition) {
    return eventually(condition, 60s);
}

bool includes(const std::set<int64_t>& all, const std::set<int64_t>& some) {
    return std::ranges::includes(all, some);
}

}  // namespace

TEST(StationWorld, ClocksThatAreSetLoseNothing) {
    if (kSanitized)
        GTEST_SKIP() << "nothing can be loaded before a sanitizer";
    const station::WebhookServer receiver;
    const station::WebhookServer alertmanager;
    const std::string often = "max_per_minute = 6000\n";
    World world("[[webhook]]\nurl = \"" + receiver.url() + "\"\n" + often + "[[webhook]]\nurl = \"" +
                alertmanager.url() + "\"\nformat = \"alertmanager\"\n" + often + "[events]\nkeep_days = 1\n");
    world.start();
    ASSERT_TRUE(soon([] { return !now().empty(); })) << world.station->err();
    const auto setWindow = [](const char* group, const std::string& until) {
        return ask("POST", "maintenance", {{"group", group}, {"until", until}}).value("from", "");
    };
    const std::string begin = now();
    const std::string year = begin.substr(0, 4);
    for (const char* group : {kCut, kSilent, kWorkedOn})
        ask("PUT", std::string("channels/") + group, {{"name", "channel"}});
    ASSERT_NE(setWindow(kWorkedOn, std::to_string(std::stoi(year) + 1) + begin.substr(4)), "");
    const Process kestor({"kestor", "-s"});
    std::optional<std::jthread> traffic(liveTraffic(kCut));
    ASSERT_TRUE(soon([&] {
        return raised(kSilent).size() == 1 && raised(kWorkedOn).size() == 1 &&
               told(receiver, "raised", kSilent) == 1;
    })) << world.station->err()
        << ask("GET", "use") << ask("GET", "alarms") << receiver.requests().size();
    EXPECT_EQ(told(receiver, "raised", kWorkedOn), 0U);
    const std::set<int64_t> silent = raised(kSilent);
    const std::set<int64_t> workedOn = raised(kWorkedOn);
    std::set<int64_t> known = eventIds();
    const auto holds = [&](const char* when) {
        SCOPED_TRACE(when);
        EXPECT_EQ(raised(kSilent), silent);
        EXPECT_EQ(raised(kWorkedOn), workedOn);
        EXPECT_TRUE(includes(eventIds(), known)) << "an event is gone";
        known = eventIds();
    };

    World::setClock(kYears);
    // The window's time is over, and what was raised behind it is told.
    EXPECT_TRUE(soon([&] { return now().substr(0, 4) > year && windows() == 0; }));
    EXPECT_TRUE(soon([&] { return told(receiver, "raised", kWorkedOn) == 1; }));
    holds("years ahead");
    EXPECT_TRUE(raised(kCut).empty());

    const std::string later = now();
    const std::string from =
        setWindow(kCut, std::to_string(std::stoi(later.substr(0, 4)) + 1) + later.substr(4));
    ASSERT_GE(from, later);
    World::setClock(kYears - kHour);
    EXPECT_TRUE(soon([&] { return now() < from; }));
    holds("an hour back");
    EXPECT_TRUE(raised(kCut).empty());
    EXPECT_EQ(windows(), 1U) << "it lies ahead, and silences nothing until then";
    traffic.emplace(liveTraffic(kSilent));
    EXPECT_TRUE(soon([&] { return told(receiver, "raised", kCut) == 1; }));
    EXPECT_TRUE(soon([&] { return told(receiver, "cleared", kSilent) == 1; }));
    EXPECT_TRUE(raised(kSilent).empty());
    const std::set<int64_t> cut = raised(kCut);
    known = eventIds();

    world.station->kill(SIGTERM);
    EXPECT_EQ(world.station->wait(60s), 0);
    World::setClock(0);
    world.start();
    ASSERT_TRUE(soon([&] { return now().substr(0, 4) == year; })) << world.station->err();
    EXPECT_TRUE(soon([&] { return raised(kCut) == cut; }));
    EXPECT_EQ(raised(kWorkedOn), workedOn);
    EXPECT_EQ(windows(), 1U);
    EXPECT_TRUE(includes(eventIds(), known));
    EXPECT_TRUE(soon([&] { return *eventIds().rbegin() > *known.rbegin(); })) << "ids go on";
    traffic.emplace(liveTraffic(kCut));
    EXPECT_TRUE(soon([&] { return told(receiver, "cleared", kCut) == 1; }));
    EXPECT_EQ(told(receiver, "raised", kCut), 1U);
    std::size_t alerts = 0;
    for (const std::string& body : alertmanager.taken())
        for (const json& alert : json::parse(body)) {
            EXPECT_GE(alert.value("endsAt", ""), alert.value("startsAt", "-")) << alert;
            ++alerts;
        }
    EXPECT_GT(alerts, 4U);
}

TEST(StationWorld, AFileThatHangsHoldsUpNeitherTheStartNorTheEnd) {
    if (kSanitized)
        GTEST_SKIP() << "nothing can be loaded before a sanitizer";
    World world("[[channel]]\ngroup = \"" + std::string(kSilent) + "\"\n");
    const auto end = [&](const char* when) {
        const auto before = std::chrono::steady_clock::now();
        world.station->kill(SIGTERM);
        EXPECT_EQ(world.station->wait(60s), 0) << when << world.station->err();
        EXPECT_LT(std::chrono::steady_clock::now() - before, 6s) << when;
    };
    world.start();
    const Process kestor({"kestor", "-s"});
    ASSERT_TRUE(soon([] { return raised(kSilent).size() == 1; })) << world.station->err();
    const std::set<int64_t> ids = raised(kSilent);
    end("all is well");

    std::ofstream("/tmp/hang") << "";
    world.start();
    std::this_thread::sleep_for(2s);
    end("while it starts");
    world.start();
    ASSERT_TRUE(soon([] { return !now().empty(); })) << world.station->err();
    EXPECT_TRUE(
        soon([&] { return world.station->err().find("events.db is not opened yet") != std::string::npos; }));
    EXPECT_TRUE(raised(kSilent).empty());
    EXPECT_TRUE(ask("GET", "events").dump().find("not opened yet") != std::string::npos);
    end("while it runs");
    world.start();
    ASSERT_TRUE(soon([] { return !now().empty(); })) << world.station->err();
    std::filesystem::remove("/tmp/hang");
    EXPECT_TRUE(soon([&] { return raised(kSilent) == ids; })) << "taken up late";
    end("all is well again");
}

}  // namespace test
