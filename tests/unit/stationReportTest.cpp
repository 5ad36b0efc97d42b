// Reports: every second of a channel is counted once, and what was not observed is never called available.
#include <gmock/gmock.h>

#include <fstream>
#include <future>
#include <mutex>
#include <optional>

#include "store/eventDatabase.h"
#include "store/eventStore.h"
#include "support/scratch.h"
#include "web/reportText.h"

namespace station {
namespace {

using namespace std::chrono_literals;
using std::chrono::seconds;

const Group kGroup = *Group::parse("239.1.1.1");
const Group kOther = *Group::parse("239.1.1.2");
constexpr WallTime kBegin{std::chrono::hours(24 * 365 * 50)};
constexpr Span kPeriod{kBegin, kBegin + 1000s};

WallTime at(int second) {
    return kBegin + seconds(second);
}

Span span(int from, int until) {
    return {at(from), at(until)};
}

AlarmTime alarm(const char* type, int raised, std::optional<int> cleared,
                std::optional<Group> group = kGroup) {
    return {.type = *findAlarmType(type),
            .group = group,
            .raised = at(raised),
            .cleared = cleared ? std::optional(at(*cleared)) : std::nullopt};
}

Maintenance window(int from, int until, std::optional<Group> group = {}) {
    return {.id = 1, .from = at(from), .until = at(until), .group = group, .remark = {}, .by = {}};
}

ReportRows rows(std::vector<AlarmTime> alarms, std::vector<Maintenance> maintenance = {},
                std::vector<Span> observed = {span(-500, 2000)},
                std::vector<Span> watched = {{span(-500, 2000)}}) {
    return {.observed = std::move(observed),
            .watched = {{kGroup, std::move(watched)}},
            .maintenance = std::move(maintenance),
            .alarms = std::move(alarms)};
}

ReportTimes times(int available, int outage, int unknown, int maintenance, int notWatched, int withErrors) {
    return {.available = seconds(available),
            .outage = seconds(outage),
            .unknown = seconds(unknown),
            .maintenance = seconds(maintenance),
            .notWatched = seconds(notWatched),
            .withErrors = seconds(withErrors)};
}

TEST(Report, EachSecondOfAChannelCountsOnce) {
    ReportRows forgotten = rows({alarm("no_signal", 100, 200)});
    forgotten.knownSince = at(150);
    ReportRows whoWasWatched = rows({}, {}, {span(-500, 2000)}, {span(100, 150), span(400, 1000)});
    whoWasWatched.watchedKnownSince = at(300);
    const struct {
        const char* what;
        ReportRows rows;
        ReportTimes times;  // available, outage, unknown, maintenance, not watched, with errors
        uint64_t outages;
    } kCases[] = {
        {"all is well", rows({}), times(1000, 0, 0, 0, 0, 0), 0},
        {"an outage", rows({alarm("no_signal", 100, 160)}), times(940, 60, 0, 0, 0, 0), 1},
        {"it began before", rows({alarm("no_signal", -50, 60)}), times(940, 60, 0, 0, 0, 0), 1},
        {"it goes on behind", rows({alarm("no_signal", 990, 1200)}), times(990, 10, 0, 0, 0, 0), 1},
        {"it is raised still", rows({alarm("no_signal", 900, {})}), times(900, 100, 0, 0, 0, 0), 1},
        {"it ended at the begin", rows({alarm("no_signal", -50, 0)}), times(1000, 0, 0, 0, 0, 0), 0},
        {"it begins at the end", rows({alarm("no_signal", 1000, 1001)}), times(1000, 0, 0, 0, 0, 0), 0},
        {"all the time", rows({alarm("no_signal", -5, {})}), times(0, 1000, 0, 0, 0, 0), 1},
        {"two errors at once, one of them beyond an outage",
         rows({alarm("continuity", 100, 130), alarm("packets_lost", 110, 150), alarm("no_signal", 140, 200)}),
         times(940, 60, 0, 0, 0, 40), 1},
        {"two outages that overlap, of a clock that was set back",
         rows({alarm("no_signal", 100, 160), alarm("no_signal", 150, 180)}), times(920, 80, 0, 0, 0, 0), 2},
        {"the station was restarted meanwhile",
         rows({alarm("no_signal", 100, 300)}, {}, {span(-500, 150), span(250, 2000)}),
         times(800, 100, 100, 0, 0, 0), 1},
        {"nobody looked", rows({alarm("no_signal", 100, {})}, {}, {}), times(0, 0, 1000, 0, 0, 0), 0},
        {"the probe was silent, an outage within that",
         rows({alarm("no_signal", 400, 500)}, {}, {span(0, 400), span(500, 1000)}),
         times(900, 0, 100, 0, 0, 0), 0},
        {"what was noted twice", rows({}, {}, {span(0, 600), span(500, 900), span(900, 1000)}),
         times(1000, 0, 0, 0, 0, 0), 0},
        {"no link at the probe: what it took for an outage is none",
         rows({alarm("no_signal", 100, 200), alarm("link_down", 99, 198, std::nullopt)}),
         times(899, 2, 99, 0, 0, 0), 1},
        {"events of it are deleted", forgotten, times(800, 50, 150, 0, 0, 0), 1},
        {"who was watched is deleted", whoWasWatched, times(650, 0, 250, 0, 100, 0), 0},
        {"maintenance over an outage", rows({alarm("no_signal", 120, 180)}, {window(100, 200, kGroup)}),
         times(900, 0, 0, 100, 0, 0), 0},
        {"an outage goes on behind maintenance of all",
         rows({alarm("no_signal", 120, 230)}, {window(100, 200)}), times(870, 30, 0, 100, 0, 0), 1},
        {"maintenance of another channel", rows({alarm("no_signal", 120, 180)}, {window(100, 200, kOther)}),
         times(940, 60, 0, 0, 0, 0), 1},
        {"two windows at once, beyond the begin, while nobody looked",
         rows({}, {window(-100, 50), window(30, 80, kGroup)}, {span(70, 1000)}), times(920, 0, 0, 80, 0, 0),
         0},
        {"it was added late and removed early, with a window beyond",
         rows({}, {window(50, 150)}, {span(0, 1000)}, {span(100, 400)}), times(250, 0, 0, 50, 700, 0), 0},
    };
    for (const auto& one : kCases) {
        SCOPED_TRACE(one.what);
        const Report report = makeReport(one.rows, {{kGroup, "News", {}}}, {.time = kPeriod});
        ASSERT_EQ(report.channels.size(), 1U);
        const ChannelReport& channel = report.channels[0];
        const ReportTimes& got = channel.times;
        EXPECT_EQ(got, one.times) << seconds(got.available.count()).count() << " " << got.outage.count()
                                  << " " << got.unknown.count() << " " << got.maintenance.count() << " "
                                  << got.notWatched.count() << " " << got.withErrors.count();
        EXPECT_EQ(got.available + got.outage + got.unknown + got.maintenance + got.notWatched, 1000s);
        EXPECT_EQ(channel.outages, one.outages);
        EXPECT_EQ(channel.listed.size(), one.outages);
        EXPECT_EQ(report.total.times, channel.times);
    }
}

TEST(Report, SumsAlarmsAndLabelsAndNamesChannelsThatAreGone) {
    ReportRows some =
        rows({alarm("continuity", 100, 130), alarm("continuity", 200, 210), alarm("quality_index", 0, 10),
              alarm("quality_index", 20, 30), alarm("no_signal", 0, 100, kOther),
              alarm("probe_silent", 500, 600, std::nullopt)});
    some.alarms[0].peak = 7;
    some.alarms[1].peak = 9;
    some.alarms[2].peak = 1.5;
    some.alarms[3].peak = 2.5;
    some.alarms.push_back(alarm("ttl_changed", 300, 300));
    some.alarms.back().momentary = true;
    some.watched[kOther] = {span(-10, 400)};
    some.names[kOther] = "=Old";
    const Report report =
        makeReport(some, {{kGroup, "News", {{"site", "north"}}}}, {.time = kPeriod, .label = "site"});
    ASSERT_EQ(report.channels.size(), 2U);
    std::vector<std::string> sums;
    for (const AlarmSum& sum : report.channels[0].alarms) {
        sums.push_back(std::string(alarmTypes()[sum.type].name) + " " + std::to_string(sum.count) + " " +
                       std::to_string(sum.total / 1s) + " " + std::to_string(sum.longest / 1s) + " " +
                       (sum.worst ? std::to_string(*sum.worst).substr(0, 3) : "-"));
    }
    EXPECT_THAT(sums, testing::ElementsAre("continuity 2 40 30 9.0", "quality_index 2 20 10 1.5",
                                           "ttl_changed 1 0 0 -"));
    EXPECT_FALSE(report.channels[1].present);
    EXPECT_EQ(report.channels[1].times, times(300, 100, 0, 0, 600, 0));
    ASSERT_EQ(report.byLabel.size(), 2U);
    EXPECT_EQ(report.byLabel[0].value, "");
    EXPECT_EQ(report.byLabel[0].times.percent(), 75.0);
    EXPECT_EQ(report.byLabel[1].value, "north");
    ASSERT_EQ(report.alarms.size(), 1U);
    EXPECT_EQ(report.alarms[0].total, 100s);

    // A spreadsheet takes no name for a formula; times have their zone.
    Report lossy = report;
    lossy.channels[0].loss.emplace().add(at(60), 0, 1000);
    lossy.channels[0].loss->add(at(120), 20, 980);
    const std::string csv = reportCsv(lossy);
    EXPECT_THAT(csv, testing::HasSubstr(",1,2,\"2019-12-20T00:02:00.000Z\",20,120\r\n"));
    // Of what the history lacks nothing is claimed.
    EXPECT_THAT(csv,
                testing::HasSubstr("\n\"239.1.1.2\",\"'=Old\",\"\",\"2019-12-20T00:00:00.000Z\",\"2019-12-20"
                                   "T00:16:40.000Z\",75,300,100,1,100,0,0,0,600,,,\"\",,\r\n"));
    EXPECT_THAT(outagesCsv(report),
                testing::HasSubstr("\n\"239.1.1.2\",\"'=Old\",\"\",\"2019-12-20T00:00:00.000Z\","
                                   "\"2019-12-20T00:01:40.000Z\",100\r\n"));
    EXPECT_EQ(reportFileName("report", kPeriod), "report-20191220T000000Z-20191220T001640Z.csv");
}

// The station's clock and store, and what a report makes of it.
struct Night {
    ScratchDirectory directory;
    std::mutex mutex;  // guards now_
    Now now_{SteadyTime(std::chrono::hours(1)), at(0)};
    std::optional<EventStore> store;
    int64_t id = 0;

    Now now() {
        const std::lock_guard lock(mutex);
        return now_;
    }
    void move(seconds both, seconds wallAlone = 0s) {
        const std::lock_guard lock(mutex);
        now_ = {now_.steady + both, now_.wall + both + wallAlone};
    }
    void start() {
        store.emplace(directory.path(), EventStore::Limits{90, 1'000'000}, [this] { return now(); });
    }
    void stop() {
        store.reset();
    }
    void pass(int count, bool snapshots = true) {
        for (int second = 0; second < count; ++second) {
            move(1s);
            if (snapshots) {
                store->observed(now());
            }
        }
    }
    int64_t raise() {
        store->record(event(EventKind::kRaised, ++id));
        return id;
    }
    void clear(int64_t alarmId, seconds lasted) {
        Event one = event(EventKind::kCleared, alarmId);
        one.id = ++id;
        one.duration = lasted;
        store->record(one);
    }
    Event event(EventKind kind, int64_t alarmId) {
        Event one;
        one.id = id;
        one.time = now().wall;
        one.kind = kind;
        one.group = kGroup;
        one.channel = "News";
        one.alarm = "no_signal";
        one.alarmId = alarmId;
        one.severity = Severity::kCritical;
        return one;
    }
    // All is on the disk before it is read: the store is ended and made anew.
    ChannelReport report(const Span& time) {
        stop();
        start();
        std::promise<ReportRows> answer;
        EXPECT_TRUE(store->report({.time = time}, [&answer](ReportRows&& found, const std::string& problem) {
            EXPECT_EQ(problem, "");
            answer.set_value(std::move(found));
        }));
        return makeReport(answer.get_future().get(), {{kGroup, "News", {}}}, {.time = time}).channels.at(0);
    }
};

TEST(Report, IsMadeOfWhatTheStoreKept) {
    Night night;
    night.start();
    night.store->watched({kGroup});
    night.store->observed(night.now());
    night.pass(100);
    const int64_t first = night.raise();
    night.pass(50);
    night.stop();  // for 100 s
    night.move(100s);
    night.start();
    night.store->watched({kGroup});
    night.store->observed(night.now());
    night.pass(50);
    night.clear(first, 200s);
    night.pass(50);
    night.pass(60, false);  // the probe is silent
    night.pass(40);
    night.store->putMaintenance(
        {.id = 500, .from = night.now().wall, .until = at(5000), .group = {}, .remark = {}, .by = {}});
    night.pass(100);
    night.store->removeMaintenance(500);
    night.store->putMaintenance(  // taken back before it began
        {.id = 501, .from = at(700), .until = at(5000), .group = {}, .remark = {}, .by = {}});
    night.store->removeMaintenance(501);
    night.pass(100);
    // 0-150 seen, 150-250 stopped, 250-350 seen, 350-411 silent, 411-450 seen, 450-550 maintenance, 650.
    const ChannelReport report = night.report(span(0, 650));
    EXPECT_EQ(report.times.outage, 100s);  // of 100 to 300
    EXPECT_EQ(report.times.unknown, 161s);
    EXPECT_EQ(report.times.maintenance, 100s);
    EXPECT_EQ(report.times.notWatched, 0s);
    EXPECT_EQ(report.times.available, 289s);
    ASSERT_EQ(report.listed.size(), 1U);
    EXPECT_EQ(report.listed[0].from, at(100));
    EXPECT_EQ(report.listed[0].until, at(300));

    // The clock is set ahead during an outage, then back: what it skipped is not known, and nothing is longer
    // than it was.
    const int64_t second = night.raise();
    night.pass(10);
    night.move(0s, 1000s);
    night.pass(10);
    night.clear(second, 20s);
    night.move(0s, -1000s);
    const int64_t third = night.raise();
    night.move(0s, -20s);
    night.pass(5);
    night.clear(third, 5s);
    const ChannelReport stepped = night.report(span(650, 2000));
    EXPECT_EQ(stepped.times.outage, 18s);  // the second before the first snapshot of each is not known
    EXPECT_EQ(stepped.times.available, 0s);
    EXPECT_EQ(stepped.outages, 2U);

    night.store->watched({});  // at 655
    night.pass(10);
    EXPECT_EQ(night.report(span(600, 700)).times.notWatched, 45s);

    // A file that is put aside has its time with it.
    night.stop();
    std::ofstream(night.directory.path() / "events.db") << "no database, but long enough to be taken for one";
    const ChannelReport lost = night.report(span(0, 650));
    EXPECT_EQ(lost.times.available + lost.times.outage, 0s);
}

// Rows of ended times, as many as are kept; the first of them ended at 2 ms.
TEST(Report, SaysOfTimesWhoseRowsAreDeletedThatTheyAreNotKnown) {
    const ScratchDirectory directory;
    const std::filesystem::path file = directory.path() / "events.db";
    const Patience patience;
    EventDatabase database(file, patience);
    const auto fill = [&](const std::string& into, int64_t rows) {
        const std::string sql = "WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                                std::to_string(rows) + ") INSERT INTO " + into + " FROM n";
        Database(file, Database::Mode::kReadWrite, patience).execute(sql.c_str());
    };
    fill("watched (channel_group, began, until) SELECT '239.1.1.1', i, i + 1", EventDatabase::kWatchedRows);
    fill("past_maintenance (id, from_time, until_time) SELECT i, i, i + 2", EventDatabase::kPastWindows + 1);
    const std::atomic<bool> stop = false;
    EventReader reader(file, stop, patience);
    const std::vector<Group> groups = {kGroup};
    database.noteWatched(groups, at(0));
    const std::vector<Span> observed = {span(0, 1)};
    database.noteObserved(observed);
    const ReportRows rows = reader.reportRows({.time = kPeriod});
    EXPECT_EQ(rows.watchedKnownSince.time_since_epoch().count(), 2);
    EXPECT_EQ(rows.knownSince.time_since_epoch().count(), 3);
}

}  // namespace
}  // namespace station
