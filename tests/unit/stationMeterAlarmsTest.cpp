// Alarms by the meter's figures: whose figures judge, what changes of that do, and what reports raise.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "alarms/alarmTracker.h"
#include "measures/meterSample.h"
#include "meter/cueText.h"
#include "meter/meterFigures.h"
#include "meter/meterMail.h"
#include "meter/report.h"
#include "support/alarmWorld.h"

using namespace std::chrono_literals;
using namespace station;

namespace {

const OwnLoss kBlind{OwnLoss::kUnknown, true};

uint32_t checkIndex(std::string_view id) {
    return static_cast<uint32_t>(std::ranges::find(basics::kChecks, id, &basics::CheckName::id) -
                                 basics::kChecks.begin());
}

// One channel, looked at once a second by a probe and by a meter, either of which may be away.
struct World : AlarmWorld {
    bool probeThere = true;
    uint64_t probeReceived = 0;
    double probePackets = 1000;
    std::map<std::string, uint64_t, std::less<>> probeCounts;
    std::optional<ChannelSample> probeLast;

    bool meterThere = true;
    OwnLoss own;
    double meterPackets = 1000;
    double video = 700;
    double audio = 300;
    std::optional<double> audioSilentMs;
    metering::GroupReport report;
    std::map<uint32_t, uint64_t> checks, checkSeconds;  // by index
    ReportReader reader;
    std::optional<ChannelSample> meterLast;
    SteadyTime meterTime;

    World() {
        report.set_group(kGroup.hostOrder());
        report.set_epoch(1);
    }
    // A check fails, so often in that second.
    void fail(std::string_view id, uint64_t count, uint64_t seconds = 1) {
        checks[checkIndex(id)] += count;
        checkSeconds[checkIndex(id)] += seconds;
    }
    ChannelSample probeSample() {
        ChannelSample sample;
        probeReceived += static_cast<uint64_t>(probePackets);
        sample.received = probeReceived;
        sample.first = !probeLast;
        sample.signal = probePackets > 0;
        sample.seconds = 1;
        for (const auto& [name, count] : probeCounts) {
            Count& one = sample.count(measureOf(name));
            one.total = count;
            one.growth = one.faults = probeLast ? count - probeLast->count(measureOf(name)).total : 0;
        }
        probeLast = sample;
        return sample;
    }
    ChannelSample meterSample() {
        report.set_seconds(report.seconds() + 1);
        auto& packets = *report.mutable_packets();
        packets.set_received(packets.received() + static_cast<uint64_t>(meterPackets));
        report.clear_check();
        for (const auto& [index, count] : checks) {
            metering::Check& check = *report.add_check();
            check.set_index(index);
            check.set_count(count);
            check.set_seconds(checkSeconds[index]);
        }
        const std::array<double, 2> growth = {video, audio};
        for (int i = 0; i < 2; ++i) {
            if (report.pid_size() <= i) {
                report.add_pid()->set_pid(256 + static_cast<uint32_t>(i));
                report.mutable_pid(i)->set_kind(i == 0 ? "video" : "audio");
            }
            metering::Pid& pid = *report.mutable_pid(i);
            pid.set_packets(pid.packets() + static_cast<uint64_t>(growth.at(static_cast<std::size_t>(i))));
            if (i == 1 && audioSilentMs) {
                pid.set_silent_ms(*audioSilentMs);
            }
        }
        ChannelSample sample = reader.read(report, own, now).sample;
        takeGrowth(sample, meterLast ? &*meterLast : nullptr, now.steady - meterTime);
        meterTime = now.steady;
        meterLast = sample;
        return sample;
    }
    void look() override {
        std::vector<AlarmChange> changes;
        if (meterThere) {
            engine.observe(kGroup, meterSample(), now, changes);
        }
        engine.tick({.silent = !probeThere, .notAsking = false, .secondAsker = false}, now, changes);
        if (probeThere) {
            engine.observe(kGroup, probeSample(), now, changes);
        }
        tell(changes);
    }
};

using Deed = AlarmDeed<World>;
using Scripts = std::vector<AlarmScript<World>>;

Deed fail(int second, const char* id, uint64_t count, uint64_t seconds = 1) {
    return {second, [=](World& w) { w.fail(id, count, seconds); }};
}
Deed probe(int second, const char* column, uint64_t count) {
    return {second, [=](World& w) { w.probeCounts[column] += count; }};
}
Deed at(int second, std::function<void(World&)> what) {
    return {second, std::move(what)};
}

// Several seconds of the same.
std::vector<Deed> during(int from, int to, const std::function<void(World&)>& what) {
    std::vector<Deed> deeds;
    for (int second = from; second <= to; ++second) {
        deeds.push_back({second, what});
    }
    return deeds;
}
std::vector<Deed> operator+(std::vector<Deed> left, const std::vector<Deed>& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

void lose(World& w, uint64_t packets, uint64_t events = 1) {
    auto& told = *w.report.mutable_packets();
    told.set_basis("counter");
    told.set_lost(told.lost() + static_cast<int64_t>(packets));
    told.set_by_counter(told.by_counter() + packets);
    told.set_events(told.events() + events);
    told.set_longest(std::max<uint64_t>(told.longest(), packets / events));
}
Deed loses(int second, uint64_t packets, uint64_t events = 1) {
    return {second, [=](World& w) { lose(w, packets, events); }};
}
// So many are lost by then, as this counts them.
Deed lost(int second, const char* basis, uint64_t packets) {
    return {second, [=](World& w) {
                auto& told = *w.report.mutable_packets();
                told.set_basis(basis);
                told.set_lost(static_cast<int64_t>(packets));
                told.set_by_counter(basis == std::string_view("counter") ? packets : told.by_counter());
                told.set_by_rtp(basis == std::string_view("rtp") ? packets : told.by_rtp());
            }};
}
// What this machine lost from then on.
Deed own(int second, const OwnLoss& loss) {
    return {second, [=](World& w) { w.own = loss; }};
}
Deed set(int second, double World::*what, double packets) {
    return {second, [=](World& w) { w.*what = packets; }};
}
Deed silent(int second, double audioPackets, double ms) {
    return {second, [=](World& w) { w.audio = audioPackets, w.audioSilentMs = ms; }};
}
void streamEnds(World& w) {
    w.meterPackets = w.video = w.audio = 0;
}
void streamBegins(World& w) {
    w.meterPackets = 1000, w.video = 700, w.audio = 300;
}
void probeAloneJudges(World& w) {
    w.judges.source = AlarmSource::kProbe;
    w.configure();
}
void meterGoes(World& w) {
    w.meterThere = false;
}
void meterComes(World& w) {
    w.meterThere = true;
}
void anotherEpoch(World& w) {
    w.report.set_epoch(w.report.epoch() + 1);
    w.report.set_seconds(0);
    w.report.mutable_packets()->Clear();
    w.checks.clear();
    w.checkSeconds.clear();
}

TEST(StationMeterAlarms, TableOfChecksIsTheMeters) {
    const std::vector<meter::CheckReport> all = meter::allChecks();
    ASSERT_EQ(all.size(), basics::kChecks.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
        EXPECT_EQ(all[i].id, basics::kChecks[i].id);
        EXPECT_EQ(all[i].name, basics::kChecks[i].name);
        EXPECT_EQ(all[i].priority, basics::kChecks[i].priority);
        EXPECT_EQ(measureOf("meter." + std::string(all[i].name)).kind, MeasureKind::kCounter);
    }
}

TEST(StationMeterAlarms, AreJudgedByOneSourceAtATime) {
    expectAlarms(Scripts{
        {"the meter where it delivers the channel",
         {fail(5, "1.4", 1), probe(20, "Continuity_count_error", 1)},
         "5:raised continuity by meter, 15:cleared continuity by meter, 40:end"},
        {"the probe where it does not",
         {at(1, meterGoes), fail(5, "1.4", 1), probe(20, "Continuity_count_error", 1)},
         "20:raised continuity, 30:cleared continuity, 40:end"},
        {"the probe of a channel that the meter never had a packet of",
         {at(1, streamEnds), probe(20, "Continuity_count_error", 1)},
         "20:raised continuity, 30:cleared continuity, 40:end"},
        {"the probe where that is wanted, but what only the meter knows",
         {at(3, probeAloneJudges), fail(5, "1.4", 1), probe(20, "Continuity_count_error", 1),
          fail(22, "1.6", 1)},
         "20:raised continuity, 22:raised pid_missing by meter, 30:cleared continuity, 32:cleared "
         "pid_missing by meter, 40:end"},
        {"another source raises and clears nothing by itself",
         {fail(5, "1.4", 1), at(7, meterGoes)},
         // Without a report since 6 the probe judges from 10 on, and its window has to pass.
         "5:raised continuity by meter, 20:cleared continuity, 40:end"},
        {"nor does the one that comes back",
         {at(1, meterGoes), probe(5, "Continuity_count_error", 1), at(8, meterComes), fail(8, "1.4", 50)},
         "5:raised continuity, 18:cleared continuity by meter, 40:end"},
        {"what both know goes on",
         {fail(5, "1.4", 1), at(7, meterGoes), probe(12, "Continuity_count_error", 1)},
         "5:raised continuity by meter, 22:cleared continuity, 40:end"},
        {"an alarm that is off by records waits for the meter",
         {fail(5, "2.4", 20), at(7, meterGoes), at(30, meterComes)},
         "5:raised pcr_accuracy by meter, 41:cleared pcr_accuracy by meter, 60:end"},
        {"no signal, seen by one and over for the other",
         {at(5, streamEnds), at(9, meterGoes)},
         "5:raised no_signal by meter, 14:cleared no_signal, 40:end"},
        {"a channel without signal has none under the other source either",
         {at(5, streamEnds), set(5, &World::probePackets, 0), at(9, meterGoes),
          set(30, &World::probePackets, 1000)},
         "5:raised no_signal by meter, 32:cleared no_signal, 40:end"},
        {"a probe that is silent holds nothing up",
         {at(3, [](World& w) { w.probeThere = false; }), fail(10, "1.4", 1)},
         "5:raised probe_silent, 10:raised continuity by meter, 20:cleared continuity by meter, 30:end"},
        {"what the meter alone measures is over when it may judge no more",
         {fail(3, "2.4", 1000), at(4, probeAloneJudges)},
         "3:raised pcr_accuracy by meter, 3:cleared pcr_accuracy by meter, 4:end"},
    });
}

TEST(StationMeterAlarms, CountWhatReportsCount) {
    expectAlarms(Scripts{
        {"another epoch counts nothing",
         {fail(5, "1.4", 1), at(20, anotherEpoch), fail(20, "1.4", 500)},
         "5:raised continuity by meter, 15:cleared continuity by meter, 40:end"},
        {"what this machine disturbed counts nothing that loss brings about",
         {own(5, kBlind), loses(5, 5000), fail(5, "1.4", 40), fail(5, "1.3.a", 1, 5), fail(5, "2.1", 1),
          own(6, {})},
         "5:raised transport by meter, 15:cleared transport by meter, 30:end"},
        {"nor do disturbed seconds that were not told",
         {at(5, [](World& w) { w.report.set_disturbed_seconds(1); }), loses(5, 5000)},
         "30:end"},
        {"a machine that captures nothing for a while says nothing of the signal",
         {own(5, kBlind), at(5, streamEnds), at(8, streamBegins), own(10, {})},
         "30:end"},
        {"which the records tell meanwhile",
         {own(5, kBlind), at(5, streamEnds), set(5, &World::probePackets, 0), at(20, streamBegins),
          set(20, &World::probePackets, 1000), own(20, {})},
         "5:raised no_signal, 22:cleared no_signal by meter, 40:end"},
        {"error seconds are the report's, however reports fall into this clock's seconds",
         {fail(5, "1.3.a", 1, 2)},
         "5:raised pat by meter, 15:cleared pat by meter, 30:end"},
        {"an absence goes on though it counts once",
         std::vector<Deed>{fail(5, "1.6", 1)} + during(6, 30, [](World& w) { w.fail("1.6", 0); }),
         "5:raised pid_missing by meter, 40:cleared pid_missing by meter, 60:end"},
        {"a loss that goes by another count now has grown by what that counts",
         {lost(5, "counter", 5000), lost(20, "clock", 40), lost(40, "rtp", 300)},
         "5:raised packets_lost by meter, 15:cleared packets_lost by meter, 40:raised packets_lost by meter, "
         "50:cleared packets_lost by meter, 60:end"},
        {"errors beyond those that this machine may have caused",
         {own(5, {.frames = 3, .much = false}), loses(5, 21), fail(5, "1.4", 3), loses(6, 5000), own(7, {})},
         "6:raised packets_lost by meter, 6:raised loss_bursts by meter, 16:cleared packets_lost by meter, "
         "17:cleared loss_bursts by meter, 30:end"},
        {"a table that stays away while few packets are lost here",
         std::vector<Deed>{own(5, {.frames = 1, .much = false}), fail(5, "1.3.a", 1)} +
             during(6, 12, [](World& w) { w.fail("1.3.a", 0); }),
         "7:raised pat by meter, 12:end"},
        {"what is raised needs a window of which something is known",
         {fail(5, "1.4", 1), own(7, kBlind), own(27, {})},
         "5:raised continuity by meter, 35:cleared continuity by meter, 50:end"},
        {"also where its counters began anew",
         {fail(5, "1.4", 1), at(8, meterGoes), at(10, meterComes), at(10, anotherEpoch)},
         "5:raised continuity by meter, 18:cleared continuity by meter, 50:end"},
        {"tables are not judged without a signal",
         {fail(5, "1.3.a", 1, 2), at(7, streamEnds), at(30, streamBegins)},
         "5:raised pat by meter, 7:raised no_signal by meter, 32:cleared no_signal by meter, 42:cleared pat "
         "by meter, 60:end"},
    });
}

TEST(StationMeterAlarms, RaiseWhatTheMeterAloneMeasures) {
    const auto level = [](auto set) { return [set](World& w) { set(w.report); }; };
    const auto clock = [level](void (metering::Clock::*setter)(double), double value) {
        return level([=](metering::GroupReport& report) {
            ((report.clock_size() == 0 ? report.add_clock() : report.mutable_clock(0))->*setter)(value);
        });
    };
    const auto offset = [clock](double ppm) {
        return clock(&metering::Clock::set_frequency_offset_ppm, ppm);
    };
    const auto jitter = [clock](double ms) {
        return clock(&metering::Clock::set_overall_jitter_ns, ms * 1e6);
    };
    const auto lately = [](int second, uint64_t longest) {
        return at(second, [=](World& w) { w.report.mutable_packets()->set_longest_lately(longest); });
    };
    const auto constant = [level](bool is) {
        return level([is](metering::GroupReport& report) { report.mutable_bitrate()->set_constant(is); });
    };
    expectAlarms(Scripts{
        {"a video stream that falls silent",
         {set(20, &World::video, 0), set(30, &World::video, 700)},
         "21:raised video_missing by meter, 31:cleared video_missing by meter, 50:end"},
        {"an audio stream that falls silent",
         {set(20, &World::audio, 0), set(30, &World::audio, 300)},
         "21:raised audio_missing by meter, 31:cleared audio_missing by meter, 50:end"},
        {"an audio stream whose last packet came early or late in a second",
         {silent(20, 10, 900), silent(21, 0, 1900), silent(22, 300, 10), silent(30, 10, 700),
          silent(31, 0, 1700), silent(32, 0, 2700), set(33, &World::audio, 300),
          // Whatever stream time says, it came in this second.
          silent(40, 300, 9000)},
         "21:raised audio_missing by meter, 23:cleared audio_missing by meter, 32:raised audio_missing by "
         "meter, 34:cleared audio_missing by meter, 50:end"},
        {"the time stamps of a stream that is back, and others",
         {set(20, &World::audio, 0), set(24, &World::audio, 300), fail(24, "2.5", 1, 3),
          fail(40, "2.5", 2, 2)},
         "21:raised audio_missing by meter, 25:cleared audio_missing by meter, 40:raised pts by meter, "
         "50:cleared pts by meter, 60:end"},
        {"packets that are scrambled for a while, without a CAT",
         during(10, 15,
                [](World& w) {
                    w.report.mutable_packets()->set_scrambled(w.report.packets().scrambled() + 50);
                    w.fail("2.6", w.second == 9 ? 1 : 0);
                }) +
             during(16, 40, [](World& w) { w.fail("2.6", 0); }),
         "12:raised cat by meter, 23:cleared cat by meter, 40:end"},
        {"a stream that pauses all the time",
         during(1, 60, [](World& w) { w.video = w.second % 6 == 0 ? 20 : 0; }), "60:end"},
        {"nothing comes, so nothing is missing",
         {at(20, streamEnds), set(20, &World::probePackets, 0), at(30, streamBegins)},
         "20:raised no_signal by meter, 32:cleared no_signal by meter, 50:end"},
        {"RTP datagrams that are lost",
         {at(5, level([](metering::GroupReport& report) {
                 report.mutable_network()->mutable_rtp()->set_lost(3);
             }))},
         "5:raised rtp_loss by meter, 15:cleared rtp_loss by meter, 30:end"},
        {"long runs of loss and short ones",
         {loses(5, 70, 10), loses(20, 70)},
         "20:raised loss_bursts by meter, 31:cleared loss_bursts by meter, 50:end"},
        {"a run that is shorter than one before",
         {loses(5, 500), lately(5, 500), lately(8, 0), loses(30, 70, 2), lately(30, 69)},
         "5:raised packets_lost by meter, 5:raised loss_bursts by meter, 15:cleared packets_lost by meter, "
         "16:cleared loss_bursts by meter, 30:raised loss_bursts by meter, 36:end"},
        {"a clock that runs slow",
         {at(5, offset(-40)), at(80, offset(-10))},
         "65:raised clock_offset by meter, 140:cleared clock_offset by meter, 200:end"},
        {"a clock within its limits", {at(5, offset(29))}, "100:end"},
        {"a clock that comes unevenly",
         {at(5, jitter(150)), at(20, jitter(5))},
         "15:raised clock_jitter by meter, 50:cleared clock_jitter by meter, 80:end"},
        {"a constant bit rate that is lost",
         {at(1, constant(true)), at(90, constant(false)), at(110, constant(true))},
         "100:raised bitrate_constant by meter, 140:cleared bitrate_constant by meter, 200:end"},
        {"a bit rate that varies",
         {at(1, constant(false)), at(30, constant(true)), at(60, constant(false))},
         "200:end"},
        {"a constant bit rate with loss",
         std::vector<Deed>{at(1, constant(true)), at(90, constant(false)), at(130, constant(true))} +
             during(90, 120, [](World& w) { lose(w, 1); }),
         "94:raised packets_lost by meter, 119:end"},
        {"another source address",
         {at(5, level([](metering::GroupReport& report) { report.mutable_flow()->set_other_sources(7); }))},
         "5:raised wrong_source by meter, 16:cleared wrong_source by meter, 30:end"},
        {"other ports of the same source",
         {at(5, level([](metering::GroupReport& report) { report.mutable_flow()->set_other_flows(7); }))},
         "30:end"},
        {"PIDs that nobody names",
         std::vector<Deed>{at(1, [](World& w) { w.enable("unreferenced_pid"); })} +
             during(1, 20, [](World& w) { w.fail("3.4.a", 1); }),
         "2:raised unreferenced_pid by meter, 20:end"},
        {"faults of service information, of BAT and TOT as well, but none that other checks count",
         std::vector<Deed>{at(1, [](World& w) { w.enable("service_information"); }), fail(1, "3.1.a", 500)} +
             during(101, 112, [](World& w) { w.fail("3.2", 1); }) +
             during(201, 212, [](World& w) { w.fail("3.5.a", 1); }),
         "110:raised service_information by meter, 163:cleared service_information by meter, 210:raised "
         "service_information by meter, 212:end"},
        {"cues that do not come while somebody would know of them",
         {at(1,
             [](World& w) {
                 w.rule("cue_missing").window = 60s;
                 w.enable("cue_missing");
             }),
          at(31, [](World& w) { w.reader.cue(); }), at(111, [](World& w) { w.reader.cue(); }),
          at(162, meterGoes), at(192, meterComes)},
         "91:raised cue_missing by meter, 111:cleared cue_missing by meter, 241:end"},
    });
}

Alarm raisedByMeter(int64_t id, std::string_view type) {
    Alarm alarm;
    alarm.id = id;
    alarm.type = typeOf(type);
    alarm.about = alarmTypes()[alarm.type].ofSource ? Subject(Source::kMeter) : Subject(kGroup);
    alarm.source = Source::kMeter;
    return alarm;
}

TEST(StationMeterAlarms, AreTakenUpAfterARestart) {
    const std::vector alarms = {raisedByMeter(7, "pid_missing"), raisedByMeter(8, "pcr_accuracy")};
    World world;
    EXPECT_THAT(world.engine.restore(alarms, world.now), testing::IsEmpty());
    world.run(5);
    EXPECT_EQ(world.log, "");
    world.run(20);
    EXPECT_EQ(world.log, "11:cleared pcr_accuracy by meter, 11:cleared pid_missing by meter");
    World alone;
    alone.judges.meter = false;
    alone.configure();
    EXPECT_EQ(alone.engine.restore(alarms, alone.now).size(), 2U) << "nobody could clear them";
    World silent;
    silent.video = 0;
    EXPECT_THAT(silent.engine.restore({raisedByMeter(9, "video_missing")}, silent.now), testing::IsEmpty());
    silent.run(40);
    EXPECT_EQ(silent.log, "") << "the stream has not come back";
    silent.video = 700;
    silent.run(10);
    EXPECT_THAT(silent.log, testing::HasSubstr("cleared video_missing by meter"));
}

TEST(StationMeterAlarms, AreGivenUpWhenNoMeterComes) {
    World world;
    world.meterThere = false;
    const std::vector alarms = {raisedByMeter(1, "pid_missing"), raisedByMeter(2, "pcr_accuracy"),
                                raisedByMeter(3, "continuity"), raisedByMeter(4, "meter_silent")};
    EXPECT_THAT(world.engine.restore(alarms, world.now), testing::IsEmpty());
    std::vector<AlarmChange> changes;
    world.engine.giveUpMeter(world.now, changes);
    world.tell(changes);
    EXPECT_EQ(world.log, "0:cleared pcr_accuracy by meter, 0:cleared pid_missing by meter");
}

TEST(StationMeterAlarms, GatherWhatChangesInARow) {
    World world;
    std::string told;
    const auto tell = [&](const std::vector<AlarmChange>& changes) {
        for (const AlarmChange& change : changes) {
            told += change.text + " [" + std::to_string(static_cast<int>(change.alarm.value)) + "]\n";
        }
    };
    const auto happen = [&](const char* type, std::string_view text) {
        std::vector<AlarmChange> changes;
        world.engine.happen(typeOf(type), kGroup, 1, text, world.now, changes);
        tell(changes);
    };
    const auto pass = [&](std::chrono::seconds time) {
        std::vector<AlarmChange> changes;
        world.now.steady += time;
        world.engine.tick({}, world.now, changes);
        tell(changes);
    };
    happen("streams_changed", "stream 259 is gone");
    pass(2s);
    happen("streams_changed", "stream 260 was added");
    happen("flow_changed", "The flow is another");
    happen("streams_changed", "stream 261 was added");
    pass(5s);
    EXPECT_EQ(told, "stream 259 is gone [1]\nThe flow is another [1]\n");
    told.clear();
    pass(3s);
    EXPECT_EQ(told, "stream 260 was added; stream 261 was added [2]\n");
    told.clear();
    for (int i = 0; i < 500; ++i) {
        happen("streams_changed", "stream " + std::to_string(1000 + i) + " was added");
    }
    pass(10s);
    EXPECT_THAT(told, testing::EndsWith("; and more (457) [500]\n"));
    EXPECT_LT(told.size(), GatheredEvents::kTextBytes + 50);
    told.clear();
    pass(100s);
    EXPECT_EQ(told, "");
}

TEST(StationMeterFigures, AreNotLostWhenNobodyTakesThem) {
    MeterMail mail;
    int told = 0;
    mail.setReady([&] { ++told; });
    const Measure& run = measureOf("meter.lossRun");
    for (const auto& [group, disturbed, longest, packets] :
         {std::tuple(5U, true, 80.0, 10U), std::tuple(5U, false, 3.0, 30U), std::tuple(6U, false, 1.0, 7U)}) {
        MeterFigures figures{.group = group};
        figures.sample.received = packets;
        figures.sample.disturbed = disturbed;
        figures.sample.ownPackets = packets;
        figures.sample.level(run) = longest;
        mail.put(figures);
    }
    for (std::size_t i = 0; i < MeterMail::kHappened + 3; ++i) {
        mail.put(MeterHappened{5, "codec", std::to_string(i)});
    }
    mail.tell();
    EXPECT_EQ(told, 1);
    const MeterMail::Batch batch = mail.drain();
    ASSERT_EQ(batch.figures.size(), 2U);
    EXPECT_EQ(batch.figures.at(5).sample.received, 30U);
    EXPECT_TRUE(batch.figures.at(5).sample.disturbed);
    EXPECT_EQ(batch.figures.at(5).sample.ownPackets, 40U);
    EXPECT_EQ(batch.figures.at(5).sample.level(run), 80);
    EXPECT_EQ(batch.happened.size(), MeterMail::kHappened);
    EXPECT_EQ(batch.happened.front().text, "3");
    EXPECT_EQ(mail.dropped(), 3U);
    EXPECT_TRUE(mail.drain().figures.empty());
}

TEST(StationMeterFigures, AreBoundedWhateverReportsHold) {
    metering::GroupReport report;
    for (uint32_t i = 0; i < 10'000; ++i) {
        metering::Pid& pid = *report.add_pid();
        pid.set_pid(i);
        pid.set_kind("video");
        metering::Check& check = *report.add_check();
        check.set_index(i * 1000);
        check.set_seconds(~0ULL);
        check.set_count(~0ULL);
        report.add_clock()->set_frequency_offset_ppm(i == 7 ? std::nan("") : -1e300 * i);
    }
    report.mutable_packets()->set_lost(-5);
    ReportReader reader;
    for (int i = 0; i < 3; ++i) {
        const ChannelSample sample = reader.read(report, {}, systemNow()).sample;
        EXPECT_EQ(sample.count(measureOf("meter.packetsLost")).total, 0U);
    }
}

TEST(StationMeterCues, AreSentences) {
    metering::Cue cue;
    cue.set_pid(500);
    cue.set_command("splice_insert");
    cue.set_event_id(4711);
    cue.set_out(true);
    cue.set_at("2026-01-02T03:04:09Z");
    cue.set_ahead_ms(4000);
    cue.set_duration_ms(30'000);
    EXPECT_EQ(cueText(cue),
              "splice_insert 4711 on PID 500: out of the network at 2026-01-02T03:04:09Z, 4.0 s ahead, for "
              "30.0 s");
    cue.set_cancelled(true);
    EXPECT_EQ(cueText(cue), "splice_insert 4711 on PID 500: cancelled");
    metering::Cue signal;
    signal.set_pid(500);
    signal.set_command("time_signal");
    signal.set_immediate(true);
    metering::Segmentation& part = *signal.add_segmentation();
    part.set_type("Provider Advertisement Start");
    part.set_upid("AB12");
    EXPECT_EQ(cueText(signal), "time_signal on PID 500: Provider Advertisement Start (AB12), at once");
}

}  // namespace
