// What Prometheus is told of the meter's figures: each under its name while it is known and of now, bounded
// whatever a stream says of itself.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "influx/influx.h"
#include "measures/meterSample.h"
#include "meter/meterSession.h"
#include "support/exposition.h"
#include "support/fakeStation.h"
#include "support/fullReport.h"
#include "web/apiJson.h"
#include "web/metrics.h"

namespace station {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::Key;
using testing::Not;
using testing::Pair;
using testing::StartsWith;

// A state with one channel, 239.1.0.1, and a meter that reports it.
struct StationMeterMetrics : testing::Test {
    StationMeterMetrics() {
        state = std::make_shared<StationState>(*FakeStation(1).state());
        state->now = systemNow();
        state->meter.configured = state->meter.connected = true;
        state->meter.version = "1.2.3";
        state->meter.interface = "eth0";
        state->meter.kernelDrops = 17;
    }
    static meter::Report full() {
        return test::fullReport(fakeGroup(0).hostOrder());
    }
    void report(const meter::Report& report) {
        const metering::GroupReport message = test::reportMessage(report);
        metering::GroupReport levels = message;
        levels.clear_description();
        MeterReport made;
        made.time = state->now;
        made.levels = std::make_shared<const std::string>(levels.SerializeAsString());
        made.description = std::make_shared<const std::string>(message.description().SerializeAsString());
        made.tallies = {.cues = 3,
                        .changes = 4,
                        .mediaLost = 5,
                        .loss = {.best = 101,
                                 .disturbed = 102,
                                 .byCounter = 103,
                                 .byClock = 104,
                                 .byRtp = 105,
                                 .events = 106,
                                 .rtpLost = 107,
                                 .rtpEvents = 108}};
        reports = {{fakeGroup(0).hostOrder(), made}};
    }
    // Of the meter alone.
    Series series() {
        MetricsExtras extras;
        extras.meterReports = [this] { return reports; };
        Series found = seriesOf(writer.text(*state, extras));
        std::erase_if(found, [](const auto& one) {
            for (const char* const family :
                 {"kestor_ts_", "kestor_net_", "kestor_rtp_", "kestor_transport_", "kestor_service_",
                  "kestor_video_", "kestor_audio_", "kestor_gop_", "kestor_cue", "kestor_meter_"}) {
                if (one.first.starts_with(family)) {
                    return false;
                }
            }
            return true;
        });
        return found;
    }

    // The channel, to be changed.
    std::shared_ptr<ChannelState> channel() {
        auto changed = std::make_shared<ChannelState>(*state->channels[0]);
        state->channels = {changed};
        return changed;
    }

    std::shared_ptr<StationState> state;
    MeterReports reports;
    MetricsWriter writer;
};

TEST_F(StationMeterMetrics, TellEachFigureUnderItsName) {
    report(full());
    const Series expected = {
        {R"(ts_measured_seconds{})", "12.5"},
        {R"(ts_tr101290_errors_total{check="TS_sync_loss",priority="1"})", "1000"},
        {R"(ts_tr101290_error_seconds_total{check="TS_sync_loss",priority="1"})", "2000"},
        {R"(ts_tr101290_active{check="TS_sync_loss",priority="1"})", "1"},
        {R"(ts_tr101290_active{check="PMT_error_2",priority="1"})", "0"},
        {R"(ts_tr101290_errors_total{check="Sync_byte_error",priority="1"})", "0"},
        {R"(ts_packets_total{})", "21"},
        {R"(ts_null_packets_total{})", "22"},
        {R"(ts_scrambled_packets_total{})", "23"},
        {R"(ts_repeated_packets_total{})", "24"},
        {R"(ts_lost_packets_total{basis="best"})", "101"},
        {R"(ts_lost_packets_total{basis="clock"})", "104"},
        {R"(ts_disturbed_lost_packets_total{})", "102"},
        {R"(ts_lost_packets_total{basis="counter"})", "103"},
        {R"(ts_lost_packets_total{basis="rtp"})", "105"},
        {R"(ts_loss_basis{basis="clock"})", "1"},
        {R"(ts_loss_events_total{})", "106"},
        {R"(ts_longest_loss_packets{})", "29"},
        {R"(ts_longest_loss_seconds{})", "0.0305"},
        {R"(ts_bitrate_bps{})", "31"},
        {R"(ts_bitrate_constant{})", "1"},
        {R"(ts_null_ratio{})", "0.35"},
        {R"(ts_utc_offset_seconds{})", "-0.0735"},
        {R"(ts_pcr_interval_seconds{pid="257",stat="highest"})", "0.0415"},
        {R"(ts_pcr_accuracy_seconds{pid="257"})", "4.45e-08"},
        {R"(ts_pcr_jitter_seconds{pid="257"})", "4.75e-08"},
        {R"(ts_pcr_offset_ppm{pid="257"})", "-48.5"},
        {R"(ts_pcr_discontinuities_total{pid="257",signalled="false"})", "50"},
        {R"(ts_pid_bitrate_bps{pid="258"})", "82"},
        {R"(ts_pid_lost_packets_total{pid="258"})", "86"},
        {R"(ts_pts_ahead_seconds{pid="258"})", "0.7005"},
        {R"(net_datagrams_total{})", "11"},
        {R"(net_interarrival_seconds{stat="p99"})", "0.0545"},
        {R"(net_delay_factor_seconds{})", "0.0555"},
        {R"(net_media_lost_packets_total{})", "5"},
        {R"(net_ttl{})", "16"},
        {R"(rtp_received_total{})", "61"},
        {R"(rtp_lost_total{})", "107"},
        {R"(rtp_loss_events_total{})", "108"},
        {R"(rtp_repeated_total{})", "65"},
        {R"(rtp_reordered_total{})", "66"},
        {R"(rtp_jitter_seconds{})", "0.0675"},
        {R"(service_info{program="1",name="one",provider="provider",type="25",pmt_pid="256",pmt_version="17",pcr_pid="258"})",
         "1"},
        {R"(transport_info{transport_stream_id="71",original_network_id="72",network="network"})", "1"},
        {R"(service_scrambled{program="1"})", "1"},
        {R"(video_info{pid="258",program="1",codec="H.264",profile="High",level="40",width="1920",height="1080",scan="interlaced",chroma="4:2:0",bit_depth="8",transfer="HLG"})",
         "1"},
        {R"(video_frame_rate_hz{pid="258"})", "25"},
        {R"(gop_pictures{pid="258",stat="last"})", "12"},
        {R"(gop_pictures{pid="258",stat="highest"})", "500.5"},
        {R"(audio_info{pid="259",program="1",codec="",language="",profile="LC",channels="2",sample_rate="48000"})",
         "1"},
        {R"(audio_bitrate_bps{pid="259"})", "192000"},
        {R"(cues_total{})", "3"},
        {R"(cue_errors_total{reason="encrypted"})", "91"},
        {R"(ts_changes_total{})", "4"},
    };
    Series found = series();
    for (const auto& [name, value] : expected) {
        std::string whole = "kestor_" + name;
        whole.insert(whole.find('{') + 1,
                     R"(group="239.1.0.1")" + std::string(name.ends_with("{}") ? "" : ","));
        EXPECT_THAT(found, Contains(Pair(whole, value)));
    }
    EXPECT_THAT(found, IsSupersetOf(std::initializer_list<std::pair<const std::string, std::string>>{
                           {"kestor_meter_up", "1"},
                           {R"(kestor_meter_info{version="1.2.3",interface="eth0"})", "1"},
                           {"kestor_meter_kernel_dropped_frames_total", "17"},
                           {"kestor_meter_series_left_out", "0"}}));
    const auto count = [&](const std::string& family) {
        return std::ranges::count_if(found, [&](const auto& one) { return one.first.starts_with(family); });
    };
    // 24 checks, of which six cannot be judged.
    EXPECT_EQ(count("kestor_ts_tr101290_errors_total"), 18);
    EXPECT_THAT(found, Not(Contains(Key(HasSubstr("nan")))));

    auto configuration = std::make_shared<Configuration>();
    configuration->metricsPids = MetricsPids::kNone;
    state->configuration = configuration;
    found = series();
    EXPECT_EQ(count("kestor_ts_pid_"), 0);
    EXPECT_GT(count("kestor_ts_pcr_"), 0) << "clocks are no PIDs' packets";
}

TEST_F(StationMeterMetrics, TellNothingThatIsNotKnownOrNotOfNow) {
    const auto figures = [this] {
        Series found = series();
        std::erase_if(found, [](const auto& one) { return one.first.starts_with("kestor_meter_"); });
        return found;
    };
    meter::Report nothing;  // a channel without a packet yet
    nothing.group = fakeGroup(0).hostOrder();
    nothing.checks = meter::allChecks();
    report(nothing);
    for (const auto& [name, value] : figures()) {
        EXPECT_TRUE(name.find("_total") != std::string::npos || name.find("_active") != std::string::npos ||
                    name.find("measured") != std::string::npos || name.find("longest") != std::string::npos)
            << name << " " << value << ": nobody knows that";
    }

    report(full());
    ASSERT_FALSE(figures().empty());
    state->now.steady += kMeterReportHolds + 1s;
    EXPECT_TRUE(figures().empty()) << "of long ago";
    state->now.steady -= kMeterReportHolds + 1s;
    reports[0].second.capturing = false;
    EXPECT_TRUE(figures().empty()) << "what was captured before";
    reports[0].second.capturing = true;
    state->meter.silent = true;
    EXPECT_TRUE(figures().empty());
    EXPECT_EQ(series().at("kestor_meter_up"), "0");
    state->meter.connected = false;
    EXPECT_EQ(series(), (Series{{"kestor_meter_up", "0"}}));
    state->meter.configured = false;
    EXPECT_EQ(series(), Series());
}

TEST_F(StationMeterMetrics, WithstandWhatAStreamSaysOfItself) {
    meter::Report hostile = full();
    hostile.services[0].name = "a\"b\\\n\xC2\x85" + std::string(400, 'x');
    hostile.services[0].streams.assign(3, hostile.services[0].streams[0]);  // one PID thrice
    for (uint16_t program = 3; program < 300; ++program) {
        meter::ServiceReport& service = hostile.services.emplace_back();
        service.program = program;
        meter::StreamReport& stream = service.streams.emplace_back();
        stream.pid = static_cast<uint16_t>(program + 1000);
        stream.kind = meter::StreamKind::kVideo;
    }
    const meter::ClockReport clock = hostile.clocks[0];
    hostile.clocks.clear();
    for (uint16_t pid = 0; pid < 2000; ++pid) {
        hostile.pids.emplace_back(hostile.pids[0]).pid = pid;
        hostile.clocks.emplace_back(clock).pid = pid;
    }
    report(hostile);
    const Series found = series();
    const auto count = [&](const std::string& family) {
        return static_cast<std::size_t>(std::ranges::count_if(
            found, [&](const auto& one) { return one.first.starts_with(family + "{"); }));
    };
    EXPECT_EQ(count("kestor_service_info"), kMetricsServices);
    EXPECT_LE(count("kestor_video_info"), kMetricsStreams);
    EXPECT_EQ(count("kestor_ts_pcr_offset_ppm"), kMetricsClocks);
    EXPECT_EQ(count("kestor_ts_pid_packets_total"), kMetricsMeterPids);
    EXPECT_GT(std::stoi(found.at("kestor_meter_series_left_out")), 3000);
    EXPECT_THAT(found, Contains(Key(HasSubstr(R"(name="a\"b\\xxx)"))));
    for (const auto& [name, value] : found) {
        EXPECT_LT(name.size(), 700U) << name;
    }
}

// On the wall, in lists and descriptions: one figure, the judge's.
TEST_F(StationMeterMetrics, ShowFiguresOfTheOneThatJudgesTheChannel) {
    const auto channel = this->channel();
    Measured& probe = channel->measured[Source::kProbe];
    Measured& metered = channel->measured[Source::kMeter];
    probe.shown = metered.shown = true;
    probe.sample.level(measureOf("bitRate")) = 11;
    probe.sample.count(measureOf("packetsLost")).total = 12;
    probe.lastMinute[measureOf("packetsLost").place] = 13;
    probe.lastMinute[measureOf("Continuity_count_error").place] = 14;
    metered.sample = readTotals(test::reportMessage(full()));
    metered.sample.level(measureOf("meter.bitrate")) = 21;
    metered.sample.count(measureOf("meter.packetsLost")).total = 22;
    metered.lastMinute[measureOf("meter.packetsLost").place] = 23;
    metered.lastMinute[measureOf("meter.Continuity_count_error").place] = 24;
    using Json = nlohmann::json;
    const auto row = [this] {
        const Json snapshot = Json::parse(streamSnapshotJson(*state));
        Json named;
        for (std::size_t i = 0; i < snapshot["fields"].size(); ++i) {
            named[snapshot["fields"][i].get<std::string>()] = snapshot["channels"][0][i];
        }
        return Json{named["bitRate"], named["packetsLost"], named["lostLastMinute"],
                    named["continuityLastMinute"]};
    };
    const auto told = [&] {
        const Json one = Json::parse(channelJson(*state, *channel));
        return Json{one["judgedBy"], one["bitRate"], one["packetsLost"]};
    };
    // What rules and dashboards choose by: the value of the probe, and the meter's.
    const auto judges = [this] {
        const Series found = seriesOf(writer.text(*state, {}));
        const std::string name = R"(kestor_channel_judged_by{group="239.1.0.1",source=)";
        return found.at(name + R"("probe"})") + found.at(name + R"("meter"})");
    };
    EXPECT_EQ(row(), (Json{11, 12, 13, 14}));
    EXPECT_EQ(told(), (Json{"probe", 11, 12}));
    EXPECT_EQ(judges(), "10");
    channel->judgedBy = Source::kMeter;
    EXPECT_EQ(row(), (Json{21, 22, 23, 24}));
    EXPECT_EQ(told(), (Json{"meter", 21, 22}));
    EXPECT_EQ(judges(), "01");
    metered.sample.noCount.set(measureOf("meter.packetsLost").place);
    EXPECT_EQ(told(), (Json{"meter", 21, nullptr})) << "not known yet";
    metered.shown = false;
    EXPECT_EQ(row(), (Json{11, 12, 13, 14})) << "it tells nothing any more";
}

// Lines of the InfluxDB's protocol.
TEST_F(StationMeterMetrics, WriteEachReportOfTheMeterForTheInfluxDbOnceAndWhatItKnowsAlone) {
    const auto channel = this->channel();
    Measured& measured = channel->measured[Source::kMeter];
    const auto come = [&](const meter::Report& report, WallTime when) {
        measured.sample = readTotals(test::reportMessage(report));
        measured.sample.came = when;
    };
    meter::Report told = full();
    told.network->rtp->jitterMs.reset();
    come(told, WallTime(1234567ms));
    channel->measured[Source::kProbe].shown = false;
    state->meter.lastSecond = WallTime(9s);
    InfluxWritten written;
    std::size_t points = 0;
    EXPECT_EQ(influxLines(*state, "probe1", points, written), "") << "nobody delivers it";
    measured.shown = true;
    std::string lines = influxLines(*state, "probe1", points, written);
    EXPECT_EQ(points, 1U);
    EXPECT_THAT(lines, StartsWith("kestor_meter,probe=probe1,group=239.1.0.1,channel="));
    EXPECT_THAT(lines, testing::EndsWith(" 1234567000000\n"));
    const auto fields = [&lines] { return "," + lines.substr(lines.find("bitrate=")); };
    for (const char* const field : {",bitrate=31,", ",packets=21i,", ",TS_sync_loss=1000i,",
                                    ",pcrOffset=-48.5,", ",lossBasis=2i", ",rtpRepeated=65i"}) {
        EXPECT_THAT(fields(), HasSubstr(field));
    }
    EXPECT_THAT(lines, Not(HasSubstr("rtpJitter")));
    EXPECT_THAT(lines, Not(HasSubstr("=-1i"))) << "a state that is not known";
    EXPECT_THAT(lines, Not(HasSubstr("CRC_error"))) << "cannot be judged here";

    // The meter tells of its second before the owner has its reports.
    ++state->meter.seconds;
    state->meter.lastSecond = WallTime(10s);
    EXPECT_EQ(influxLines(*state, "probe1", points, written), "") << "written before";
    told.network->rtp.reset();
    told.packets.lost = {};
    come(told, WallTime(1235567ms));
    lines = influxLines(*state, "probe1", points, written);
    EXPECT_THAT(lines, testing::EndsWith(" 1235567000000\n"));
    for (const char* const field : {",rtp", ",packetsLost=", ",lossEvents=", ",lossBasis="}) {
        EXPECT_THAT(fields(), Not(HasSubstr(field))) << "a plain flow without its first packet";
    }
    measured.shown = false;
    EXPECT_EQ(influxLines(*state, "probe1", points, written), "");
    measured.shown = true;
    EXPECT_EQ(influxLines(*state, "probe1", points, written), "") << "it was away and told nothing new";
}

}  // namespace
}  // namespace station
