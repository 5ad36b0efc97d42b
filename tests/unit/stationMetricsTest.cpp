// What Prometheus is told: each value is its record's column, and nothing that a channel is called can break
// the text.
#include <gmock/gmock.h>

#include "measures/probeSample.h"
#include "support/exposition.h"
#include "support/recordLine.h"
#include "tr101290Checks.h"
#include "web/metrics.h"

namespace station {
namespace {

using records::Kind;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::Key;
using testing::Not;
using testing::Pair;

constexpr WallTime kTime{std::chrono::hours(24 * 365 * 50)};

// A line whose every number is another one, where the column can hold it: 1000 and 100 times the kind, and
// the column's place.
std::string line(Kind kind, const std::string& pid, std::map<std::string_view, std::string> values) {
    const auto number = [kind](const records::Column& column) {
        const auto place = static_cast<std::size_t>(&column - records::columnsOf(kind).data());
        return std::to_string(
                   std::min<uint64_t>(1000 + 100 * static_cast<std::size_t>(kind) + place, column.maximum)) +
               (column.type == records::Type::kFraction ? ".500000" : "");
    };
    values.try_emplace("pid", pid);
    values.try_emplace("descriptorCount", "0");
    return recordLine(kind, std::move(values), number) + "\n";
}

struct Station {
    StationState state;
    std::shared_ptr<ChannelState> channel;

    explicit Station(const std::string& records) {
        state.now.wall = kTime;
        state.probe.connected = true;
        state.probe.lastSnapshot = kTime - seconds(1);
        state.configuration = std::make_shared<Configuration>();
        channel =
            std::make_shared<ChannelState>(ChannelState{.channel = {.group = *Group::parse("239.1.1.1")}});
        channel->channel.name = "News";
        channel->channel.labels = {{"site", "north"}};
        channel->measured[Source::kProbe].shown = true;
        channel->status = ChannelStatus::kAlarm;
        show(records);
        state.channels = {channel};
        Alarm alarm;
        alarm.type = *findAlarmType("probe_silent");
        state.alarms.push_back(alarm);
        alarm.type = *findAlarmType("continuity");
        alarm.about = channel->channel.group;
        state.alarms.push_back(alarm);
    }
    void show(const std::string& records) {
        const auto snapshot = std::make_shared<records::Snapshot>(records::parseSnapshot(
            records, [](std::size_t, const std::string& problem) { FAIL() << problem; }));
        channel->stream = &(*snapshot)[0];
        channel->pids = {&*snapshot->begin() + 1, snapshot->size() - 1};
        channel->snapshot = snapshot;
        channel->measured[Source::kProbe].sample = makeSample(*channel->stream, channel->pids, nullptr, {});
    }
    void pids(MetricsPids which) {
        auto configuration = std::make_shared<Configuration>();
        configuration->metricsPids = which;
        state.configuration = configuration;
    }
};

Series metricsOf(const Station& station) {
    return seriesOf(MetricsWriter().text(station.state, {}));
}

std::string records() {
    return line(Kind::kStream, "-1", {{"sourceAddress", "33554442"}}) + line(Kind::kPat, "0", {}) +
           line(Kind::kKnownPid, "257", {}) + line(Kind::kKnownPid, "257", {{"pmtPid", "4097"}}) +
           line(Kind::kUnlistedPid, "8191", {{"gopLength", "0"}});
}

TEST(StationMetrics, TellEachColumnUnderItsName) {
    struct Metric {
        std::string name;
        std::string_view column;
        double divisor = 1;
    };
    const auto expectColumns = [](const auto& found, const Record& record, const std::string& labels,
                                  const std::vector<Metric>& metrics) {
        for (const auto& [name, column, divisor] : metrics) {
            const auto value = found.find("kestor_" + name + labels);
            ASSERT_NE(value, found.end()) << name << labels;
            EXPECT_EQ(std::stod(value->second),
                      record.number(*records::columnIndex(record.kind(), column)) / divisor)
                << name;
        }
    };
    const std::string channel = R"({group="239.1.1.1")";
    const Station station(records());
    const auto found = metricsOf(station);
    expectColumns(found, *station.channel->stream, channel + "}",
                  {{"stream_packets_total", "packetsReceived"},
                   {"stream_lost_packets_total", "packetsLost"},
                   {"stream_out_of_sequence_packets_total", "packetsOutOfSequence"},
                   {"stream_scrambled_packets_total", "packetsScrambled"},
                   {"stream_bitrate_bps", "bitRate"},
                   {"stream_delay_factor_seconds", "mdiDelayFactor", 1000},
                   {"stream_interarrival_seconds", "jitterMeanInterArrival", 1000},
                   {"stream_jitter_variance", "jitterVariance"},
                   {"stream_quality_index", "transportQualityIndex"},
                   {"stream_ttl", "ttl"},
                   {"stream_dscp", "dscp"},
                   {"stream_wrong_source", "wrongSource"},
                   {"stream_join_latency_seconds", "igmpLatency", 1000}});
    expectColumns(found, station.channel->pids[1], channel + R"(,pid="257"})",
                  {{"pid_packets_total", "packetsReceived"},
                   {"pid_lost_packets_total", "packetsLost"},
                   {"pid_continuity_errors_total", "Continuity_count_error"},
                   {"pid_scrambled_packets_total", "packetsScrambled"},
                   {"pid_bitrate_bps", "bitRate"},
                   {"pid_picture_width_pixels", "pictureWidth"},
                   {"pid_picture_height_pixels", "pictureHeight"},
                   {"pid_gop_frames", "gopLength"},
                   {"pid_mos", "mosScore"}});
    for (const auto& check : records::kChecks) {
        const std::string labels = "check=\"" + std::string(check.column) + "\",priority=\"" +
                                   std::to_string(check.priority) + "\"}";
        expectColumns(found, *station.channel->stream, channel + "," + labels,
                      {{"tr101290_errors_total", check.column}});
        if (check.column != "TS_sync_loss" && check.column != "Sync_byte_error" &&
            check.column != "CRC_error") {
            expectColumns(found, station.channel->pids[1], channel + R"(,pid="257",)" + labels,
                          {{"pid_tr101290_errors_total", check.column}});
        }
    }
    for (const char* const one :
         {R"(kestor_channel_info{group="239.1.1.1",name="News",origin="config",profile="default",)"
          R"(source="10.0.0.2",port="1007",label_site="north"})",
          R"(kestor_pid_info{group="239.1.1.1",pid="0",kind="PAT"})",
          R"(kestor_pid_info{group="239.1.1.1",pid="257",kind="KP",stream_type="255",pmt_pid="1305"})",
          R"(kestor_stream_state{group="239.1.1.1",state="alarm"})",
          R"(kestor_alarm_active{group="239.1.1.1",alarm="continuity",severity="warning"})",
          R"(kestor_alarm_active{alarm="probe_silent",severity="warning"})", "kestor_up"}) {
        EXPECT_THAT(found, Contains(Pair(one, "1")));
    }
}

TEST(StationMetrics, TellOfThePidsThatWereAskedFor) {
    const std::string unlisted = R"(kestor_pid_packets_total{group="239.1.1.1",pid="8191"})";
    const std::string listed = R"(kestor_pid_packets_total{group="239.1.1.1",pid="257"})";
    Station station(records());
    EXPECT_THAT(metricsOf(station), AllOf(Contains(Key(listed)), Not(Contains(Key(unlisted)))));
    station.pids(MetricsPids::kAll);
    EXPECT_THAT(metricsOf(station), AllOf(Contains(Key(listed)), Contains(Key(unlisted))));
    station.pids(MetricsPids::kNone);
    EXPECT_THAT(metricsOf(station), Not(Contains(Key(HasSubstr("pid=")))));
}

TEST(StationMetrics, KeepAPidsCheckOnceItFailed) {
    const std::string check =
        R"(kestor_pid_tr101290_errors_total{group="239.1.1.1",pid="257",check="PTS_error",priority="2"})";
    const auto withErrors = [](const char* errors, std::size_t pids) {
        std::string text = line(Kind::kStream, "-1", {});
        for (std::size_t pid = 257; pid < 257 + pids; ++pid) {
            text += line(Kind::kKnownPid, std::to_string(pid), {{"PTS_error", pid == 257 ? errors : "0"}});
        }
        return text;
    };
    // The value that is told, or nothing.
    const auto told = [&check](MetricsWriter& writer, const Station& station) {
        const std::string text = writer.text(station.state, {});
        const std::size_t at = text.find(check + " ");
        const std::size_t value = at + check.size() + 1;
        return at == std::string::npos ? std::string() : text.substr(value, text.find('\n', value) - value);
    };
    MetricsWriter first;
    Station station(withErrors("0", 1));
    EXPECT_EQ(told(first, station), "0");

    const std::size_t many = kMetricsPidChecks / 8 + 1;  // eight checks of each
    MetricsWriter writer;
    for (const auto& [errors, value] : {std::pair("0", ""), std::pair("3", "3"), std::pair("0", "0")}) {
        station.show(withErrors(errors, many));
        EXPECT_EQ(told(writer, station), value);
    }
    station.show(line(Kind::kStream, "-1", {}));
    EXPECT_EQ(told(writer, station), "");
    station.show(withErrors("0", many));
    EXPECT_EQ(told(writer, station), "") << "a PID that was gone is forgotten";
}

TEST(StationMetrics, LeaveOutWhatIsNotKnown) {
    const auto key = [](const char* name) { return Key(HasSubstr(std::string("kestor_") + name + "{")); };
    Station station(line(Kind::kStream, "-1",
                         {{"packetsReceived", "0"},
                          {"mdiDelayFactor", "0.000000"},
                          {"jitterMeanInterArrival", "0"},
                          {"jitterVarianceMaximum", "0.000000"},
                          {"igmpLatency", "18446742308848512000"}}));
    for (const char* const unknown : {"stream_delay_factor_seconds", "stream_interarrival_seconds",
                                      "stream_ttl", "stream_join_latency_seconds"}) {
        EXPECT_THAT(metricsOf(station), Not(Contains(key(unknown))));
    }
    EXPECT_THAT(metricsOf(station), Contains(key("stream_packets_total")));

    station.channel->measured[Source::kProbe].shown = false;
    EXPECT_THAT(metricsOf(station), Not(Contains(key("stream_packets_total"))));
    station.state.probe.connected = false;
    station.state.probe.lastSnapshot = kTime - seconds(10);
    EXPECT_THAT(metricsOf(station),
                AllOf(Contains(Pair("kestor_up", "0")), Contains(key("stream_packets_total"))));
    for (const milliseconds age : {milliseconds(10'001), milliseconds(-1)}) {
        station.state.probe.lastSnapshot = kTime - age;
        EXPECT_THAT(metricsOf(station), AllOf(Not(Contains(Key(HasSubstr("kestor_stream")))),
                                              Not(Contains(Key(HasSubstr("tr101290")))),
                                              Contains(key("alarm_active")), Contains(key("channel_info"))));
    }
    station.state.channels.clear();
    EXPECT_THAT(metricsOf(station), Not(Contains(Key(HasSubstr("239.1.1.1")))));
}

TEST(StationMetrics, TellNothingOfAMachineThatCannotBeLookedAt) {
    Station station(records());
    station.state.machine.rejoinedGroups = 3;
    const auto ofMachine = testing::AnyOf(HasSubstr("kestor_interface"), HasSubstr("kestor_machine"),
                                          HasSubstr("kestor_groups_"));
    EXPECT_THAT(metricsOf(station),
                AllOf(Not(Contains(Key(ofMachine))), Contains(Pair("kestor_group_rejoins_total", "3"))));
    station.state.machine.known = true;
    station.state.machine.drops = 5;
    EXPECT_THAT(metricsOf(station), AllOf(Contains(Pair("kestor_machine_dropped_packets_total", "5")),
                                          Not(Contains(Key(HasSubstr("kestor_groups_"))))))
        << "memberships are not judged";
    station.state.machine.notJoined = 0;
    station.state.machine.joinedElsewhere = 7;
    EXPECT_THAT(metricsOf(station), AllOf(Contains(Pair("kestor_groups_not_joined", "0")),
                                          Contains(Pair("kestor_groups_joined_elsewhere", "7"))));
}

// An alarm is 0 before it is raised and when it is over, and has the same labels all the time.
TEST(StationMetrics, TellOfConfiguredAlarmsBeforeTheyAreRaised) {
    const auto alarm = [](const char* rest) { return std::string("kestor_alarm_active{") + rest + "}"; };
    const std::string continuity = R"(group="239.1.1.1",alarm="continuity",severity="warning")";
    Station station(records());
    station.state.alarms[1].acknowledged = Acknowledgement{};
    auto found = metricsOf(station);
    EXPECT_THAT(
        found, AllOf(Contains(Pair(alarm(continuity.c_str()), "1")),
                     Contains(Pair(alarm(R"(group="239.1.1.1",alarm="no_signal",severity="critical")"), "0")),
                     Contains(Pair(alarm(R"(alarm="delivery_failing",severity="major")"), "0")),
                     Contains(Pair("kestor_alarm_acknowledged{" + continuity + "}", "1"))));
    EXPECT_THAT(found, Not(Contains(Key(HasSubstr("alarm=\"bitrate_low\"")))));  // not enabled
    EXPECT_THAT(found, Not(Contains(Key(HasSubstr("alarm=\"ttl_changed\"")))));  // never active

    station.state.alarms.clear();
    found = metricsOf(station);
    EXPECT_THAT(found, Contains(Pair(alarm(continuity.c_str()), "0")));
    EXPECT_THAT(found, Not(Contains(Key(HasSubstr("acknowledged")))));

    // Beyond the bound those of channels are told once they are raised, and only then.
    station.state.channels.resize(kMetricsAlarms / 17 + 1, station.channel);
    EXPECT_EQ(MetricsWriter().text(station.state, {}).find("kestor_alarm_active{group="), std::string::npos);
}

TEST(StationMetrics, TellOfMaintenance) {
    const auto end = [](WallTime time) {
        return std::to_string(std::chrono::duration_cast<seconds>(time.time_since_epoch()).count());
    };
    const std::string ofAll = "kestor_maintenance_end_timestamp_seconds";
    const std::string ofChannel = R"(kestor_channel_maintenance{group="239.1.1.1"})";
    Station station(records());
    EXPECT_THAT(metricsOf(station), AllOf(Contains(Pair(ofAll, "0")), Contains(Pair(ofChannel, "0"))));
    Maintenance window{.id = 1,
                       .from = kTime - seconds(9),
                       .until = kTime + seconds(9),
                       .group = station.channel->channel.group,
                       .remark = {},
                       .by = {}};
    station.state.maintenance = {window};
    station.channel->maintenance = true;
    EXPECT_THAT(metricsOf(station), AllOf(Contains(Pair(ofAll, "0")), Contains(Pair(ofChannel, "1"))));
    window.group.reset();
    station.state.maintenance.push_back(window);
    window.from = kTime + seconds(5);
    window.until = kTime + seconds(99);
    station.state.maintenance.push_back(window);  // not yet
    EXPECT_THAT(metricsOf(station), Contains(Pair(ofAll, end(kTime + seconds(9)))));
}

TEST(StationMetrics, TellOfTheProcessAndOfWebhooksByName) {
    Station station(records());
    station.state.started = kTime - seconds(60);
    MetricsExtras extras;
    extras.delivery.resize(2);
    extras.delivery[0].name = "pager";
    extras.delivery[1].name = "2";
    extras.delivery[1].failed = 3;
    const Series found = seriesOf(MetricsWriter().text(station.state, extras));
    EXPECT_THAT(found, Contains(Pair(R"(kestor_station_delivery_failures_total{webhook="pager"})", "0")));
    EXPECT_THAT(found, Contains(Pair(R"(kestor_station_delivery_failures_total{webhook="2"})", "3")));
    for (const char* const name :
         {"process_cpu_seconds_total", "process_open_fds", "process_max_fds", "process_virtual_memory_bytes",
          "process_resident_memory_bytes", "process_start_time_seconds"}) {
        ASSERT_THAT(found, Contains(Key(name)));
        EXPECT_GT(std::stod(found.at(name)), 0) << name;
    }
    EXPECT_LT(std::stod(found.at("process_open_fds")), std::stod(found.at("process_max_fds")));
    EXPECT_LT(std::stod(found.at("process_resident_memory_bytes")),
              std::stod(found.at("process_virtual_memory_bytes")));
}

TEST(StationMetrics, WithstandAnyName) {
    Station station(records());
    Channel& channel = station.channel->channel;
    channel.name = "a\"b\\c\nd\xE9";
    channel.labels = {{"a-b", "1"}, {"a.b", "2"}, {"a_b_2", "3"}, {"7\"}\n", "4"}, {"é", "5"}};
    EXPECT_THAT(
        metricsOf(station),
        Contains(
            Key("kestor_channel_info{group=\"239.1.1.1\",name=\"a\\\"b\\\\c\\nd\xC3\xA9\","
                "origin=\"config\",profile=\"default\",source=\"10.0.0.2\",port=\"1007\","
                "label_7___=\"4\",label_a_b=\"1\",label_a_b_2=\"2\",label_a_b_2_2=\"3\",label___=\"5\"}")));
}

}  // namespace
}  // namespace station
