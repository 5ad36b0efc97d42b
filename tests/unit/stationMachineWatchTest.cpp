// What comes of this machine's readings: alarms, their texts, and joining again.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <set>

#include "machineDesk.h"
#include "machineWatch.h"
#include "support/scratch.h"

using namespace std::chrono_literals;
using namespace station;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

constexpr int kCard = 2;
constexpr int kOther = 3;
constexpr int kSettled = MachineWatch::kCaptureSettles.count() + 1;  // readings

// A machine with eth0 and enp3s0, whose memberships and routes the test sets.
struct Bench {
    MachineWatch watch;
    SteadyTime now{1h};
    std::optional<NetworkInterface> card = NetworkInterface{.name = "eth0",
                                                            .index = kCard,
                                                            .up = true,
                                                            .running = true,
                                                            .carrier = true,
                                                            .state = NetworkInterface::State::kUp};
    Softnet softnet{.droppedByCpu = {0, 0}};
    bool captured = true;
    std::vector<AstrayGroup> astray;
    std::set<Group> withSignal;
    MachineWatch::Probe probe{.connected = true,
                              .hasSignal = [this](const Group& group) { return withSignal.contains(group); }};
    MachineFindings found;

    Groups look(std::chrono::milliseconds later) {
        now += later;
        watch.apply({.time = {now, {}},
                     .capture = card,
                     .captured = captured,
                     .membershipsKnown = true,
                     .astray = astray,
                     .softnet = softnet});
        found = watch.judge(probe, now);
        return watch.rejoin({now, WallTime{1h}});
    }
    Groups second(int seconds = 1) {
        Groups again;
        for (int i = 0; i < seconds; ++i) {
            again.merge(look(1s));
        }
        return again;
    }
    // A second in which the link is down, for what this says.
    void expectDown(const char* why) {
        second();
        EXPECT_EQ(found.linkDown, true) << why;
        EXPECT_THAT(text("link_down"), HasSubstr(why));
    }
    void expectUp(int seconds, const char* why) {
        second(seconds);
        EXPECT_EQ(found.linkDown, false) << why;
    }
    std::string text(const char* type) const {
        return watch.raisedText(type, defaultRules()[*findAlarmType(type)], now).value_or("");
    }
    std::string remark(std::string_view type) const {
        return watch.remark(type, defaultRules()[*findAlarmType(type)], *Group::parse("239.1.1.1"), now);
    }
};

AstrayGroup astray(Ipv4Address last, const char* joinedOn, const char* route, bool fits = false) {
    AstrayGroup group{.group = 0xEF010100 + last, .route = route, .routeFits = fits};
    if (*joinedOn != '\0') {
        group.joinedOn.emplace_back(joinedOn);
    }
    group.routeError = *route == '\0' ? ENETUNREACH : 0;
    return group;
}

}  // namespace

TEST(MachineWatch, TellsInOneSentenceWhatKeepsGroupsAway) {
    Bench bench;
    bench.second();
    EXPECT_EQ(bench.found.notJoined, false);
    for (Ipv4Address last = 1; last <= 34; ++last) {
        bench.astray.push_back(astray(last, "enp3s0", "enp3s0"));
    }
    bench.astray.push_back(astray(40, "", ""));
    bench.second();
    EXPECT_EQ(bench.found.notJoined, true);
    EXPECT_EQ(bench.found.groups, 35);
    EXPECT_EQ(
        bench.text("not_joined"),
        "239.1.1.1 and 33 more are joined on enp3s0, not on eth0: their route leads to enp3s0. ip route "
        "replace 224.0.0.0/4 dev eth0 (if the channels come by enp3s0, that card has to be named eth0); "
        "239.1.1.40 is not joined on eth0: there is no route. ip route "
        "replace 224.0.0.0/4 dev eth0. That lasts until the next boot; for good it belongs in the network's "
        "configuration");
    EXPECT_EQ(bench.remark("no_signal"), "joined on enp3s0, not on eth0");

    // What comes all the same is not missed: a mirror port, a bridge.
    bench.withSignal.insert(*Group::parse("239.1.1.40"));
    bench.second();
    EXPECT_EQ(bench.watch.state().notJoined, 34U);

    bench.probe.passive = true;
    bench.second();
    EXPECT_EQ(bench.found.notJoined, false) << "it joins nothing";
    EXPECT_EQ(bench.watch.state().notJoined, std::nullopt);
    bench.probe.passive = false;
    bench.probe.connected = false;
    bench.second();
    EXPECT_EQ(bench.found.notJoined, std::nullopt) << "a probe that ended has left its groups";
    EXPECT_EQ(bench.watch.state().notJoined, std::nullopt);
    EXPECT_EQ(bench.watch.state().joinedElsewhere, std::nullopt);
}

TEST(MachineWatch, HasGroupsJoinedAgainEverMoreSeldom) {
    Bench bench;
    bench.astray = {astray(1, "enp3s0", "enp3s0"), astray(2, "enp3s0", "enp3s0")};
    EXPECT_THAT(bench.second(30), IsEmpty()) << "the route leads elsewhere";
    bench.astray = {astray(1, "enp3s0", "eth0", true), astray(2, "enp3s0", "enp3s0")};
    EXPECT_THAT(bench.second(2), IsEmpty()) << "a route that settles";
    EXPECT_THAT(bench.second(), SizeIs(1));
    EXPECT_THAT(bench.text("not_joined"), HasSubstr("so the probe is told to join again"));
    std::vector<int> after;
    for (int second = 1; second <= 3000; ++second) {
        if (!bench.second().empty()) {
            after.push_back(second);
        }
    }
    ASSERT_GE(after.size(), 8U);
    EXPECT_LE(after.size(), 11U);
    EXPECT_NEAR(after[0], 10, 3);
    EXPECT_NEAR(after[1] - after[0], 20, 3);
    EXPECT_NEAR(after.back() - *(after.end() - 2), 600, 3) << "the bound";
    EXPECT_THAT(bench.text("not_joined"),
                HasSubstr("times to join again, in vain. systemctl restart kestor"));
    bench.astray.clear();
    bench.second(61);
    bench.astray = {astray(1, "enp3s0", "eth0", true)};
    EXPECT_THAT(bench.second(3), SizeIs(1)) << "all was joined for a minute: from the beginning";
    EXPECT_THAT(bench.text("not_joined"), Not(HasSubstr("systemctl restart kestor")));
    EXPECT_EQ(bench.watch.state().rejoins, after.size() + 2);
    EXPECT_THAT(bench.second(12), SizeIs(1)) << "the pause as well";
}

TEST(MachineWatch, TellsOfAProbeThatWasStartedBeforeItsCard) {
    Bench bench;
    bench.captured = false;
    bench.expectUp(15, "a guard may see to it");
    bench.second(9);
    bench.expectDown("eth0 is up, but nobody captures there");
    bench.card->carrier = false;
    bench.expectDown("no carrier");
    bench.card->carrier = true;
    bench.expectDown("nobody captures there");
    bench.captured = true;
    bench.expectUp(kSettled, "captured on");
    bench.captured = false;
    bench.probe.connected = false;
    bench.expectUp(60, "there is no probe that could");
}

TEST(MachineWatch, TellsALinkThatIsDownGoneOrFlaps) {
    Bench bench;
    bench.card->carrier = false;
    bench.second();
    EXPECT_EQ(bench.found.linkDown, std::nullopt) << "it may be coming up with the machine";
    bench.second(20);
    EXPECT_EQ(bench.found.linkDown, true);
    bench.card->carrier = true;
    bench.card->carrierChanges = 1;
    bench.expectUp(1, "it has a carrier");
    bench.card->carrierChanges += 2;
    bench.expectDown("lost its carrier");
    EXPECT_GE(bench.now - bench.found.linkDownSince, 1s);
    bench.expectUp(1, "that was all");

    bench.card->carrier = false;
    bench.expectDown("eth0 has no carrier: is the cable plugged in");
    EXPECT_EQ(bench.remark("no_signal"), "eth0 has no carrier") << "what to do is told once, by link_down";
    bench.card->received.packets += 10;
    bench.expectUp(1, "a driver that does not tell");
    bench.look(10ms);
    EXPECT_EQ(bench.found.linkDown, false) << "a look on demand, in which none came";
    bench.card->up = false;
    bench.expectDown("ip link set eth0 up");
    bench.card->up = bench.card->carrier = true;
    bench.second();
    EXPECT_EQ(bench.remark("no_signal"), "eth0 receives nothing at all");
    bench.card->received.packets += 10;
    bench.second();
    EXPECT_THAT(bench.remark("no_signal"), IsEmpty());
    bench.second();
    EXPECT_EQ(bench.remark("no_signal"), "eth0 receives nothing at all");

    // Another one with such a name is not the probe's, which does not look again.
    bench.card->name = "veth0f3a";
    bench.card->index = kOther;
    bench.captured = false;
    bench.astray = {astray(1, "eth0", "eth0")};
    bench.expectDown("eth0 is gone");
    EXPECT_EQ(bench.found.notJoined, std::nullopt);
    bench.captured = true;
    bench.expectUp(kSettled, "a probe that was started anew captures there");

    // It goes and comes back, and the probe that was started in between found none.
    const auto card = *bench.card;
    bench.card.reset();
    bench.captured = false;
    bench.expectDown("veth0f3a is gone");
    bench.card = card;
    bench.second();
    bench.expectDown("is back, but nobody captures there");
    // The meter's new socket, until the station knows it for one.
    bench.captured = true;
    for (int i = 0; i < kSettled - 1; ++i) {
        bench.expectDown("");
    }
    bench.captured = false;
    bench.second();
    bench.captured = true;
    bench.expectDown("");
    bench.expectUp(kSettled, "captured on");

    Bench none;
    none.card.reset();
    none.second();
    EXPECT_EQ(none.found.linkDown, std::nullopt) << "what was never there is not lost";
}

TEST(MachineWatch, CountsWhatThisMachineDropsAndSaysSoWithLosses) {
    Bench bench;
    bench.card->received = {.dropped = 1000, .missed = 1000, .fifo = 1000};
    bench.softnet.droppedByCpu = {0xFFFFFFFF, 7};
    bench.second(2);
    EXPECT_EQ(bench.found.drops, 0U) << "what was before the station";
    EXPECT_THAT(bench.remark("packets_lost"), IsEmpty());

    bench.card->received.packets += 5;
    bench.card->received.missed += 300;
    bench.card->received.fifo += 300;  // the same packets
    bench.card->received.dropped += 10;
    bench.softnet.droppedByCpu[0] += 2;  // wraps
    bench.second();
    EXPECT_EQ(bench.found.drops, 312U);
    EXPECT_EQ(bench.remark("packets_lost"), "this machine dropped 312 packets in that time");
    // No alarm that speaks of losses keeps back which of them are this machine's.
    std::set<std::string_view> ofLoss = {"crc"};
    for (const AlarmType& type : alarmTypes()) {
        if (type.meaning.find(" lost") != std::string_view::npos ||
            type.what.find(" lost") != std::string_view::npos) {
            ofLoss.insert(type.name);
        }
    }
    EXPECT_THAT(ofLoss,
                testing::IsSupersetOf({"packets_lost", "continuity", "rtp_loss", "loss_bursts", "mos"}));
    for (const std::string_view type : ofLoss) {
        EXPECT_EQ(bench.remark(type), "this machine dropped 312 packets in that time") << type;
        EXPECT_TRUE(MachineWatch::goesByNow(type)) << type;
    }
    EXPECT_EQ(bench.remark("bitrate_low"), "");
    EXPECT_THAT(bench.remark("no_signal"), IsEmpty());
    EXPECT_THAT(bench.text("machine_drops"),
                AllOf(HasSubstr("this machine dropped 312 packets within 10 s"),
                      HasSubstr("300 rx_missed_errors of eth0"), HasSubstr("ethtool -G eth0"),
                      HasSubstr("10 rx_dropped"), HasSubstr("2 in the backlog")));
    bench.card->index = kOther;  // made anew, with counters of its own
    bench.card->received.missed += 500;
    bench.softnet.droppedByCpu = {5, 9, 40};  // a processor came
    bench.second();
    EXPECT_EQ(bench.found.drops, 0U);
    EXPECT_FALSE(bench.watch.state().captured) << "that has to settle";
    bench.second(12);
    EXPECT_THAT(bench.remark("packets_lost"), IsEmpty());
    EXPECT_EQ(bench.watch.state().dropsLastMinute, 312U);

    // Nobody captures: frames of protocols that nobody listens to count as dropped.
    bench.captured = false;
    bench.card->received.dropped += 50;
    bench.second();
    EXPECT_EQ(bench.found.drops, 0U);
    bench.captured = true;
    bench.card->received = {};  // the driver was loaded anew
    bench.second(60);
    EXPECT_EQ(bench.watch.state().dropsLastMinute, 0U);
    EXPECT_EQ(bench.watch.state().drops, 312U);
}

TEST(MachineDesk, TellsWithAMissingSignalWhatIsSoAtThatMoment) {
    std::atomic<bool> carrier = true;
    const ScratchDirectory proc;
    AlarmEngine engine;
    MachineDesk desk(engine);
    const Group group = *Group::parse("239.1.1.1");
    engine.configure({{std::string(kDefaultProfile), defaultRules()}}, {{group, Channel{.group = group}}},
                     systemNow());
    desk.start({.proc = proc.path(), .interfaces = [&carrier] {
                    return std::vector{NetworkInterface{
                        .name = "eth0", .index = kCard, .up = true, .carrier = carrier.load()}};
                }});
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!desk.watch().state().interface && std::chrono::steady_clock::now() < deadline) {
        desk.judge({.hasSignal = [](const Group&) { return false; }}, systemNow());
    }
    carrier = false;
    Alarm alarm;
    alarm.type = *findAlarmType("no_signal");
    alarm.about = group;
    std::vector<AlarmChange> changes;
    do {  // a machine without time for a look is asked again
        changes = {{AlarmChange::What::kRaised, alarm, {}, "no packets arrive"}};
        desk.explain(changes, systemNow());
    } while (changes[0].text == "no packets arrive" && std::chrono::steady_clock::now() < deadline);
    EXPECT_EQ(changes[0].text, "no packets arrive: eth0 has no carrier");
}

// Neither a look that failed nor one that does not end leaves what was seen before as if it were of now.
TEST(MachineWatch, SaysWhyNothingIsKnownAndNothingOld) {
    for (const bool hangs : {false, true}) {
        SCOPED_TRACE(hangs ? "the kernel does not answer" : "it refuses");
        Bench bench;
        bench.astray = {astray(1, "enp3s0", "enp3s0")};
        bench.card->received.missed = 1;
        bench.second();
        bench.card->received.missed = 50;
        bench.card->carrier = false;
        bench.second();
        const MachineState before = bench.watch.state();
        ASSERT_TRUE(before.known && before.interface && before.softnet && before.notJoined == 1U);
        ASSERT_TRUE(before.problem.empty() && !before.worst().empty() && before.drops == 49);

        bench.now += hangs ? MachineWatch::kReadingHolds + 1s : 1s;
        if (!hangs) {
            bench.watch.apply({.time = {bench.now, {}}, .problem = "Permission denied"});
        }
        bench.found = bench.watch.judge(bench.probe, bench.now);
        EXPECT_EQ(bench.found.notJoined, std::nullopt);
        EXPECT_EQ(bench.found.linkDown, std::nullopt);
        const MachineState state = bench.watch.state();
        EXPECT_FALSE(state.known || state.interface || state.softnet || state.captured);
        EXPECT_EQ(state.worst() + state.doubled, "");
        EXPECT_EQ(state.drops + state.dropsLastMinute, 0U);
        EXPECT_FALSE(state.notJoined || state.joinedElsewhere);
        EXPECT_THAT(state.problem, HasSubstr(hangs ? "waiting for more than 10 s" : "(Permission denied)"));

        bench.second();
        EXPECT_TRUE(bench.watch.state().known);
        EXPECT_EQ(bench.watch.state().problem, "");
        EXPECT_EQ(bench.watch.state().drops, 49U) << "what was counted is not lost";
    }
}
