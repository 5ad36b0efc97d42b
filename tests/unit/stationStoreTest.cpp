// Events on the disk: what was raised is never lost, whatever happens to the disk and the file.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <future>
#include <optional>
#include <thread>

#include "store/eventStore.h"
#include "support/databaseHolder.h"
#include "support/scratch.h"

namespace station {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::SizeIs;

constexpr WallTime kTime{std::chrono::hours(24 * 365 * 50)};
const Group kGroup = *Group::parse("239.1.1.1");
const Group kOther = *Group::parse("239.1.1.2");
const Maintenance kWorks{9, kTime - 1h, kTime + 1h, kGroup, "works", "ann"};

Now atTime(WallTime wall) {
    return {std::chrono::steady_clock::now(), wall};
}

Event event(int64_t id, EventKind kind, int64_t alarmId = 0, WallTime time = kTime) {
    Event one;
    one.id = id;
    one.time = time;
    one.kind = kind;
    one.group = kGroup;
    one.channel = "News";
    one.alarm = alarmId == 0 ? "" : "no_signal";
    one.alarmId = alarmId;
    one.severity = Severity::kCritical;
    return one;
}

Event raised(int64_t id, const Group& group = kGroup, WallTime time = kTime) {
    Event one = event(id, EventKind::kRaised, id, time);
    one.group = group;
    return one;
}

struct Store : EventStore {
    explicit Store(const ScratchDirectory& directory, Limits limits = {90, 1'000'000}, WallTime now = kTime)
        : EventStore(directory.path(), limits, [now] { return atTime(now); }) {}

    Store(const ScratchDirectory& directory, Limits limits, ClockFunction clock)
        : EventStore(directory.path(), limits, std::move(clock)) {}

    void recordAll(std::vector<Event> events) {
        const uint64_t before = statistics().written;
        for (Event& one : events) {
            record(std::move(one));
        }
        ASSERT_TRUE(eventually([&] { return statistics().written == before + events.size(); }));
    }
    // Once the store's thread has gone round.
    void expectStored() {
        std::promise<std::string> stored;
        removeMaintenance(77, [&](const std::string& problem) { stored.set_value(problem); });
        EXPECT_EQ(stored.get_future().get(), "");
    }
    // Until it has also looked at the clock.
    void look() {
        expectStored();
        expectStored();
    }
    bool settles() const {
        return eventually([this] { return statistics().waiting == 0; });
    }
    std::vector<int64_t> ids(const EventFilter& filter) {
        std::promise<std::vector<int64_t>> answer;
        query(filter, [&answer](std::vector<Event>&& events, const std::string& problem) {
            EXPECT_EQ(problem, "");
            std::vector<int64_t> all;
            for (const Event& one : events) {
                all.push_back(one.id);
            }
            answer.set_value(all);
        });
        return answer.get_future().get();
    }
    std::vector<int64_t> activeIds() const {
        std::vector<int64_t> all;
        for (const Alarm& alarm : initial().active) {
            all.push_back(alarm.id);
        }
        return all;
    }
};

// Databases; what SQLite keeps beside one goes along where somebody had it open.
std::vector<std::string> filesOf(const ScratchDirectory& directory, std::string_view containing) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
        const std::string name = entry.path().filename().string();
        if (name.find(containing) != std::string::npos && !name.ends_with("-wal") &&
            !name.ends_with("-shm")) {
            names.push_back(name);
        }
    }
    return names;
}

TEST(EventStore, KnowsAfterARestartWhatIsRaised) {
    const ScratchDirectory directory;
    const std::string kept(Alarm::kTextBytes - 1, 'x');
    {
        Store store(directory);
        EXPECT_EQ(store.initial().lastId, 0);
        Event said = event(4, EventKind::kAcknowledged, 1, kTime + 3s);
        said.by = "ann";
        said.text = "on it";
        Event first = raised(1);
        first.value = 2.5;
        first.source = Source::kMeter;
        first.text = kept + "\nü, beyond the bound";
        store.recordAll({first, raised(2, kOther), event(3, EventKind::kCleared, 2), said,
                         event(5, EventKind::kChannelChanged)});
        store.putMaintenance(kWorks);
        store.putMaintenance({10, kTime - 2h, kTime - 1h, {}, "over", ""});
        store.putMaintenance({11, kTime, kTime + 1h, {}, "taken back", ""});
        store.removeMaintenance(11);
    }
    const Store again(directory);
    EXPECT_EQ(again.initial().problem, "");
    EXPECT_EQ(again.initial().lastId, 5);
    Alarm alarm;
    alarm.id = 1;
    alarm.type = *findAlarmType("no_signal");
    alarm.about = kGroup;
    alarm.severity = Severity::kCritical;
    alarm.raised = kTime;
    alarm.value = alarm.peak = 2.5;
    alarm.text = kept;
    alarm.source = Source::kMeter;
    alarm.acknowledged = Acknowledgement{kTime + 3s, "ann", "on it"};
    EXPECT_THAT(again.initial().active, ElementsAre(alarm));
    EXPECT_THAT(again.initial().maintenance, ElementsAre(kWorks));
}

TEST(EventStore, TakesUpAFileOfTheFirstSchema) {
    const ScratchDirectory directory;
    sqlite3* file = nullptr;
    ASSERT_EQ(sqlite3_open((directory.path() / "events.db").c_str(), &file), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(file, R"(
        CREATE TABLE events (id INTEGER PRIMARY KEY, time INTEGER NOT NULL, kind TEXT NOT NULL,
          channel_group TEXT, channel TEXT NOT NULL, alarm TEXT NOT NULL, alarm_id INTEGER NOT NULL,
          severity TEXT, text TEXT NOT NULL, by_whom TEXT NOT NULL, value REAL, peak REAL,
          duration_ms INTEGER, silenced INTEGER NOT NULL);
        CREATE INDEX events_by_time ON events (time);
        CREATE INDEX events_by_group ON events (channel_group);
        CREATE INDEX events_by_kind ON events (kind);
        CREATE INDEX events_by_severity ON events (severity);
        INSERT INTO events VALUES
          (7, 1576800000001, 'raised', '239.1.1.1', 'a', 'no_signal', 7, 'critical', '', '', 1, NULL, NULL, 0),
          (8, 1576800000002, 'raised', '239.1.1.2', 'b', 'no_signal', 8, 'critical', '', '', 1, NULL, NULL, 0),
          (9, 1576800000003, 'acknowledged', '239.1.1.2', 'b', 'no_signal', 8, 'critical', 'r', 'bob', 1, NULL, NULL, 0),
          (10, 1576800000004, 'cleared', '239.1.1.1', 'a', 'no_signal', 7, 'critical', '', '', 1, 2, 3, 0);
        PRAGMA user_version = 1;)",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(file);

    Store store(directory);
    EXPECT_EQ(store.initial().problem, "");
    ASSERT_THAT(store.activeIds(), ElementsAre(8));
    EXPECT_EQ(store.initial().active[0].acknowledged->by, "bob");
    EXPECT_THAT(store.ids({}), ElementsAre(10, 9, 8, 7));
}

TEST(EventStore, PutsADamagedFileAsideAndKeepsWhatIsRaised) {
    struct Case {
        const char* what;
        long offset;  // from the file's begin, or its middle when negative
        bool alarmsKept;
    };
    for (const Case& damage : {Case{"header", 0, false}, Case{"pages in the middle", -1, true}}) {
        SCOPED_TRACE(damage.what);
        const ScratchDirectory directory;
        {
            Store store(directory);
            std::vector<Event> many{raised(1)};
            for (int64_t id = 2; id <= 3000; ++id) {
                many.push_back(event(id, EventKind::kChannelChanged));
                many.back().text.assign(200, 'x');
            }
            store.recordAll(many);
        }
        const auto path = directory.path() / "events.db";
        {
            std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
            file.seekp(damage.offset < 0 ? static_cast<long>(std::filesystem::file_size(path) / 2)
                                         : damage.offset);
            file << std::string(16'384, '\x5A');
        }
        {
            Store store(directory);
            ASSERT_TRUE(eventually([&] { return filesOf(directory, ".damaged-").size() == 1; }));
            EXPECT_EQ(store.activeIds().size(), damage.alarmsKept ? 1 : 0);
            EXPECT_GE(store.initial().lastId, 3000);
            store.recordAll({raised(store.initial().lastId + 1, kOther)});
        }
        EXPECT_EQ(Store(directory).activeIds().size(), damage.alarmsKept ? 2 : 1);
    }
}

TEST(EventStore, LeavesAllInOneFileAlsoWhenItEndsBeforeThatIsChecked) {
    const ScratchDirectory directory;
    for (int64_t id = 1; id <= 100; ++id) {
        Store(directory).recordAll({raised(id)});
        ASSERT_FALSE(std::filesystem::exists(directory.path() / "events.db-wal")) << id;
    }
}

TEST(EventStore, GoesOnInANewFileWhenItsOwnIsRemovedOrReplaced) {
    const ScratchDirectory others;
    {
        Store store(others);
        store.recordAll({raised(77, kOther), event(5000, EventKind::kChannelChanged)});
    }
    const auto putOther = [&](const ScratchDirectory& directory) {
        std::filesystem::copy_file(others.path() / "events.db", directory.path() / "other");
        std::filesystem::rename(directory.path() / "other", directory.path() / "events.db");
    };
    const struct {
        const char* what;
        std::function<void(const ScratchDirectory&)> happens;
        bool replaced;
    } cases[] = {
        {"its directory is removed",
         [](const auto& directory) {  // at once: the store makes it anew
             const ScratchDirectory away;
             std::filesystem::rename(directory.path(), away.path() / "removed");
         },
         false},
        {"it is removed, its log stays",
         [](const auto& directory) { std::filesystem::remove(directory.path() / "events.db"); }, false},
        {"a backup is moved there, its log stays", putOther, true},
        {"another disk is mounted",
         [&](const auto& directory) {  // at once, as a mount is: without a moment in which the store makes a
                                       // file anew
             const ScratchDirectory disk;
             putOther(disk);
             ASSERT_EQ(renameat2(AT_FDCWD, disk.path().c_str(), AT_FDCWD, directory.path().c_str(),
                                 RENAME_EXCHANGE),
                       0);
         },
         true},
    };
    for (const auto& [what, happens, replaced] : cases) {
        SCOPED_TRACE(what);
        const ScratchDirectory directory;
        {
            Store store(directory);
            store.recordAll({raised(1), event(2, EventKind::kChannelChanged)});
            happens(directory);
            store.recordAll({raised(3, kOther)});
            EXPECT_EQ(store.ids({}), (std::vector<int64_t>{3, 1})) << "what is raised goes along";
            EXPECT_EQ(store.givenTo() > 5000, replaced);
        }
        const auto aside = filesOf(directory, ".replaced-");
        ASSERT_EQ(aside.size(), replaced ? 1 : 0);
        const Store again(directory);
        EXPECT_THAT(again.activeIds(), ElementsAre(1, 3));
        EXPECT_EQ(again.initial().lastId > 5000, replaced) << "whose numbers are not given again";
        if (replaced) {
            const ScratchDirectory back;
            std::filesystem::copy(directory.path() / aside[0], back.path() / "events.db");
            Store store(back);
            EXPECT_EQ(store.ids({}), (std::vector<int64_t>{5000, 77})) << "nothing of it is lost";
            EXPECT_THAT(store.activeIds(), ElementsAre(77));
        }
    }
}

TEST(EventStore, WritesWhatWaitedOnceTheDiskHasSpaceAgain) {
    const ScratchDirectory directory;
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const auto ignored = std::signal(SIGXFSZ, SIG_IGN);
    {
        Store store(directory);
        store.recordAll({raised(1)});
        const rlimit small{200'000, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
        for (int64_t id = 2; id <= 600; ++id) {
            Event one = raised(id);
            one.text.assign(1000, 'x');
            store.record(std::move(one));
        }
        EXPECT_TRUE(eventually([&] { return store.statistics().failing; }));
        EXPECT_LT(store.statistics().written, 600);
        EXPECT_TRUE(
            eventually([&] { return store.statistics().waiting + store.statistics().written == 600; }));
        setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_TRUE(eventually([&] { return store.statistics().written == 600; }));
        EXPECT_FALSE(store.statistics().failing);
        EXPECT_EQ(store.statistics().dropped, 0);
    }
    std::signal(SIGXFSZ, ignored);
    EXPECT_THAT(Store(directory).ids({.limit = 1000}), SizeIs(600));
}

// Both clocks, moved by hand.
struct Clocks {
    std::atomic<int64_t> steady{std::chrono::milliseconds(1h).count()};
    std::atomic<int64_t> wall{kTime.time_since_epoch().count()};
    ClockFunction function() {
        return [this] {
            return Now{SteadyTime(std::chrono::milliseconds(steady)),
                       WallTime(std::chrono::milliseconds(wall))};
        };
    }
    void run(std::chrono::milliseconds time) {
        steady += time.count();
        wall += time.count();
    }
};

TEST(EventStore, ForgetsWhatIsOldOrTooMuchButNotWhatIsRaised) {
    const ScratchDirectory directory;
    Clocks clocks;
    constexpr EventStore::Limits kDays{90, 1'000'000};
    const auto fill = [](Store& store, int64_t first, int64_t last) {
        std::vector<Event> events;
        for (int64_t id = first; id <= last; ++id) {
            events.push_back(event(id, EventKind::kChannelChanged, 0, kTime - 24h * 1000));
        }
        store.recordAll(events);
    };
    const auto count = [](Store& store) { return store.ids({.limit = 1000}).size(); };
    {
        Store store(directory, kDays, clocks.function());
        store.recordAll({raised(1), raised(2, kOther), event(3, EventKind::kCleared, 2)});
        fill(store, 4, 20);
        clocks.run(2h);
        store.look();  // it notes once an hour what is there
        clocks.wall += std::chrono::milliseconds(24h * 365 * 30).count();  // set, by far
        store.setLimits(kDays);
        clocks.run(24h * 89);
        store.setLimits(kDays);
        store.look();
        EXPECT_EQ(count(store), 20U) << "the time that they bear does not count";
        fill(store, 21, 30);
        clocks.run(24h * 2);
        store.setLimits(kDays);
        EXPECT_TRUE(eventually([&] { return count(store) == 11; }));
        EXPECT_EQ(store.ids({.limit = 1000}).back(), 1) << "it is raised";
    }
    {
        Store again(directory, kDays, clocks.function());
        clocks.run(24h * 80);
        again.setLimits(kDays);
        again.look();
        EXPECT_EQ(count(again), 11U);
        clocks.run(24h * 20);  // with the time before the restart
        again.setLimits(kDays);
        EXPECT_TRUE(eventually([&] { return count(again) == 2; })) << "the newest stays for its id";
        fill(again, 31, 2000);
        again.setLimits({90, 10});
        EXPECT_TRUE(eventually([&] { return count(again) == 10; }));
        EXPECT_THAT(again.ids({.limit = 9}),
                    ElementsAre(2000, 1999, 1998, 1997, 1996, 1995, 1994, 1993, 1992));
    }
    const Store last(directory, {1, 10}, clocks.function());
    EXPECT_THAT(last.activeIds(), ElementsAre(1));
    EXPECT_EQ(last.initial().lastId, 2000);
}

TEST(EventStore, KeepsCuesFromCrowdingOutWhatElseHappened) {
    const ScratchDirectory directory;
    Store store(directory, {90, 40});
    std::vector<Event> events;
    for (int64_t id = 1; id <= 130; ++id) {
        events.push_back(event(id, id <= 30 ? EventKind::kChannelChanged : EventKind::kCue));
    }
    store.recordAll(events);
    store.setLimits({90, 40});
    EXPECT_TRUE(eventually([&] { return store.ids({.limit = 1000}).size() == 40; }));
    EXPECT_EQ(store.ids({.kind = EventKind::kCue}).size(), 10U);
    EXPECT_EQ(store.ids({.limit = 1000}).back(), 1) << "none gave way to a cue";
}

TEST(EventStore, KnowsWhetherAMeterWasThere) {
    const ScratchDirectory directory;
    for (const bool known : {true, false}) {
        Store store(directory);
        EXPECT_EQ(store.initial().meterKnown, !known);
        store.noteMeter(known);
    }
    const Store last(directory);
    EXPECT_FALSE(last.initial().meterKnown);
}

TEST(EventStore, SaysOfAFileThatIsHeldThatNothingIsStored) {
    const ScratchDirectory directory;
    {
        std::optional<Store> open(directory);
        Store& store = *open;
        store.recordAll({raised(1)});
        std::optional<Holder> holder(directory.path() / "events.db");
        const auto begin = std::chrono::steady_clock::now();
        std::promise<std::string> first;
        std::promise<std::string> second;
        store.putMaintenance(kWorks, [&](const std::string& problem) { first.set_value(problem); });
        store.record(event(4, EventKind::kAcknowledged, 1),
                     [&](const std::string& problem) { second.set_value(problem); });
        EXPECT_NE(first.get_future().get(), "");
        EXPECT_NE(second.get_future().get(), "");
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 20s);
        holder.reset();
        EXPECT_TRUE(store.settles());
        store.expectStored();
        holder.emplace(directory.path() / "events.db");
        store.record(raised(5, kOther));
        const auto end = std::chrono::steady_clock::now();
        open.reset();
        EXPECT_LT(std::chrono::steady_clock::now() - end, 5s);
    }
    const Store again(directory);
    EXPECT_THAT(again.initial().maintenance, ElementsAre(kWorks));
    EXPECT_THAT(again.activeIds(), ElementsAre(1));
}

TEST(EventStore, KnowsWhatDroppedEventsSaidOfAlarms) {
    const ScratchDirectory directory;
    {
        Store store(directory);
        store.recordAll({raised(1), raised(2, kOther)});
        std::optional<Holder> holder(directory.path() / "events.db");  // for less than it takes to fail
        store.record(event(3, EventKind::kChannelChanged));
        std::this_thread::sleep_for(100ms);  // that one is being written
        store.record(event(4, EventKind::kCleared, 1));
        store.record(event(5, EventKind::kAcknowledged, 2));
        store.record(raised(6));
        constexpr int64_t kBatch = 500;  // which a store that is late has taken
        for (int64_t id = 7; id < 7 + static_cast<int64_t>(EventStore::kStoreQueue) + kBatch; ++id) {
            store.record(event(id, EventKind::kChannelChanged));
        }
        EXPECT_TRUE(eventually([&] { return store.statistics().dropped >= 3; }));
        holder.reset();
        EXPECT_TRUE(store.settles());
    }
    const Store again(directory);
    EXPECT_THAT(again.activeIds(), testing::UnorderedElementsAre(2, 6));
    for (const Alarm& alarm : again.initial().active) {
        EXPECT_EQ(alarm.acknowledged.has_value(), alarm.id == 2);
    }
}

TEST(EventStore, TakesUpAFileThatCanBeReadLaterThanTheStart) {
    const ScratchDirectory directory;
    {
        Store store(directory);
        store.recordAll({raised(1), raised(2, kOther), event(4, EventKind::kCleared, 2)});
        store.putMaintenance(kWorks);
    }
    for (const int64_t meanwhile : {0, 1, 2}) {
        SCOPED_TRACE(meanwhile);
        std::filesystem::rename(directory.path() / "events.db", directory.path() / "away");
        std::filesystem::create_directory(directory.path() / "events.db");
        Store store(directory);
        EXPECT_FALSE(store.initial().loaded);
        EXPECT_THAT(store.initial().problem, testing::HasSubstr("cannot be opened"));
        EXPECT_EQ(store.reservedTo(), 0);
        const int64_t first = store.initial().lastId + 1;
        EXPECT_GT(first, 1'000'000'000'000);
        for (int64_t i = 0; i < meanwhile; ++i) {
            store.record(raised(first + i, kOther));
        }
        EXPECT_FALSE(store.late());
        std::filesystem::remove(directory.path() / "events.db");
        std::filesystem::rename(directory.path() / "away", directory.path() / "events.db");
        std::optional<StoredState> late;
        ASSERT_TRUE(eventually([&] { return (late = store.late()).has_value(); }));
        EXPECT_EQ(late->active.at(0).about.group(), kGroup);
        EXPECT_EQ(late->active.at(0).id, 1);
        EXPECT_THAT(late->maintenance, ElementsAre(kWorks));
        EXPECT_TRUE(store.settles());
        EXPECT_THAT(store.ids({.group = kGroup, .kind = EventKind::kRaised}), ElementsAre(1));
    }
    const Store again(directory);
    EXPECT_THAT(again.activeIds(), SizeIs(2));
    EXPECT_THAT(again.initial().maintenance, ElementsAre(kWorks));
}

TEST(EventStore, ReservesIdsSoThatNoneIsGivenTwice) {
    const ScratchDirectory directory;
    int64_t given = 0;
    {
        Store store(directory);
        store.recordAll({raised(1)});
        given = store.reservedTo();
        EXPECT_GE(given, EventStore::kIdBlock);
        std::filesystem::copy(directory.path(), directory.path() / "crashed");  // as a power cut leaves it
    }
    EXPECT_EQ(Store(directory).initial().lastId, 1) << "no gap after an end in order";
    EXPECT_GE(EventStore(directory.path() / "crashed", {90, 1000}, systemNow).initial().lastId, given);

    EXPECT_GT(idByTime(kTime), EventStore::kIdBlock * 1000) << "also when the clock was never set";
    EXPECT_GT(idByTime(systemNow().wall), idByTime(systemNow().wall - 1s));
}

TEST(EventStore, FindsEventsNewestFirst) {
    const ScratchDirectory directory;
    Store store(directory);
    std::vector<Event> events;
    for (int64_t id = 1; id <= 12; ++id) {
        // The wall clock steps back by five hours before the seventh.
        Event one = event(id, id % 2 == 0 ? EventKind::kRaised : EventKind::kCleared, id,
                          kTime + std::chrono::hours(id > 6 ? id - 5 : id));
        one.group = id % 3 == 0 ? kOther : kGroup;
        one.severity = id % 4 == 0 ? Severity::kMinor : Severity::kMajor;
        one.channel = id % 3 == 0 ? "50%_off" : "News HD";
        one.alarm = id % 5 == 0 ? "no_signal" : "continuity";
        events.push_back(one);
    }
    store.recordAll(events);
    const struct {
        EventFilter filter;
        std::vector<int64_t> expected;
    } cases[] = {
        {{.limit = 3}, {12, 11, 10}},
        {{.before = 10, .limit = 3}, {9, 8, 7}},
        {{.group = kOther}, {12, 9, 6, 3}},
        {{.text = "eWs", .limit = 3}, {11, 10, 8}},
        {{.text = "%_", .since = kTime + 5h}, {12, 6}},
        {{.text = kOther.text().substr(1), .before = 9}, {6, 3}},
        {{.text = "sport"}, {}},
        {{.kind = EventKind::kRaised}, {12, 10, 8, 6, 4, 2}},
        {{.severity = Severity::kMinor}, {12, 8, 4}},
        {{.alarm = findAlarmType("no_signal")}, {10, 5}},
        {{.kind = EventKind::kCleared, .alarm = findAlarmType("no_signal"), .until = kTime + 9h}, {5}},
        {{.severity = Severity::kMajor, .kind = EventKind::kRaised}, {10, 6, 2}},
        {{.group = kOther, .severity = Severity::kMajor, .kind = EventKind::kRaised}, {6}},
        {{.since = kTime + 3h, .until = kTime + 5h}, {9, 8, 4, 3}},
        {{.since = kTime + 3h, .until = kTime + 5h, .before = 9, .limit = 2}, {8, 4}},
        {{.group = kOther, .since = kTime + 5h}, {12, 6}},
        {{.since = kTime + 24h}, {}},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        EXPECT_EQ(store.ids(cases[i].filter), cases[i].expected) << "case " << i;
    }
}

}  // namespace
}  // namespace station
