// What is shelved, which alarms are one incident, and what passed unseen.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "alarms/incidents.h"
#include "alarms/passed.h"
#include "alarms/shelf.h"
#include "store/eventStore.h"
#include "support/movedTime.h"
#include "support/scratch.h"
#include "web/apiJson.h"

using namespace station;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const std::size_t kNoSignal = *findAlarmType("no_signal");
const std::size_t kPacketsLost = *findAlarmType("packets_lost");
const WallTime kBegin{std::chrono::milliseconds{1'800'000'000'000}};

Group groupOf(int number) {
    return *Group::parse("239.1." + std::to_string(number / 200) + "." + std::to_string(number % 200 + 1));
}

struct Room {
    Incidents incidents;
    ChannelMap channels;
    Now now{SteadyTime{} + 1h, kBegin};
    int64_t lastId = 100;
    std::vector<Alarm> raised;

    void channel(int number, Labels labels, std::string sender = {}) {
        Channel made{.group = groupOf(number)};
        made.labels = std::move(labels);
        made.source = std::move(sender);
        channels.emplace(made.group, made);
    }
    void ready() {
        incidents.setChannels(channels);
    }
    Alarm alarm(const Subject& about, std::size_t type = kNoSignal) {
        Alarm one;
        one.id = ++lastId;
        one.type = type;
        one.about = about;
        one.raised = now.wall;
        raised.push_back(one);
        return one;
    }
    // No signal of these channels, at once.
    std::vector<int64_t> fail(const std::vector<int>& numbers) {
        std::vector<Alarm> alarms;
        std::vector<int64_t> ids;
        for (const int number : numbers) {
            alarms.push_back(alarm(groupOf(number)));
            ids.push_back(alarms.back().id);
        }
        incidents.raise(alarms, now);
        return ids;
    }
    static std::vector<int> range(int from, int count) {
        std::vector<int> numbers;
        for (int i = 0; i < count; ++i) {
            numbers.push_back(from + i);
        }
        return numbers;
    }
    // "site=north 400/400", what is shared and how many alarms of how many.
    std::vector<std::string> shared() {
        std::vector<std::string> texts;
        for (const Incident& one : incidents.all()) {
            texts.push_back(one.shared.text() + " " + std::to_string(one.alarms));
        }
        return texts;
    }
};

// A thousand channels: 400 of the site north, all others south; 900 of one country.
Room thousand() {
    Room room;
    for (int i = 0; i < 1000; ++i) {
        room.channel(i, {{"site", i < 400 ? "north" : "south"},
                         {"country", i < 900 ? "de" : "at"},
                         {"rack", std::to_string(i / 10)}});
    }
    room.ready();
    return room;
}

}  // namespace

TEST(StationIncidents, WhatExplainsMostIsWhatIsShared) {
    struct Case {
        std::string what;
        std::vector<std::vector<int>> seconds;  // channels that fail, second by second
        std::vector<std::string> shared;
    };
    const auto range = Room::range;
    const std::vector<Case> cases = {
        {"a lone alarm", {{5}}, {}},
        {"two of 900, of different racks and sites", {{5}, {850}}, {}},
        {"two of ten of a rack", {{11, 12}}, {}},
        {"three of a rack", {{11, 12, 13}}, {"rack=1 3"}},
        {"a site", {range(0, 400)}, {"site=north 400"}},
        {"a site, trickling", {{7}, {93}, range(100, 200), range(0, 6), range(300, 100)}, {"site=north 308"}},
        {"a site, and somebody else's channel before it", {{950}, range(0, 400)}, {"site=north 400"}},
        {"half a site", {range(0, 200)}, {"site=north 200"}},
        {"everything", {range(0, 1000)}, {"this machine 1000"}},
        {"a rack that turns out to be a site", {{11, 12, 13}, range(100, 290)}, {"site=north 293"}},
        {"two racks far apart", {{11, 12, 13, 14}, {711, 712, 713, 714}}, {"rack=71 4", "rack=1 4"}},
        {"too late", {{11, 12, 13}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {}, {14}}, {"rack=1 3"}},
    };
    for (const Case& one : cases) {
        Room room = thousand();
        for (const auto& numbers : one.seconds) {
            room.fail(numbers);
            room.now += 1s;
        }
        EXPECT_EQ(room.shared(), one.shared) << one.what;
    }
}

TEST(StationIncidents, AChainEndsAfterAMinute) {
    Room room = thousand();
    const auto first = room.fail({11, 12});
    for (int turn = 0; turn < 8; ++turn) {
        room.now += 9s;
        room.fail({13 + turn % 7});
    }
    const auto all = room.incidents.all();
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.back().id, first[0]);
    EXPECT_EQ(all.back().alarms, 8U) << "six more within 60 s of the first";
}

TEST(StationIncidents, WithoutLabelsSenderChannelAndMachineAreShared) {
    Room room;
    for (int i = 0; i < 40; ++i) {
        room.channel(i, {}, i < 8 ? "10.0.0.1" : "");
    }
    room.ready();
    room.fail({1, 2, 3});
    EXPECT_THAT(room.shared(), ElementsAre("sender 10.0.0.1 3"));
    room.now += 1min;
    room.fail({20, 30});
    EXPECT_THAT(room.shared(), SizeIs(1)) << "2 of 40 are two faults";
    room.now += 1min;
    const Alarm loss = room.alarm(groupOf(20), kPacketsLost);
    const Alarm signal = room.alarm(groupOf(20));
    room.incidents.raise(std::vector{loss, signal}, room.now);
    EXPECT_THAT(room.shared(), ElementsAre("channel 239.1.0.21 2", "sender 10.0.0.1 3"));
    room.now += 1min;
    const Alarm silent = room.alarm(Source::kMeter, *findAlarmType("meter_silent"));
    room.incidents.raise(std::vector{silent}, room.now);
    room.now += 1s;
    room.fail({33});
    EXPECT_EQ(room.shared().front(), "this machine 2") << "what is wrong here explains what else begins";
    room.now += 1min;
    const Alarm delivery = room.alarm(Source::kProbe, *findAlarmType("delivery_failing"));
    room.incidents.raise(std::vector{delivery}, room.now);
    room.fail({34});
    EXPECT_EQ(room.incidents.incidentOf(delivery.id), 0) << "a webhook that fails silences no channel";
}

TEST(StationIncidents, ChannelsThatAreWellSpeakAgainstTheMachine) {
    const auto after = [](const char* type, const std::vector<int>& failed, const std::vector<int>& then) {
        Room room = thousand();
        room.fail(failed);
        room.now += 1s;
        const std::size_t found = *findAlarmType(type);
        room.incidents.raise(std::vector{room.alarm(*alarmTypes()[found].ofSource, found)}, room.now);
        room.now += 1s;
        room.fail(then);
        return room.shared();
    };
    const auto range = Room::range;
    // What is not joined is some groups: it says nothing of 997 that are well.
    for (const char* const type : {"not_joined", "probe_not_asking"}) {
        EXPECT_THAT(after(type, {11, 12, 13}, {}), ElementsAre("rack=1 3")) << type;
        EXPECT_THAT(after(type, range(0, 200), range(200, 60)), ElementsAre("site=north 260")) << type;
        EXPECT_THAT(after(type, {5, 850}, {412}), IsEmpty()) << type;
        EXPECT_THAT(after(type, range(0, 980), range(980, 20)), ElementsAre("this machine 1001")) << type;
    }
    for (const char* const type : {"link_down", "probe_silent", "capture_loss", "machine_drops"}) {
        EXPECT_THAT(after(type, {11, 12, 13}, {850}), ElementsAre("this machine 5")) << type;
        EXPECT_THAT(after(type, {5, 850}, {}), ElementsAre("this machine 3")) << type;
    }
}

TEST(StationIncidents, AnIncidentIsOverWithItsLastAlarmAndKeepsItsId) {
    Room room = thousand();
    const auto ids = room.fail({11, 12, 13});
    const int64_t incident = room.incidents.incidentOf(ids[1]);
    EXPECT_EQ(incident, ids[0]);
    EXPECT_FALSE(room.incidents.clear(ids[0], room.now)->incident.over);
    EXPECT_EQ(room.incidents.find(incident)->active, 2U);
    room.incidents.clear(ids[1], room.now);
    EXPECT_EQ(room.incidents.clear(ids[2], room.now)->incident.over, room.now.wall);
    EXPECT_FALSE(room.incidents.clear(ids[2], room.now));
    room.now += 2s;
    const auto again = room.fail({11});
    EXPECT_EQ(room.incidents.incidentOf(again[0]), incident) << "it flaps";
    EXPECT_FALSE(room.incidents.find(incident)->over);
    room.now += 1min;
    const auto later = room.fail({11, 12, 13});
    EXPECT_EQ(room.incidents.incidentOf(later[0]), later[0]) << "another fault, and another id";

    for (std::size_t turn = 0; turn < Incidents::kOver + 20; ++turn) {
        room.now += 1min;
        for (const int64_t id : room.fail({21, 22, 23})) {
            room.incidents.clear(id, room.now);
        }
    }
    room.incidents.forgetOver({incident});
    EXPECT_LE(room.incidents.all().size(), Incidents::kOver + 2);
    EXPECT_NE(room.incidents.find(incident), nullptr) << "what passed of it was not seen yet";
    EXPECT_NE(room.incidents.find(later[0]), nullptr) << "one that is not over is kept";
}

TEST(StationIncidents, ARestartNeitherSplitsNorRenumbers) {
    Room room = thousand();
    const auto ids = room.fail({11, 12, 13});
    room.incidents.clear(ids[0], room.now);
    Room after = thousand();
    after.now = room.now;
    after.lastId = room.lastId;
    after.now += 3s;
    after.now.steady = SteadyTime{} + 5s;  // the machine was started anew
    std::vector<Alarm> raised(room.raised.begin() + 1, room.raised.end());
    for (Alarm& alarm : raised) {
        alarm.incident = ids[0];
    }
    std::vector<Incident> stored = room.incidents.all();
    stored.push_back(stored.front());
    stored.back().id = 7;
    stored.push_back(stored.front());
    stored.back().id = 8;
    stored.back().began = stored.back().last = room.now.wall - 1h;
    EXPECT_THAT(after.incidents.restore(stored, raised, {8}, after.now), ElementsAre(7))
        << "none of its alarms is raised";
    EXPECT_EQ(after.incidents.find(8)->over, stored.back().last) << "what passed of it was not seen yet";
    EXPECT_EQ(after.incidents.incidentOf(ids[1]), ids[0]);
    EXPECT_EQ(after.incidents.find(ids[0])->active, 2U);
    after.fail({14});
    EXPECT_EQ(after.incidents.find(ids[0])->alarms, 4U) << "its chain goes on";
    after.now += 1min;
    after.fail({15, 16, 17});
    EXPECT_THAT(after.incidents.all(), SizeIs(3));
    EXPECT_TRUE(after.incidents.clear(ids[1], after.now));
}

TEST(StationIncidents, AStormIsTakenInOneGo) {
    Room room;
    for (int i = 0; i < 5000; ++i) {
        room.channel(i,
                     {{"a", std::to_string(i % 7)}, {"b", std::to_string(i % 50)}, {"c", std::to_string(i)}});
    }
    room.ready();
    const auto began = std::clock();
    room.fail(room.range(0, 5000));
    EXPECT_THAT(room.shared(), ElementsAre("this machine 5000"));
    EXPECT_LT(static_cast<double>(std::clock() - began) / CLOCKS_PER_SEC, 2.0);
}

TEST(StationShelf, HoldsWhatComesAndGoesUntilATime) {
    Shelf shelf;
    const Subject about = groupOf(1);
    const auto shelved = [&](WallTime until) {
        return Shelving{.id = 9,
                        .type = kNoSignal,
                        .about = about,
                        .since = kBegin,
                        .until = until,
                        .by = "",
                        .remark = ""};
    };
    EXPECT_TRUE(shelf.put(shelved(kBegin + 1h)));
    EXPECT_NE(shelf.find(about, kNoSignal), nullptr);
    EXPECT_EQ(shelf.find(about, kPacketsLost), nullptr);
    EXPECT_EQ(shelf.find(groupOf(2), kNoSignal), nullptr);
    EXPECT_THAT(shelf.takeEnded(kBegin + 1h - 1ms), IsEmpty());
    EXPECT_THAT(shelf.takeEnded(kBegin + 1h), SizeIs(1));
    EXPECT_EQ(shelf.size(), 0U);
    shelf.put(shelved(kBegin + 1h));
    EXPECT_THAT(shelf.takeEnded(kBegin - Shelf::kLongest), SizeIs(1)) << "the clock was set back by a month";
    for (std::size_t i = 0; i < Shelf::kLimit; ++i) {
        Shelving one = shelved(kBegin + 1h);
        one.about = *Group::parse("239.7." + std::to_string(i / 200) + "." + std::to_string(i % 200 + 1));
        ASSERT_TRUE(shelf.put(one));
    }
    EXPECT_FALSE(shelf.put(shelved(kBegin + 2h))) << "full";
    Shelving again = shelf.all().front();
    again.until = kBegin + 3h;
    EXPECT_TRUE(shelf.put(again)) << "one that is there is replaced";
    EXPECT_EQ(shelf.size(), Shelf::kLimit);
}

TEST(StationPassed, CountsWhatCameAndWentAndForgetsTheOldest) {
    PassedAlarms passed;
    const auto one = [](int64_t id, int number) {
        return PassedAlarm{.id = id,
                           .type = kNoSignal,
                           .about = groupOf(number),
                           .raised = kBegin,
                           .cleared = kBegin + std::chrono::seconds(id)};
    };
    PassedAlarm first = one(1, 1), again = one(2, 1);
    EXPECT_THAT(passed.put(first), IsEmpty());
    EXPECT_THAT(passed.put(again), ElementsAre(1));
    EXPECT_EQ(again.times, 2U);
    EXPECT_FALSE(passed.take(first)) << "there is a later one that nobody saw";
    EXPECT_TRUE(passed.take(again));
    for (int64_t id = 1; id <= static_cast<int64_t>(PassedAlarms::kLimit); ++id) {
        PassedAlarm next = one(id, static_cast<int>(id));
        ASSERT_THAT(passed.put(next), IsEmpty());
    }
    PassedAlarm last = one(5000, 5000);
    EXPECT_THAT(passed.put(last), ElementsAre(1)) << "the oldest";
    EXPECT_EQ(passed.all().front().id, 5000);
    EXPECT_EQ(passed.size(), PassedAlarms::kLimit);
}

// Each alarm that comes or goes is told to all browsers: what passed is told by its channels, and listed to
// who asks.
TEST(StationPassed, AreFewBytesOfTheStream) {
    PassedAlarms passed;
    for (int64_t id = 1; id <= static_cast<int64_t>(PassedAlarms::kLimit); ++id) {
        PassedAlarm next;
        next.id = id;
        next.about = groupOf(static_cast<int>(id));
        next.text = std::string(200, 'x');
        passed.put(next);
    }
    PassedAlarm ofProbe;
    ofProbe.id = 5000;
    passed.put(ofProbe);
    StationState state;
    state.passed = passed.all();
    state.passedVersion = passed.version();
    const std::string text = streamAlarmJson(state);
    EXPECT_LT(text.size(), 16 * PassedAlarms::kLimit);
    EXPECT_THAT(text, HasSubstr(R"("passed":{"version":1001,"groups":[)"));
    EXPECT_THAT(text, HasSubstr("\"" + groupOf(1000).text() + "\""));
    EXPECT_TRUE(passed.take(ofProbe));
    EXPECT_EQ(passed.version(), 1002U) << "browsers ask for the list again";
}

// Whatever the file lost, it has what is known once it can be written.
TEST(StationIncidents, OutliveTheStationAndTheirFile) {
    for (const bool lost : {false, true}) {
        const ScratchDirectory directory;
        const auto clock = [] { return Now{std::chrono::steady_clock::now(), kBegin}; };
        Room room = thousand();
        const auto ids = room.fail({11, 12, 13});
        const Shelving shelving{.id = 900,
                                .type = kPacketsLost,
                                .about = groupOf(3),
                                .since = kBegin,
                                .until = kBegin + 1h,
                                .by = "ann",
                                .remark = "flaps",
                                .incident = 101};
        const PassedAlarm passed{.id = 90,
                                 .type = kNoSignal,
                                 .about = groupOf(4),
                                 .severity = Severity::kMajor,
                                 .raised = kBegin,
                                 .cleared = kBegin + 5s,
                                 .times = 3,
                                 .text = "gone",
                                 .incident = 101};
        const Maintenance window{.id = 901,
                                 .from = kBegin,
                                 .until = kBegin + 1h,
                                 .group = {},
                                 .remark = "r",
                                 .by = "b",
                                 .groups = {groupOf(1), groupOf(2)},
                                 .about = "site=north"};
        {
            EventStore store(directory.path(), {90, 1'000'000}, clock);
            const auto record = [&](int64_t id, EventKind kind, int64_t alarm, const Group& group) {
                store.record({.id = id,
                              .time = kBegin,
                              .kind = kind,
                              .group = group,
                              .alarm = "no_signal",
                              .alarmId = alarm,
                              .severity = Severity::kCritical,
                              .by = "ann"});
            };
            for (const Alarm& alarm : room.raised) {
                record(alarm.id, EventKind::kRaised, alarm.id, *alarm.about.group());
            }
            record(200, EventKind::kAcknowledged, ids[0], groupOf(11));
            record(201, EventKind::kRaised, 201, groupOf(20));
            record(202, EventKind::kCleared, 201, groupOf(20));
            Incident first = room.incidents.all().front();
            first.alarms = 2;
            store.putIncident({first, {ids[0], ids[1]}});
            store.putIncident({room.incidents.all().front(), {ids[2]}});
            store.putIncident({Incident{.id = 7}, {}});
            store.removeIncident(7);
            store.putPassed(passed);
            store.putPassed(PassedAlarm{.id = 91, .about = groupOf(5), .raised = kBegin, .cleared = kBegin});
            store.removePassed(91);
            store.putMaintenance(window);
            std::promise<std::string> stored;
            store.putShelving(shelving, [&](const std::string& problem) { stored.set_value(problem); });
            EXPECT_EQ(stored.get_future().get(), "");
            if (lost) {
                for (const char* const name : {"events.db", "events.db-wal", "events.db-shm"}) {
                    std::filesystem::remove(directory.path() / name);
                }
                EXPECT_TRUE(
                    eventually([&] { return std::filesystem::exists(directory.path() / "events.db"); }));
            }
        }
        const EventStore again(directory.path(), {90, 1'000'000}, clock);
        const StoredState& state = again.initial();
        EXPECT_EQ(state.problem, "");
        EXPECT_THAT(state.shelved, ElementsAre(shelving));
        EXPECT_THAT(state.passed, ElementsAre(passed));
        EXPECT_THAT(state.maintenance, ElementsAre(window));
        ASSERT_THAT(state.incidents, SizeIs(1));
        ASSERT_THAT(state.active, SizeIs(3)) << "the last one is over";
        for (const Alarm& alarm : state.active) {
            EXPECT_EQ(alarm.acknowledged ? alarm.acknowledged->by : "", alarm.id == ids[0] ? "ann" : "");
        }
        Room after = thousand();
        EXPECT_THAT(after.incidents.restore(state.incidents, state.active, {}, after.now), IsEmpty());
        EXPECT_EQ(after.incidents.all(), room.incidents.all()) << lost;
    }
}
