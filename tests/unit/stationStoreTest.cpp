// Events on the disk: what was raised is never lost, whatever happens to the disk and the file.
#include <gmock/gmock.h>
#include <sqlite3.h>
#include <sys/resource.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <future>
#include <thread>

#include "store/eventStore.h"
#include "support/scratch.h"

namespace station {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::SizeIs;

constexpr WallTime kTime{std::chrono::hours(24 * 365 * 50)};
const Group kGroup = *Group::parse("239.1.1.1");
const Group kOther = *Group::parse("239.1.1.2");

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

    void recordAll(std::vector<Event> events) {
        const uint64_t before = statistics().written;
        for (Event& one : events) {
            record(std::move(one));
        }
        ASSERT_TRUE(eventually([&] { return statistics().written == before + events.size(); }));
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

std::vector<std::string> filesOf(const ScratchDirectory& directory, std::string_view containing) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
        const std::string name = entry.path().filename().string();
        if (name.find(containing) != std::string::npos) {
            names.push_back(name);
        }
    }
    return names;
}

TEST(EventStore, KnowsAfterARestartWhatIsRaised) {
    const ScratchDirectory directory;
    const Maintenance window{9, kTime - 1h, kTime + 1h, kGroup, "works", "ann"};
    {
        Store store(directory);
        EXPECT_EQ(store.initial().lastId, 0);
        Event said = event(4, EventKind::kAcknowledged, 1, kTime + 3s);
        said.by = "ann";
        said.text = "on it";
        Event first = raised(1);
        first.value = 2.5;
        store.recordAll({first, raised(2, kOther), event(3, EventKind::kCleared, 2), said,
                         event(5, EventKind::kChannelChanged)});
        store.putMaintenance(window);
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
    alarm.group = kGroup;
    alarm.severity = Severity::kCritical;
    alarm.raised = kTime;
    alarm.value = alarm.peak = 2.5;
    alarm.acknowledged = Acknowledgement{kTime + 3s, "ann", "on it"};
    EXPECT_THAT(again.initial().active, ElementsAre(alarm));
    EXPECT_THAT(again.initial().maintenance, ElementsAre(window));
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

TEST(EventStore, GoesOnInANewFileWhenItsDirectoryIsRemoved) {
    const ScratchDirectory directory;
    {
        Store store(directory);
        store.recordAll({raised(1), event(2, EventKind::kChannelChanged)});
        std::filesystem::remove_all(directory.path());
        store.recordAll({raised(3, kOther)});
        EXPECT_EQ(store.ids({}), (std::vector<int64_t>{3, 1})) << "what is raised goes along";
    }
    EXPECT_EQ(Store(directory).activeIds().size(), 2U);
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
        std::atomic<int> stored = 0;
        for (int64_t id = 2; id <= 600; ++id) {
            Event one = raised(id);
            one.text.assign(1000, 'x');
            store.record(std::move(one), [&stored](int64_t) { ++stored; });
        }
        EXPECT_TRUE(eventually([&] { return store.statistics().failing; }));
        EXPECT_LT(stored, 599);
        EXPECT_TRUE(
            eventually([&] { return store.statistics().waiting == static_cast<uint64_t>(599 - stored); }));
        setrlimit(RLIMIT_FSIZE, &before);
        EXPECT_TRUE(eventually([&] { return stored == 599; }));
        EXPECT_FALSE(store.statistics().failing);
        EXPECT_EQ(store.statistics().dropped, 0);
    }
    std::signal(SIGXFSZ, ignored);
    EXPECT_THAT(Store(directory).ids({.limit = 1000}), SizeIs(600));
}

TEST(EventStore, ForgetsWhatIsOldOrTooMuchButNotWhatIsRaised) {
    const ScratchDirectory directory;
    {
        Store store(directory);
        std::vector<Event> events{raised(1, kGroup, kTime - 24h * 100), raised(2, kOther, kTime - 24h * 99),
                                  event(3, EventKind::kCleared, 2, kTime - 24h * 98)};
        for (int64_t id = 4; id <= 2000; ++id) {
            events.push_back(event(id, EventKind::kChannelChanged, 0, kTime - 1h));
        }
        store.recordAll(events);
    }
    {
        Store byDays(directory, {90, 1'000'000});
        EXPECT_TRUE(eventually([&] { return byDays.ids({.until = kTime - 2h}).size() == 1; }));
        EXPECT_THAT(byDays.ids({.until = kTime - 2h}), ElementsAre(1));
    }
    {
        Store byRows(directory, {90, 10});
        EXPECT_TRUE(eventually([&] { return byRows.ids({.limit = 1000}).size() == 10; }));
        EXPECT_THAT(byRows.ids({.limit = 9}),
                    ElementsAre(2000, 1999, 1998, 1997, 1996, 1995, 1994, 1993, 1992));
    }
    const Store again(directory, {1, 10}, kTime + 24h * 365);
    EXPECT_THAT(again.activeIds(), ElementsAre(1));
    EXPECT_EQ(again.initial().lastId, 2000);
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
