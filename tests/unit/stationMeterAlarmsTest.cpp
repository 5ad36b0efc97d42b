// Alarms by the meter's figures: whose figures judge, what changes of that do, and what reports raise.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>

#include "alarms/alarmEngine.h"
#include "alarms/alarmTracker.h"
#include "measures/meterSample.h"
#include "meter/cueText.h"
#include "meter/meterFigures.h"
#include "meter/meterMail.h"
#include "meter/report.h"

using namespace std::chrono_literals;
using namespace station;

namespace {

const Group kGroup = *Group::parse("239.1.1.1");
const OwnLoss kBlind{OwnLoss::kUnknown, true};

uint32_t checkIndex(std::string_view id) {
    return static_cast<uint32_t>(std::ranges::find(basics::kChecks, id, &basics::CheckName::id) -
                                 basics::kChecks.begin());
}

// One channel, looked at once a second by a probe and by a meter, either of which may be away.
struct World {
    AlarmEngine engine;
    Profiles profiles{{"default", defaultRules()}};
    Judges judges;
    ChannelMap channels{{kGroup, Channel{.group = kGroup, .name = "News"}}};
    Now now{SteadyTime(1000s), WallTime(1'700'000'000s)};
    int second = 0;
    std::string log;  // "5:raised continuity by meter" and so on

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
        configure();
    }
    AlarmRules& rule(std::string_view type) {
        return profiles["default"][*findAlarmType(type)];
    }
    void configure() {
        tell(engine.configure(profiles, channels, now, judges));
    }
    void tell(const std::vector<AlarmChange>& changes) {
        static constexpr std::array<std::string_view, 4> kWhat = {"raised", "cleared", "happened",
                                                                  "acknowledged"};
        for (const AlarmChange& change : changes) {
            log += (log.empty() ? "" : ", ") + std::to_string(second) + ":" +
                   std::string(kWhat.at(static_cast<std::size_t>(change.what))) + " " +
                   std::string(alarmTypes()[change.alarm.type].name) +
                   (change.alarm.source == Source::kMeter ? " by meter" : "");
        }
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
    void look() {
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
    void run(int seconds) {
        for (int i = 0; i < seconds; ++i) {
            now.steady += 1s;
            now.wall += 1s;
            ++second;
            look();
        }
    }
};

struct Deed {
    int second;
    std::function<void(World&)> what;
};
Deed fail(int second, const char* id, uint64_t count, uint64_t seconds = 1) {
    return {second, [=](World& w) { w.fail(id, count, seconds); }};
}
Deed probe(int second, const char* column, uint64_t count) {
    return {second, [=](World& w) { w.probeCounts[column] += count; }};
}
Deed at(int second, std::function<void(World&)> what) {
    return {second, std::move(what)};
}

struct Script {
    const char* name;
    std::vector<Deed> deeds;  // each before the second's look
    int seconds;
    const char* expected;
};

void expect(const std::vector<Script>& scripts) {
    for (const Script& script : scripts) {
        World world;
        std::multimap<int, std::function<void(World&)>> deeds;
        for (const Deed& deed : script.deeds) {
            deeds.emplace(deed.second, deed.what);
        }
        for (int second = 1; second <= script.seconds; ++second) {
            const auto [begin, end] = deeds.equal_range(second);
            std::for_each(begin, end, [&](const auto& deed) { deed.second(world); });
            world.run(1);
        }
        EXPECT_EQ(world.log, script.expected) << script.name;
    }
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
    expect({
        {"the meter where it delivers the channel",
         {fail(5, "1.4", 1), probe(20, "Continuity_count_error", 1)},
         40,
         "5:raised continuity by meter, 15:cleared continuity by meter"},
        {"the probe where it does not",
         {at(1, meterGoes), fail(5, "1.4", 1), probe(20, "Continuity_count_error", 1)},
         40,
         "20:raised continuity, 30:cleared continuity"},
        {"the probe of a channel that the meter never had a packet of",
         {at(1, [](World& w) { w.meterPackets = w.video = w.audio = 0; }),
          probe(20, "Continuity_count_error", 1)},
         40,
         "20:raised continuity, 30:cleared continuity"},
        {"the probe where that is wanted, but what only the meter knows",
         {at(3,
             [](World& w) {
                 w.judges.source = AlarmSource::kProbe;
                 w.configure();
             }),
          fail(5, "1.4", 1), probe(20, "Continuity_count_error", 1), fail(22, "1.6", 1)},
         40,
         "20:raised continuity, 22:raised pid_missing by meter, 30:cleared continuity, 32:cleared "
         "pid_missing "
         "by meter"},
        {"another source raises and clears nothing by itself",
         {fail(5, "1.4", 1), at(7, meterGoes)},
         40,
         // Without a report since 6 the probe judges from 10 on, and its window has to pass.
         "5:raised continuity by meter, 20:cleared continuity"},
        {"nor does the one that comes back",
         {at(1, meterGoes), probe(5, "Continuity_count_error", 1), at(8, meterComes), fail(8, "1.4", 50)},
         40,
         "5:raised continuity, 18:cleared continuity by meter"},
        {"what both know goes on",
         {fail(5, "1.4", 1), at(7, meterGoes), probe(12, "Continuity_count_error", 1)},
         40,
         "5:raised continuity by meter, 22:cleared continuity"},
        {"an alarm that is off by records waits for the meter",
         {fail(5, "2.4", 20), at(7, meterGoes), at(30, meterComes)},
         60,
         "5:raised pcr_accuracy by meter, 41:cleared pcr_accuracy by meter"},
        {"no signal, seen by one and over for the other",
         {at(5, [](World& w) { w.meterPackets = w.video = w.audio = 0; }), at(9, meterGoes)},
         40,
         "5:raised no_signal by meter, 14:cleared no_signal"},
        {"a channel without signal has none under the other source either",
         {at(5, [](World& w) { w.meterPackets = w.video = w.audio = w.probePackets = 0; }), at(9, meterGoes),
          at(30, [](World& w) { w.probePackets = 1000; })},
         40,
         "5:raised no_signal by meter, 32:cleared no_signal"},
        {"a probe that is silent holds nothing up",
         {at(3, [](World& w) { w.probeThere = false; }), fail(10, "1.4", 1)},
         30,
         "5:raised probe_silent, 10:raised continuity by meter, 20:cleared continuity by meter"},
    });
}

TEST(StationMeterAlarms, CountWhatReportsCount) {
    expect({
        {"another epoch counts nothing",
         {fail(5, "1.4", 1), at(20, anotherEpoch), fail(20, "1.4", 500)},
         40,
         "5:raised continuity by meter, 15:cleared continuity by meter"},
        {"what this machine disturbed counts nothing that loss brings about",
         {at(5,
             [](World& w) {
                 w.own = kBlind;
                 lose(w, 5000);
                 w.fail("1.4", 40);
                 w.fail("1.3.a", 1, 5);
                 w.fail("2.1", 1);
             }),
          at(6, [](World& w) { w.own = {}; })},
         30,
         "5:raised transport by meter, 15:cleared transport by meter"},
        {"nor do disturbed seconds that were not told",
         {at(5,
             [](World& w) {
                 w.report.set_disturbed_seconds(1);
                 lose(w, 5000);
             })},
         30,
         ""},
        {"a machine that captures nothing for a while says nothing of the signal",
         {at(5, [](World& w) { w.own = kBlind, w.meterPackets = w.video = w.audio = 0; }),
          at(8, [](World& w) { w.meterPackets = 1000, w.video = 700, w.audio = 300; }),
          at(10, [](World& w) { w.own = {}; })},
         30,
         ""},
        {"which the records tell meanwhile",
         {at(5,
             [](World& w) {
                 w.own = kBlind;
                 w.meterPackets = w.video = w.audio = w.probePackets = 0;
             }),
          at(20,
             [](World& w) {
                 w.meterPackets = w.probePackets = 1000, w.video = 700, w.audio = 300;
                 w.own = {};
             })},
         40,
         "5:raised no_signal, 22:cleared no_signal by meter"},
        {"error seconds are the report's, however reports fall into this clock's seconds",
         {fail(5, "1.3.a", 1, 2)},
         30,
         "5:raised pat by meter, 15:cleared pat by meter"},
        {"an absence goes on though it counts once",
         std::vector<Deed>{fail(5, "1.6", 1)} + during(6, 30, [](World& w) { w.fail("1.6", 0); }), 60,
         "5:raised pid_missing by meter, 40:cleared pid_missing by meter"},
        {"a loss that goes by another count now has grown by what that counts",
         {at(5,
             [](World& w) {
                 w.report.mutable_packets()->set_basis("counter");
                 w.report.mutable_packets()->set_by_counter(5000);
                 w.report.mutable_packets()->set_lost(5000);
             }),
          at(20,
             [](World& w) {
                 w.report.mutable_packets()->set_basis("clock");
                 w.report.mutable_packets()->set_lost(40);
             }),
          at(40,
             [](World& w) {
                 w.report.mutable_packets()->set_basis("rtp");
                 w.report.mutable_packets()->set_by_rtp(300);
                 w.report.mutable_packets()->set_lost(300);
             })},
         60,
         "5:raised packets_lost by meter, 15:cleared packets_lost by meter, 40:raised packets_lost by meter, "
         "50:cleared packets_lost by meter"},
        {"errors beyond those that this machine may have caused",
         {at(5,
             [](World& w) {
                 w.own = {.frames = 3, .much = false};
                 lose(w, 21);
                 w.fail("1.4", 3);
             }),
          at(6, [](World& w) { lose(w, 5000); }), at(7, [](World& w) { w.own = {}; })},
         30,
         "6:raised packets_lost by meter, 6:raised loss_bursts by meter, 16:cleared packets_lost by meter, "
         "17:cleared loss_bursts by meter"},
        {"a table that stays away while few packets are lost here",
         std::vector<Deed>{at(5, [](World& w) { w.own = {.frames = 1, .much = false}; }),
                           fail(5, "1.3.a", 1)} +
             during(6, 12, [](World& w) { w.fail("1.3.a", 0); }),
         12, "7:raised pat by meter"},
        {"what is raised needs a window of which something is known",
         {fail(5, "1.4", 1), at(7, [](World& w) { w.own = kBlind; }), at(27, [](World& w) { w.own = {}; })},
         50,
         "5:raised continuity by meter, 35:cleared continuity by meter"},
        {"also where its counters began anew",
         {fail(5, "1.4", 1), at(8, meterGoes), at(10, meterComes), at(10, anotherEpoch)},
         50,
         "5:raised continuity by meter, 18:cleared continuity by meter"},
        {"tables are not judged without a signal",
         {fail(5, "1.3.a", 1, 2), at(7, [](World& w) { w.meterPackets = w.video = w.audio = 0; }),
          at(30, [](World& w) { w.meterPackets = 1000, w.video = 700, w.audio = 300; })},
         60,
         "5:raised pat by meter, 7:raised no_signal by meter, 32:cleared no_signal by meter, 42:cleared pat "
         "by "
         "meter"},
    });
}

TEST(StationMeterAlarms, RaiseWhatTheMeterAloneMeasures) {
    const auto level = [](auto set) { return [set](World& w) { set(w.report); }; };
    const auto offset = [level](double ppm) {
        return level([ppm](metering::GroupReport& report) {
            (report.clock_size() == 0 ? report.add_clock() : report.mutable_clock(0))
                ->set_frequency_offset_ppm(ppm);
        });
    };
    const auto jitter = [level](double ms) {
        return level([ms](metering::GroupReport& report) {
            (report.clock_size() == 0 ? report.add_clock() : report.mutable_clock(0))
                ->set_overall_jitter_ns(ms * 1e6);
        });
    };
    const auto constant = [level](bool is) {
        return level([is](metering::GroupReport& report) { report.mutable_bitrate()->set_constant(is); });
    };
    expect({
        {"a video stream that falls silent",
         {at(20, [](World& w) { w.video = 0; }), at(30, [](World& w) { w.video = 700; })},
         50,
         "21:raised video_missing by meter, 31:cleared video_missing by meter"},
        {"an audio stream that falls silent",
         {at(20, [](World& w) { w.audio = 0; }), at(30, [](World& w) { w.audio = 300; })},
         50,
         "21:raised audio_missing by meter, 31:cleared audio_missing by meter"},
        {"an audio stream whose last packet came early or late in a second",
         {at(20, [](World& w) { w.audio = 10, w.audioSilentMs = 900; }),
          at(21, [](World& w) { w.audio = 0, w.audioSilentMs = 1900; }),
          at(22, [](World& w) { w.audio = 300, w.audioSilentMs = 10; }),
          at(30, [](World& w) { w.audio = 10, w.audioSilentMs = 700; }),
          at(31, [](World& w) { w.audio = 0, w.audioSilentMs = 1700; }),
          at(32, [](World& w) { w.audioSilentMs = 2700; }), at(33, [](World& w) { w.audio = 300; }),
          // Whatever stream time says, it came in this second.
          at(40, [](World& w) { w.audioSilentMs = 9000; })},
         50,
         "21:raised audio_missing by meter, 23:cleared audio_missing by meter, 32:raised audio_missing by "
         "meter, 34:cleared audio_missing by meter"},
        {"the time stamps of a stream that is back, and others",
         {at(20, [](World& w) { w.audio = 0; }), at(24, [](World& w) { w.audio = 300, w.fail("2.5", 1, 3); }),
          fail(40, "2.5", 2, 2)},
         60,
         "21:raised audio_missing by meter, 25:cleared audio_missing by meter, 40:raised pts by meter, "
         "50:cleared pts by meter"},
        {"packets that are scrambled for a while, without a CAT",
         during(10, 15,
                [](World& w) {
                    w.report.mutable_packets()->set_scrambled(w.report.packets().scrambled() + 50);
                    w.fail("2.6", w.second == 9 ? 1 : 0);
                }) +
             during(16, 40, [](World& w) { w.fail("2.6", 0); }),
         40, "12:raised cat by meter, 23:cleared cat by meter"},
        {"a stream that pauses all the time",
         during(1, 60, [](World& w) { w.video = w.second % 6 == 0 ? 20 : 0; }), 60, ""},
        {"nothing comes, so nothing is missing",
         {at(20, [](World& w) { w.video = w.audio = w.meterPackets = w.probePackets = 0; }),
          at(30, [](World& w) { w.meterPackets = 1000, w.video = 700, w.audio = 300; })},
         50,
         "20:raised no_signal by meter, 32:cleared no_signal by meter"},
        {"RTP datagrams that are lost",
         {at(5, level([](metering::GroupReport& report) {
                 report.mutable_network()->mutable_rtp()->set_lost(3);
             }))},
         30,
         "5:raised rtp_loss by meter, 15:cleared rtp_loss by meter"},
        {"long runs of loss and short ones",
         {at(5, [](World& w) { lose(w, 70, 10); }), at(20, [](World& w) { lose(w, 70, 1); })},
         50,
         "20:raised loss_bursts by meter, 31:cleared loss_bursts by meter"},
        {"a run that is shorter than one before",
         {at(5,
             [](World& w) {
                 lose(w, 500);
                 w.report.mutable_packets()->set_longest_lately(500);
             }),
          at(8, [](World& w) { w.report.mutable_packets()->set_longest_lately(0); }),
          at(30,
             [](World& w) {
                 lose(w, 70, 2);
                 w.report.mutable_packets()->set_longest_lately(69);
             })},
         36,
         "5:raised packets_lost by meter, 5:raised loss_bursts by meter, 15:cleared packets_lost by meter, "
         "16:cleared loss_bursts by meter, 30:raised loss_bursts by meter"},
        {"a clock that runs slow",
         {at(5, offset(-40)), at(80, offset(-10))},
         200,
         "65:raised clock_offset by meter, 140:cleared clock_offset by meter"},
        {"a clock within its limits", {at(5, offset(29))}, 100, ""},
        {"a clock that comes unevenly",
         {at(5, jitter(150)), at(20, jitter(5))},
         80,
         "15:raised clock_jitter by meter, 50:cleared clock_jitter by meter"},
        {"a constant bit rate that is lost",
         {at(1, constant(true)), at(90, constant(false)), at(110, constant(true))},
         200,
         "100:raised bitrate_constant by meter, 140:cleared bitrate_constant by meter"},
        {"a bit rate that varies",
         {at(1, constant(false)), at(30, constant(true)), at(60, constant(false))},
         200,
         ""},
        {"a constant bit rate with loss",
         std::vector<Deed>{at(1, constant(true)), at(90, constant(false)), at(130, constant(true))} +
             during(90, 120, [](World& w) { lose(w, 1); }),
         119, "94:raised packets_lost by meter"},
        {"another source address",
         {at(5, level([](metering::GroupReport& report) { report.mutable_flow()->set_other_sources(7); }))},
         30,
         "5:raised wrong_source by meter, 16:cleared wrong_source by meter"},
        {"other ports of the same source",
         {at(5, level([](metering::GroupReport& report) { report.mutable_flow()->set_other_flows(7); }))},
         30,
         ""},
    });
    for (const auto& [type, id] : std::map<std::string_view, std::string_view>{
             {"unreferenced_pid", "3.4.a"}, {"service_information", "3.5.a"}}) {
        World world;
        world.rule(type).enabled = true;
        world.configure();
        for (int i = 0; i < 20; ++i) {
            world.run(1);
            world.fail(id, 1);
        }
        EXPECT_THAT(world.log, testing::HasSubstr("raised " + std::string(type)));
    }
}

TEST(StationMeterAlarms, CountFaultsOfServiceInformationThatOtherChecksDoNot) {
    World world;
    world.rule("service_information").enabled = true;
    world.configure();
    world.fail("3.1.a", 500);
    world.run(100);
    ASSERT_EQ(world.log, "");
    for (int i = 0; i < 12; ++i) {
        world.fail("3.2", 1);  // of BAT and TOT
        world.run(1);
    }
    EXPECT_EQ(world.log, "110:raised service_information by meter");
}

TEST(StationMeterAlarms, MissCuesWhereOneHasToCome) {
    World world;
    world.rule("cue_missing").enabled = true;
    world.rule("cue_missing").window = 60s;
    world.configure();
    world.run(30);
    world.reader.cue();
    world.run(50);
    EXPECT_EQ(world.log, "");
    world.run(30);
    EXPECT_EQ(world.log, "91:raised cue_missing by meter");
    world.reader.cue();
    world.run(1);
    EXPECT_EQ(world.log, "91:raised cue_missing by meter, 111:cleared cue_missing by meter");
    world.log.clear();
    world.run(50);
    world.meterThere = false;  // nobody knows what came
    world.run(30);
    world.meterThere = true;
    world.run(50);
    EXPECT_EQ(world.log, "");
}

TEST(StationMeterAlarms, AreTakenUpAfterARestart) {
    const auto raised = [](int64_t id, std::string_view type) {
        Alarm alarm;
        alarm.id = id;
        alarm.type = *findAlarmType(type);
        alarm.about = kGroup;
        alarm.source = Source::kMeter;
        return alarm;
    };
    const Alarm alarm = raised(7, "pid_missing");
    const Alarm accuracy = raised(8, "pcr_accuracy");
    World world;
    EXPECT_THAT(world.engine.restore({alarm, accuracy}, world.now), testing::IsEmpty());
    world.run(5);
    EXPECT_EQ(world.log, "");
    world.run(20);
    EXPECT_EQ(world.log, "11:cleared pcr_accuracy by meter, 11:cleared pid_missing by meter");
    World alone;
    alone.judges.meter = false;
    alone.configure();
    EXPECT_EQ(alone.engine.restore({alarm, accuracy}, alone.now).size(), 2U) << "nobody could clear them";
    World silent;
    silent.video = 0;
    EXPECT_THAT(silent.engine.restore({raised(9, "video_missing")}, silent.now), testing::IsEmpty());
    silent.run(40);
    EXPECT_EQ(silent.log, "") << "the stream has not come back";
    silent.video = 700;
    silent.run(10);
    EXPECT_THAT(silent.log, testing::HasSubstr("cleared video_missing by meter"));
}

TEST(StationMeterAlarms, AreGivenUpWhenNoMeterComes) {
    World world;
    world.meterThere = false;
    std::vector<Alarm> alarms;
    for (const char* type : {"pid_missing", "pcr_accuracy", "continuity", "meter_silent"}) {
        Alarm alarm;
        alarm.id = static_cast<int64_t>(alarms.size()) + 1;
        alarm.type = *findAlarmType(type);
        alarm.about = alarmTypes()[alarm.type].ofSource ? Subject(Source::kMeter) : Subject(kGroup);
        alarm.source = Source::kMeter;
        alarms.push_back(alarm);
    }
    EXPECT_THAT(world.engine.restore(alarms, world.now), testing::IsEmpty());
    std::vector<AlarmChange> changes;
    world.engine.giveUpMeter(world.now, changes);
    world.tell(changes);
    EXPECT_EQ(world.log, "0:cleared pcr_accuracy by meter, 0:cleared pid_missing by meter");
}

TEST(StationMeterAlarms, GatherWhatChangesInARow) {
    World world;
    std::string told;
    const auto happen = [&](const char* type, std::string_view text) {
        std::vector<AlarmChange> changes;
        world.engine.happen(*findAlarmType(type), kGroup, 1, text, world.now, changes);
        for (const AlarmChange& change : changes) {
            told += change.text + " [" + std::to_string(static_cast<int>(change.alarm.value)) + "]\n";
        }
    };
    const auto pass = [&](std::chrono::seconds time) {
        std::vector<AlarmChange> changes;
        world.now.steady += time;
        world.engine.tick({}, world.now, changes);
        for (const AlarmChange& change : changes) {
            told += change.text + " [" + std::to_string(static_cast<int>(change.alarm.value)) + "]\n";
        }
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

TEST(StationMeterAlarms, AreOverWhenTheMeterMayJudgeNoMore) {
    World world;
    world.run(2);
    world.fail("2.4", 1000);
    world.run(1);
    ASSERT_EQ(world.log, "3:raised pcr_accuracy by meter");
    world.judges.source = AlarmSource::kProbe;
    world.configure();
    EXPECT_EQ(world.log, "3:raised pcr_accuracy by meter, 3:cleared pcr_accuracy by meter");
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
