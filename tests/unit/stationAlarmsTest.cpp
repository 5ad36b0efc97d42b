// When alarms are raised and cleared, and what is kept of the past.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <fstream>

#include <cmath>
#include <map>

#include "alarms/alarmGuide.h"
#include "measures/history.h"
#include "measures/probeSample.h"
#include "support/alarmWorld.h"
#include "support/recordLine.h"

using namespace std::chrono_literals;
using namespace station;
using records::Kind;

namespace {

// A record as the probe would print it; columns that are not set are 0.
struct FakeRecord {
    std::map<std::string, double, std::less<>> values;

    std::string line(records::Kind kind, std::string_view tags = "") const {
        const auto text = [this](const records::Column& column) {
            const auto value = values.find(column.name);
            return columnText(column, value == values.end() ? 0 : value->second);
        };
        return recordLine(kind, {}, text) + std::string(tags) + '\n';
    }
};

// One channel of a probe, watched once a second.
struct World : AlarmWorld {
    FakeRecord stream{{{"ttl", 8}, {"transportQualityIndex", 4.5}}};
    FakeRecord video{{{"pid", 256}, {"streamType", 27}}};
    FakeRecord nit{{{"pid", 16}}};
    FakeRecord subtitles{{{"pid", 512}, {"streamType", 6}, {"descriptorCount", 1}}};
    double packets = 1000;  // a second
    bool shown = true;
    bool silent = false;
    std::optional<bool> notAsking = false;
    std::optional<bool> secondAsker = false;
    std::optional<ChannelSample> last;
    SteadyTime lastTime;

    void restartProbe() {
        stream.values = {{"transportQualityIndex", 1.0}};
        std::vector<AlarmChange> changes;
        engine.probeRestarted(now, changes);
        tell(changes);
    }
    ChannelSample sample() {
        stream.values["packetsReceived"] += packets;
        stream.values["bitRate"] = packets * 1504;
        const auto snapshot =
            records::parseSnapshot(stream.line(Kind::kStream) + nit.line(Kind::kPmt) +
                                       video.line(Kind::kKnownPid) + subtitles.line(Kind::kKnownPid, ";89"),
                                   [](std::size_t, const std::string& problem) { ADD_FAILURE() << problem; });
        last = makeSample(snapshot[0], std::span(&snapshot[1], 3), last ? &*last : nullptr,
                          now.steady - lastTime);
        lastTime = now.steady;
        return *last;
    }
    void look() override {
        std::vector<AlarmChange> changes;
        engine.tick({.silent = silent, .notAsking = notAsking, .secondAsker = secondAsker}, now, changes);
        if (!silent && shown) {
            engine.observe(kGroup, sample(), now, changes);
        } else if (!silent) {
            engine.observeMissing(kGroup, now, changes);
        }
        tell(changes);
    }
};

using Deed = AlarmDeed<World>;

Deed at(int second, std::function<void(World&)> what) {
    return {second, std::move(what)};
}
Deed add(int second, const char* column, double count) {
    return {second, [=](World& w) { w.stream.values[column] += count; }};
}
Deed set(int second, const char* column, double value) {
    return {second, [=](World& w) { w.stream.values[column] = value; }};
}
Deed packets(int second, double aSecond) {
    return {second, [=](World& w) { w.packets = aSecond; }};
}

// What a channel without faults does all the time.
void countApart(World& w) {
    for (FakeRecord* record : {&w.stream, &w.nit}) {
        record->values["PMT_error"] += 20;
    }
    for (FakeRecord* record : {&w.stream, &w.subtitles}) {
        record->values["PTS_error"] += 3;
    }
}

// Levels and statistics are looked at after 140000 packets.
constexpr double kFast = 200'000;

const std::vector<AlarmScript<World>> kScripts = {
    {"a cut cable holds back what follows from it",
     {add(3, "packetsLost", 0), packets(5, 0), set(5, "transportQualityIndex", 1.0), packets(40, 1000),
      add(40, "PAT_error", 3), add(40, "CRC_error", 1), add(40, "PTS_error", 2),
      add(40, "PCR_discontinuity_indicator_error", 1), add(40, "Continuity_count_error", 2),
      set(41, "transportQualityIndex", 4.5), set(41, "jitterVariance", 90'000)},
     "5:raised no_signal, 40:raised continuity, 42:cleared no_signal, 50:cleared continuity, 60:end"},
    {"a channel that never had a packet", {packets(1, 0)}, "7:raised no_signal, 20:end"},
    {"a channel that snapshots do not show",
     {at(1, [](World& w) { w.shown = false; }), at(30, [](World& w) { w.shown = true; })},
     "17:raised no_signal, 33:cleared no_signal, 40:end"},
    {"one error, and another before the first is forgotten",
     {add(5, "Continuity_count_error", 1), add(25, "Continuity_count_error", 1),
      add(32, "Continuity_count_error", 1)},
     "5:raised continuity, 15:cleared continuity, 25:raised continuity, 42:cleared continuity, 60:end"},
    {"count and error seconds",
     {add(5, "packetsLost", 99), add(20, "packetsLost", 100), add(40, "packetsLost", 1),
      add(42, "packetsLost", 1), add(44, "packetsLost", 1), add(46, "packetsLost", 1),
      add(48, "packetsLost", 1)},
     "20:raised packets_lost, 30:cleared packets_lost, 48:raised packets_lost, 50:cleared packets_lost, "
     "70:end"},
    {"every check that counts",
     {add(5, "TS_sync_loss", 1), add(5, "Sync_byte_error", 3), add(5, "PAT_error", 1), add(6, "PAT_error", 1),
      add(5, "Transport_error", 1), add(5, "CRC_error", 1), add(5, "PCR_discontinuity_indicator_error", 1),
      add(5, "PCR_repetition_error", 5), add(5, "PCR_accuracy_error", 50), add(5, "PTS_error", 1),
      add(6, "PTS_error", 1), add(5, "packetsScrambled", 900), add(5, "PMT_error", 1), add(6, "PMT_error", 1),
      add(7, "PMT_error", 1), add(5, "CAT_error", 1), add(6, "CAT_error", 1), add(7, "CAT_error", 1)},
     "5:raised sync_loss, 5:raised sync_byte, 5:raised transport, 5:raised crc, 5:raised pcr_discontinuity, "
     "6:raised pat, 6:raised pts, 7:raised pmt, 7:raised cat, 10:end"},
    {"a network table every ten seconds, and subtitles",
     {at(5, countApart), at(6, countApart), at(7, countApart)},
     "10:end"},
    {"cleared counters and a restarted probe",
     {at(50,  // so few packets that the counter has passed where it was
         [](World& w) {
             w.engine.countersCleared(w.now);
             w.stream.values["CRC_error"] = 1;
         }),
      add(2, "packetsLost", 500), add(20, "packetsLost", 500),
      at(30,
         [](World& w) {
             w.engine.countersCleared(w.now);
             w.stream.values = {
                 {"ttl", 8}, {"transportQualityIndex", 4.5}, {"packetsLost", 3}, {"CRC_error", 1}};
         }),
      at(40,
         [](World& w) {
             w.packets = 0;
             w.restartProbe();
         }),
      packets(44, 1000), set(44, "ttl", 8), set(44, "transportQualityIndex", 4.5), add(44, "packetsLost", 4)},
     "2:raised packets_lost, 12:cleared packets_lost, 20:raised packets_lost, 31:cleared packets_lost, "
     "39:happened probe_restarted, 60:end"},
    {"a low level has to last, and to be over for a while",
     {packets(1, kFast), set(5, "transportQualityIndex", 2.0), set(7, "transportQualityIndex", 4.0),
      set(10, "transportQualityIndex", 2.0), set(20, "transportQualityIndex", 3.2),
      set(40, "transportQualityIndex", 4.0)},
     "13:raised quality_index, 50:cleared quality_index, 60:end"},
    {"statistics of arrivals, at first and after an interruption",
     {set(1, "jitterVariance", 90'000), packets(1, 70'000), set(2, "jitterVariance", 10), packets(20, 0),
      packets(22, 30'000), set(22, "jitterVariance", 90'000), set(25, "jitterVariance", 5000),
      set(30, "jitterVariance", 10), set(30, "mdiDelayFactor", 3000)},
     "20:raised no_signal, 24:cleared no_signal, 27:raised jitter, 40:cleared jitter, 90:raised "
     "delay_factor, 100:end"},
    {"the lowest score counts",
     {at(5,
         [](World& w) {
             w.video.values["mosScore"] = 2.5;
             w.subtitles.values["mosScore"] = 0;
         }),
      packets(1, kFast)},
     "8:raised mos, 20:end"},
    {"another source, and ways that change",
     {set(5, "ttl", 7), set(7, "ttl", 8), set(80, "ttl", 9), set(81, "dscp", 34), set(85, "wrongSource", 1),
      set(86, "ttl", 3),
      at(90,
         [](World& w) {
             w.engine.countersCleared(w.now);
             w.stream.values = {{"ttl", 9}, {"dscp", 34}, {"transportQualityIndex", 4.5}};
         }),
      set(150, "wrongSource", 1), set(151, "ttl", 3)},
     "5:happened ttl_changed, 65:happened ttl_changed, 81:happened dscp_changed, 85:raised wrong_source, "
     "90:cleared wrong_source, 125:happened ttl_changed, 150:raised wrong_source, 170:end"},
    {"the wall clock set back and forth",
     {at(5, [](World& w) { w.now.wall -= 3h; }), add(5, "PCR_discontinuity_indicator_error", 9),
      add(6, "CRC_error", 1), at(20, [](World& w) { w.now.wall += 5h; }),
      add(20, "Continuity_count_error", 1)},
     "20:raised continuity, 30:cleared continuity, 40:end"},
    {"a probe that does not ask, and one that is not alone; of what is not known nothing is said",
     {at(3, [](World& w) { w.notAsking = true; }), at(10, [](World& w) { w.notAsking.reset(); }),
      at(15, [](World& w) { w.secondAsker = true; }), at(30, [](World& w) { w.notAsking = false; }),
      at(40, [](World& w) { w.secondAsker = false; }), add(50, "Continuity_count_error", 1)},
     "6:raised probe_not_asking, 17:raised second_asker, 30:cleared probe_not_asking, 40:cleared "
     "second_asker, 50:raised continuity, 60:cleared continuity, 60:end"},
    {"a probe that is silent for a while",
     {add(3, "Continuity_count_error", 1), at(5, [](World& w) { w.silent = true; }),
      at(60,
         [](World& w) {
             w.silent = false;
             w.packets = 0;
         }),
      add(60, "CRC_error", 30), packets(61, 1000)},
     "3:raised continuity, 7:raised probe_silent, 60:cleared probe_silent, 60:cleared continuity, 70:end"},
    {"a channel that is missing while the probe is silent is given its time again",
     {at(3, [](World& w) { w.shown = false; }), at(10, [](World& w) { w.silent = true; }),
      at(40, [](World& w) { w.silent = false; })},
     "12:raised probe_silent, 40:cleared probe_silent, 56:raised no_signal, 70:end"},
    {"what is enabled anew has to last its delay again",
     {at(1, [](World& w) { w.enable("bitrate_low", true); }), packets(2, 500),
      at(6, [](World& w) { w.enable("bitrate_low", false); }),
      at(30, [](World& w) { w.enable("bitrate_low", true); }),
      at(40, [](World& w) { w.enable("bitrate_low", false); }),
      at(60, [](World& w) { w.channels.at(kGroup).enabled = false, w.configure(); }),
      at(65, [](World& w) { w.channels.at(kGroup).enabled = true, w.configure(); }), packets(65, 0)},
     "35:raised bitrate_low, 39:cleared bitrate_low, 71:raised no_signal, 80:end"},
};

}  // namespace

TEST(StationAlarms, FollowTheSamples) {
    expectAlarms(kScripts);
}

// A snapshot may come late or early: seconds count, not samples.
TEST(StationAlarms, GoByTimeWhateverThePaceOfSnapshots) {
    for (const auto pace : {250ms, 700ms, 1000ms, 2600ms}) {
        World world;
        world.run(3);
        world.stream.values["Continuity_count_error"] += 1;
        world.look();
        const SteadyTime begin = world.now.steady;
        const auto until = [&](ChannelStatus status) {
            while (world.engine.status(kGroup) != status && world.now.steady < begin + 60s) {
                world.now += pace;
                world.look();
            }
            return world.now.steady - begin;
        };
        const auto cleared = until(ChannelStatus::kOk);
        EXPECT_TRUE(cleared >= 10s && cleared < 10s + pace) << pace.count();
        world.packets = 0;
        const auto cut = until(ChannelStatus::kAlarm) - cleared;
        EXPECT_TRUE(cut >= 1s && cut < 1s + 2 * pace) << pace.count();
    }
}

TEST(StationAlarms, AreWhatTheProfileSays) {
    World world;
    world.rule("bitrate_low").enabled = true;
    world.profiles["loose"] = world.profiles["default"];
    world.profiles["loose"][typeOf("continuity")].enabled = false;
    world.profiles["loose"][typeOf("no_signal")].severity = Severity::kMinor;
    world.packets = 500;  // 752 kbit/s
    world.configure();
    world.run(10);
    world.stream.values["Continuity_count_error"] = 1;
    world.run(1);
    EXPECT_EQ(world.log, "7:raised bitrate_low, 11:raised continuity");
    EXPECT_THAT(world.engine.activeOf(kGroup),
                testing::ElementsAre(testing::Field(&Alarm::type, typeOf("bitrate_low")),
                                     testing::Field(&Alarm::type, typeOf("continuity"))));
    EXPECT_EQ(world.engine.active().front().type, typeOf("continuity"));
    EXPECT_EQ(world.engine.active().back().peak, 752'000);

    world.packets = 0;
    world.run(1);
    world.channels.at(kGroup).profile = "loose";
    world.configure();
    EXPECT_EQ(world.engine.activeOf(kGroup).back().severity, Severity::kMinor);
    world.channels.at(kGroup).enabled = false;
    world.configure();
    EXPECT_EQ(world.log,
              "7:raised bitrate_low, 11:raised continuity, 12:raised no_signal, 12:cleared continuity, "
              "12:cleared no_signal, 12:cleared bitrate_low");
    world.run(5);
    EXPECT_EQ(world.engine.status(kGroup), ChannelStatus::kDisabled);
}

TEST(StationAlarms, AreAcknowledgedAndOutliveTheStation) {
    World before;
    before.run(3);
    before.stream.values["Continuity_count_error"] = 4;
    before.packets = 0;
    before.run(2);
    std::vector<AlarmChange> changes;
    const auto raised = before.engine.active();
    ASSERT_EQ(raised.size(), 2U);
    EXPECT_FALSE(before.engine.acknowledge(99, {before.now.wall, "eve", ""}, changes));
    EXPECT_TRUE(before.engine.acknowledge(raised[0].id, {before.now.wall, "ann", "on it"}, changes));
    ASSERT_EQ(changes.size(), 1U);

    World after;
    after.channels = {{kGroup, Channel{.group = kGroup, .name = "News"}}};
    after.packets = 0;
    after.stream = before.stream;
    auto stored = before.engine.active();
    stored.push_back({.id = 50,
                      .type = typeOf("jitter"),
                      .about = *Group::parse("239.9.9.9"),
                      .raised = {},
                      .acknowledged = {}});
    const auto dropped = after.engine.restore(stored, after.now);
    ASSERT_EQ(dropped.size(), 1U);
    EXPECT_EQ(dropped[0].alarm.id, 50);
    EXPECT_EQ(after.engine.active(), before.engine.active());
    after.run(8);
    EXPECT_EQ(after.log, "");
    after.packets = 1000;
    after.run(8);
    EXPECT_EQ(after.log, "10:cleared continuity, 11:cleared no_signal");
}

TEST(StationAlarms, KeepTheWorstValue) {
    const struct {
        const char* type;
        const char* column;
        std::vector<double> values;  // a second each; the first raises it
        double peak;
    } cases[] = {
        {"quality_index", "transportQualityIndex", {2.5, 1.75, 2.75, 3.25}, 1.75},
        {"jitter", "jitterVariance", {5000, 90'000, 3000, 2100}, 90'000},
        {"crc", "CRC_error", {1, 5, 7, 8}, 8},
    };
    for (const auto& one : cases) {
        World world;
        world.packets = kFast;
        world.rule(one.type).raiseDelay = {};
        world.configure();
        world.run(3);
        for (const double value : one.values) {
            world.stream.values[one.column] = value;
            world.run(1);
        }
        const auto raised = world.engine.activeOf(kGroup);
        ASSERT_EQ(raised.size(), 1U) << one.type;
        EXPECT_EQ(raised[0].type, typeOf(one.type));
        EXPECT_EQ(raised[0].value, one.values.back()) << one.type;
        EXPECT_EQ(raised[0].peak, one.peak) << one.type;
    }
}

TEST(StationAlarms, AreTakenUpForWhatTheyAreAbout) {
    const struct {
        const char* type;
        Subject about;
        bool taken;
    } cases[] = {{"probe_silent", Source::kProbe, true},
                 {"probe_silent", kGroup, false},
                 {"no_signal", Source::kProbe, false},
                 {"no_signal", kGroup, true},
                 {"probe_restarted", Source::kProbe, false},
                 {"ttl_changed", kGroup, false},
                 {"no_signal", *Group::parse("239.9.9.9"), false}};
    for (const auto& one : cases) {
        World world;
        const Alarm alarm{
            .id = 5, .type = typeOf(one.type), .about = one.about, .raised = {}, .acknowledged = {}};
        const auto dropped = world.engine.restore({alarm}, world.now);
        EXPECT_EQ(world.engine.active().size(), one.taken ? 1U : 0U) << one.type;
        ASSERT_EQ(dropped.size(), one.taken ? 0U : 1U) << one.type;
        EXPECT_EQ(one.taken || dropped[0].alarm.id == 5, true);
    }
}

TEST(StationAlarms, AWaitingChannelIsNeverOk) {
    World world;
    EXPECT_EQ(world.engine.status(kGroup), ChannelStatus::kWaiting);
    world.packets = 0;
    world.run(2);
    EXPECT_EQ(world.engine.status(kGroup), ChannelStatus::kWaiting);
    world.packets = 1000;
    world.run(1);
    EXPECT_EQ(world.engine.status(kGroup), ChannelStatus::kOk);
    world.silent = true;
    world.run(1);
    EXPECT_EQ(world.engine.status(kGroup), ChannelStatus::kWaiting);
}

namespace {

struct Past {
    History history;
    Now now{SteadyTime(500s), WallTime(1'700'000'040s + 300ms)};  // 14.3 s into a minute
    ChannelSample sample;

    Past() {
        sample.signal = true;
        sample.seconds = 1;
        sample.level(measureOf("bitRate")) = 4'000'000;
        sample.level(measureOf("mdiDelayFactor")) = 12.34;
        sample.level(measureOf("jitterVariance")) = 0.0567;
        sample.level(measureOf("transportQualityIndex")) = 4.53;
    }
    void add(uint64_t lost = 0, StripCell cell = StripCell::kOk) {
        sample.count(measureOf("packetsLost")).growth = lost;
        history.add(sample, cell, now);
    }
    std::vector<HistoryPoint> points(HistoryMetric metric, int resolution, WallTime since = {}) const {
        return history.points(metric, resolution, since, now);
    }
};

}  // namespace

TEST(StationHistory, KeepsSecondsWithTheirGapsAndPrecision) {
    EXPECT_LE(History::bytes(), 149U * 1024);
    Past past;
    EXPECT_TRUE(past.points(historyMetric("bitRate"), 1).empty());
    past.add(3);
    past.now += 200ms;
    past.sample.level(measureOf("bitRate")) = 2'000'000;
    past.add(4);  // the same second
    past.now += 1900ms;
    past.add();  // the second between is covered by this sample
    past.now += 3s;
    past.sample.seconds = 3;
    past.add(4'000'000'000);
    const auto rate = past.points(historyMetric("bitRate"), 1);
    ASSERT_EQ(rate.size(), 6U);
    EXPECT_EQ(rate[0].time, WallTime(1'700'000'040s));
    EXPECT_EQ(rate[5].time, WallTime(1'700'000'045s));
    EXPECT_EQ(rate[0].mean, 3'000'000);
    EXPECT_EQ(rate[1].mean, 2'000'000);
    EXPECT_TRUE(std::isnan(rate[3].mean) && std::isnan(rate[4].mean));
    EXPECT_NEAR(past.points(historyMetric("mdiDelayFactor"), 1)[0].mean, 12.34, 0.0062);
    EXPECT_NEAR(past.points(historyMetric("jitterVariance"), 1)[0].mean, 0.0567, 0.000029);
    EXPECT_NEAR(past.points(historyMetric("transportQualityIndex"), 1)[0].mean, 4.53, 0.00005);
    EXPECT_EQ(past.points(historyMetric("packetsLost"), 1)[0].mean, 7);
    EXPECT_EQ(past.history.sum(historyMetric("packetsLost"), 60s, past.now), 4'000'000'007U);
    EXPECT_EQ(past.history.sum(historyMetric("packetsLost"), 5s, past.now), 4'000'000'000U);
    EXPECT_EQ(past.points(historyMetric("bitRate"), 1, WallTime(1'700'000'045s)).size(), 1U);
    const auto spark = past.history.spark(historyMetric("bitRate"), 3, 2, past.now);
    EXPECT_EQ(spark[0], 2'500'000);
    EXPECT_EQ(spark[1], 2'000'000);
}

// A packet that was lost is one, whoever measures it.
TEST(StationHistory, KeepsOfWhatBothSourcesMeasureTheFiguresOfTheOneThatJudges) {
    Past past;
    ChannelSample metered;
    metered.source = Source::kMeter;
    metered.seconds = 1;
    metered.level(measureOf("meter.bitrate")) = 5'000'000;
    metered.level(measureOf("meter.delayFactor")) = 23.4;
    metered.level(measureOf("meter.pcrOffset")) = -12.34;
    metered.level(measureOf("meter.pcrAccuracy")) = 87.6;
    metered.level(measureOf("meter.interArrivalHighest")) = 4.56;
    metered.count(measureOf("meter.packetsLost")).growth = 5;
    metered.count(measureOf("meter.Continuity_count_error")).growth = 1;
    const auto second = [&](Source judge) {
        past.sample.count(measureOf("packetsLost")).growth = 70;
        past.history.add(past.sample, StripCell::kOk, past.now, judge == Source::kProbe);
        past.now += 300ms;
        past.history.add(metered, StripCell::kOk, past.now, judge == Source::kMeter);
        past.now += 700ms;
    };
    second(Source::kProbe);
    second(Source::kMeter);
    second(Source::kMeter);
    past.now += -1s;
    const auto means = [&](const char* metric, int resolution) {
        std::vector<double> all;
        for (const HistoryPoint& point : past.points(historyMetric(metric), resolution)) {
            all.push_back(point.mean);
        }
        return all;
    };
    using testing::DoubleNear;
    using testing::ElementsAre;
    using testing::IsNan;
    EXPECT_THAT(means("bitRate", 1), ElementsAre(4e6, 5e6, 5e6));
    EXPECT_THAT(means("meter.bitrate", 1), ElementsAre(IsNan(), 5e6, 5e6));
    EXPECT_THAT(means("packetsLost", 1), ElementsAre(70, 5, 5));
    EXPECT_THAT(means("packetsLost", 60), ElementsAre(80));
    EXPECT_THAT(means("meter.packetsLost", 1), ElementsAre(IsNan(), 5, 5));
    EXPECT_THAT(means("Continuity_count_error", 1), ElementsAre(0, 1, 1));
    EXPECT_THAT(means("mdiDelayFactor", 1),
                ElementsAre(DoubleNear(12.34, 0.01), DoubleNear(23.4, 0.02), DoubleNear(23.4, 0.02)));
    // What one alone measures stands all the time.
    EXPECT_THAT(means("transportQualityIndex", 1), testing::Each(DoubleNear(4.53, 0.0001)));
    EXPECT_THAT(means("meter.pcrOffset", 1), testing::Each(DoubleNear(-12.34, 0.01)));
    EXPECT_THAT(means("meter.pcrOffset", 60), ElementsAre(DoubleNear(-12.34, 0.01)));
    EXPECT_THAT(means("meter.pcrAccuracy", 1), testing::Each(DoubleNear(87.6, 0.05)));
    EXPECT_THAT(means("meter.interArrivalHighest", 1), testing::Each(DoubleNear(4.56, 0.005)));
    EXPECT_EQ(past.history.sum(historyMetric("packetsLost"), 60s, past.now), 80U);
}

TEST(StationHistory, KeepsMinutesForADayAndForgetsTheFirst) {
    Past past;
    constexpr int kSeconds = 25 * 3600;
    for (int i = 0; i < kSeconds; ++i) {
        past.sample.level(measureOf("bitRate")) = 1'000'000 + i % 60;
        past.add(i % 2, i == kSeconds - 400 ? StripCell::kNoSignal : StripCell::kOk);
        past.now += 1s;
    }
    past.now += -1s;
    const auto rate = past.points(historyMetric("bitRate"), 60);
    ASSERT_EQ(rate.size(), kMinutesKept);
    const HistoryPoint& whole = rate[100];
    EXPECT_EQ(whole.time.time_since_epoch() % 60s, 0s);
    EXPECT_EQ(rate.back().time - rate.front().time, (kMinutesKept - 1) * 60s);
    EXPECT_EQ(whole.minimum, 1'000'000);
    EXPECT_EQ(whole.maximum, 1'000'059);
    EXPECT_NEAR(whole.mean, 1'000'029.5, 0.1);
    EXPECT_EQ(past.points(historyMetric("packetsLost"), 60)[100].mean, 30);
    EXPECT_EQ(past.points(historyMetric("packetsLost"), 1).size(), kSecondsKept);
    const auto strip = past.history.strip(past.now);
    EXPECT_EQ(std::ranges::count(strip, StripCell::kNoSignal), 1);
    EXPECT_EQ(std::ranges::count(strip, StripCell::kOk), kStripCells - 1);

    // Nothing comes for two hours, and the clock is set back: what was kept keeps its time.
    past.now.steady += 2h;
    past.now.wall += 1h;
    past.add();
    const auto later = past.points(historyMetric("bitRate"), 60);
    EXPECT_EQ(later.front().time, rate[120].time);
    EXPECT_TRUE(std::isnan(later[later.size() - 2].mean));
    EXPECT_EQ(later.back().time, rate.back().time + 1h);
    EXPECT_EQ(past.history.strip(past.now)[kStripCells - 2], StripCell::kNoData);
    EXPECT_EQ(past.history.sum(historyMetric("packetsLost"), 600s, past.now), 0U);
}

TEST(StationHistory, GetsShorterAsChannelsGrowSoThatAllFitTheirBudget) {
    constexpr std::size_t kMost = 10'000;  // channels
    constexpr std::size_t kTried = 500;
    EXPECT_EQ(station::minutesKept(0), kMinutesKept);
    EXPECT_EQ(station::minutesKept(3'700), kMinutesKept);
    const std::size_t kept = station::minutesKept(kMost);
    EXPECT_GE(kept, 120U);
    EXPECT_LT(kept, 400U);
    const auto resident = [] {
        std::ifstream file("/proc/self/statm");
        std::size_t all = 0;
        std::size_t pages = 0;
        file >> all >> pages;
        return pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    };
    [[maybe_unused]] const std::size_t before = resident();
    std::vector<Past> pasts(kTried);
    for (Past& past : pasts) {
        past.history.keepMinutes(kept);
        for (int minute = 0; minute < 26 * 60; ++minute) {
            past.now += 1min;
            past.add(1);
        }
    }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they take memory of their own
    EXPECT_LT(resident() - before, station::kHistoryBudget / kMost * kTried);
#endif
    Past& past = pasts.front();
    EXPECT_EQ(past.points(historyMetric("packetsLost"), 60).size(), kept);
    EXPECT_EQ(past.points(historyMetric("packetsLost"), 60).front().mean, 1);
    // Fewer channels: what was forgotten stays unknown, what comes is kept longer.
    past.history.keepMinutes(kMinutesKept);
    past.now += 1min;
    past.add(1);
    const auto longer = past.points(historyMetric("packetsLost"), 60);
    EXPECT_GT(longer.size(), kept);
    EXPECT_EQ(longer.back().mean, 1);
    for (const HistoryPoint& point : longer) {
        EXPECT_TRUE(std::isnan(point.mean) || point.mean == 1);
    }
}

TEST(StationAlarms, PeopleAreToldWhatToLookAtForEveryType) {
    for (std::size_t type = 0; type < alarmTypes().size(); ++type) {
        const AlarmGuide& guide = guideOf(type);
        EXPECT_EQ(guide.name, alarmTypes()[type].name);
        EXPECT_FALSE(guide.title.empty() || guide.title.size() > 30) << guide.name;
        for (const std::string_view look : guide.look) {
            EXPECT_TRUE(look.ends_with('.') || look.ends_with('?')) << guide.name << ": " << look;
        }
    }
}
