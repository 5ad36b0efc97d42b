// Maintenance windows: what is told before, within and behind them, whatever happens to the station
// meanwhile.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "eventDesk.h"
#include "support/movedTime.h"
#include "support/scratch.h"
#include "support/webhookServer.h"

namespace station {
namespace {

using namespace std::chrono_literals;
using testing::IsEmpty;
using testing::SizeIs;

constexpr WallTime kTime{std::chrono::hours(24 * 365 * 57)};

const std::size_t kNoSignal = *findAlarmType("no_signal");

Group groupOf(int number) {
    return *Group::parse("239.1.1." + std::to_string(number));
}

// A station's alarms, events and delivery without the rest of it. Time is moved by hand.
struct Desk {
    Desk() {
        for (const int number : {1, 2}) {
            const Group group = groupOf(number);
            channels.emplace(group, Channel{.group = group, .name = std::to_string(number)});
        }
        webhook.url = server.url();
        webhook.minimumSeverity = Severity::kWarning;
        webhook.maxPerMinute = 10'000;
        start();
    }
    void start() {
        desk.reset();
        delivery.reset();
        store.reset();
        store = std::make_unique<EventStore>(directory.path(), EventStore::Limits{90, 1'000'000},
                                             [time = now] { return time; });
        delivery = std::make_unique<Delivery>(directory.path(), "p", DeliveryPace{.firstWait = 10ms});
        delivery->configure({webhook});
        desk = std::make_unique<EventDesk>(*store, *delivery);
        engine = std::make_unique<AlarmEngine>();
        engine->configure({{"default", defaultRules()}}, channels, now);
        EXPECT_THAT(engine->restore(store->initial().active, now), IsEmpty());
        desk->restore(engine->active(), channels, now);
    }
    void tick() {
        desk->tick(engine->active(), channels, now);
    }
    void take(const std::vector<AlarmChange>& changes) {
        for (const AlarmChange& change : changes) {
            desk->record(change, *engine, channels, nullptr, now);
        }
    }
    // Twenty seconds without packets, or with some.
    void look(const Group& group, bool signal) {
        for (int second = 0; second < 20; ++second) {
            now += 1s;
            std::vector<AlarmChange> changes;
            ChannelSample sample;
            sample.signal = true;
            sample.seconds = 1;
            signal ? engine->observe(group, sample, now, changes)
                   : engine->observeMissing(group, now, changes);
            take(changes);
            tick();
        }
        ASSERT_EQ(engine->activeOf(group).size(), signal ? 0U : 1U);
    }
    void happen(const Group& group) {
        Alarm alarm;
        alarm.type = *findAlarmType("ttl_changed");
        alarm.about = group;
        take({{.what = AlarmChange::What::kHappened, .alarm = alarm, .text = "changed"}});
    }
    HandleAlarms until(int seconds) const {
        return {.until = now.wall + std::chrono::seconds(seconds)};
    }
    void window(std::optional<Group> group, std::chrono::seconds time) {
        SetMaintenance action{now.wall, now.wall + time, std::move(group), "ann", "works"};
        desk->store(desk->setMaintenance(action, channels, now), {});
    }
    void end() {
        const int64_t id = desk->maintenance().back().id;
        EXPECT_TRUE(desk->endMaintenance(id, channels, now));
        desk->store(id, {});
        EXPECT_FALSE(desk->endMaintenance(id, channels, now));
    }
    // "raise 1": what the first word says, of the group with that number.
    void act(const std::string& step) {
        std::istringstream words(step);
        std::string what, whom;
        int count = 0;
        words >> what >> whom >> count;
        const int number = whom.empty() || whom == "all" ? 0 : std::stoi(whom);
        const std::optional<Group> group = whom == "all" ? std::nullopt : std::optional(groupOf(number));
        const std::map<std::string, std::function<void()>> acts = {
            {"raise", [&] { look(*group, false); }},
            {"clear", [&] { look(*group, true); }},
            {"happen", [&] { happen(*group); }},
            {"window", [&] { window(group, std::chrono::seconds(count)); }},
            {"shelve", [&] { EXPECT_TRUE(desk->shelve(*group, kNoSignal, until(count), channels, now)); }},
            {"unshelve", [&] { EXPECT_TRUE(desk->unshelve(*group, kNoSignal, {}, channels, now)); }},
            {"end", [&] { end(); }},
            {"pass",
             [&] {
                 for (int second = 0; second < number; ++second) {
                     now += 1s;
                     tick();
                 }
             }},
            {"down",  // the station, for so long
             [&] {
                 now += std::chrono::seconds(number);
                 start();
             }},
        };
        acts.at(what)();
        if (what.ends_with("shelve") || what == "end") {
            tick();
        }
    }
    // Waits until all that came so far is told, and says what that is: "raised 1" and so on.
    std::string told() {
        Notification last;
        last.alarmId = ++marks + 1'000'000'000'000'000;
        last.momentary = true;
        last.alarm = "mark";
        delivery->notify(last);
        std::string text;
        const auto read = [&] {
            text.clear();
            bool marked = false;
            for (const std::string& body : server.taken()) {
                const auto message = nlohmann::json::parse(body);
                for (const auto& one : message["notifications"]) {
                    marked = marked || one["alarmId"] == last.alarmId;
                    if (one["alarm"] != "mark") {
                        text += (text.empty() ? "" : ", ") + one["state"].get<std::string>() + " " +
                                one["channel"].get<std::string>();
                    }
                }
            }
            return marked;
        };
        EXPECT_TRUE(eventually(read));
        return text;
    }

    const ScratchDirectory directory;
    WebhookServer server;
    Webhook webhook;
    Now now{std::chrono::steady_clock::now(), kTime};
    ChannelMap channels;
    std::unique_ptr<EventStore> store;
    std::unique_ptr<Delivery> delivery;
    std::unique_ptr<EventDesk> desk;
    std::unique_ptr<AlarmEngine> engine;
    int64_t marks = 0;
};

TEST(StationWindows, SilenceWhatIsTheirsAndNothingIsLostBehindThem) {
    // Steps, and behind => all that was told until then.
    const std::pair<const char*, const char*> cases[] = {
        {"none", "raise 1 => raised 1; clear 1 => raised 1, cleared 1"},
        {"over before its end", "window 1 100, raise 1 => ; clear 1, pass 100 => "},
        {"still raised at its end", "window 1 100, raise 1, pass 79 => ; pass 1 => raised 1"},
        {"told once behind it, and cleared",
         "window 1 100, raise 1 => ; pass 90, pass 5, clear 1 => raised 1, cleared 1"},
        {"ended on demand", "window 1 1000, raise 1 => ; end => raised 1"},
        {"raised before it", "raise 1, window 1 100 => raised 1; clear 1 => raised 1, cleared 1"},
        {"raised before it, and longer", "raise 1, window 1 50 => raised 1; pass 60 => raised 1"},
        {"of another", "window 2 100, raise 1 => raised 1; raise 2 => raised 1"},
        {"of all", "window all 100, raise 1, raise 2 => ; clear 2, pass 100 => raised 1"},
        {"two at once", "window 1 50, window all 100, raise 1, pass 40 => ; pass 40 => raised 1"},
        {"what happens once", "window 1 50, happen 1 => ; pass 50, happen 1 => happened 1"},
        {"a restart within it", "window 1 100, raise 1, down 5 => ; pass 80 => raised 1"},
        {"a restart within it, of what was told",
         "raise 1, window 1 100, down 5 => raised 1; pass 100, clear 1 => raised 1, cleared 1"},
        {"shelved, and it flaps",
         "shelve 1 200, raise 1, clear 1, raise 1, pass 139 => ; pass 1 => raised 1"},
        {"shelved over a restart", "shelve 1 100, raise 1, down 5 => ; pass 80 => raised 1"},
        {"taken off the shelf", "shelve 1 1000, raise 1 => ; unshelve 1 => raised 1"},
        {"shelved after it was told", "raise 1, shelve 1 100 => raised 1; clear 1 => raised 1, cleared 1"},
        {"shelved, and another one is not", "shelve 1 100, raise 2 => raised 2; raise 1 => raised 2"},
        {"over while the station is down", "window 1 50, raise 1, down 50 => raised 1"},
    };
    for (const auto& [what, script] : cases) {
        SCOPED_TRACE(what);
        Desk desk;
        std::istringstream parts(script);
        for (std::string part; std::getline(parts >> std::ws, part, ';');) {
            const std::size_t end = part.find(" => ");
            std::istringstream steps(part.substr(0, end));
            for (std::string step; std::getline(steps, step, ',');) {
                desk.act(step);
                desk.told();
            }
            EXPECT_EQ(desk.told(), part.substr(end + 4)) << part;
        }
    }
}

TEST(StationWindows, HoldFromTheirBeginUpToTheirEnd) {
    Desk desk;
    const SetMaintenance action{kTime + 10s, kTime + 20s, groupOf(1), "ann", "works"};
    const int64_t id = desk.desk->setMaintenance(action, desk.channels, desk.now);
    EXPECT_GT(id, 0);
    const struct {
        std::chrono::milliseconds at;
        bool holds;
    } cases[] = {{9'999ms, false}, {10'000ms, true}, {19'999ms, true}, {20'000ms, false}};
    for (const auto& one : cases) {
        const Now then{desk.now.steady, kTime + one.at};
        EXPECT_EQ(desk.desk->inMaintenance(groupOf(1), then), one.holds) << one.at.count();
        EXPECT_FALSE(desk.desk->inMaintenance(groupOf(2), then));
        EXPECT_FALSE(desk.desk->inMaintenance(Source::kProbe, then)) << "the probe is no channel";
    }
    desk.desk->store(id, {});
    desk.now += 19s;
    desk.tick();
    EXPECT_THAT(desk.desk->maintenance(), SizeIs(1));
    desk.start();
    EXPECT_THAT(desk.desk->maintenance(), SizeIs(1)) << "kept on the disk";
    desk.now += 1s;
    desk.tick();
    EXPECT_THAT(desk.desk->maintenance(), IsEmpty());
    desk.start();
    EXPECT_THAT(desk.desk->maintenance(), IsEmpty());
}

}  // namespace
}  // namespace station
