// What the station tells the probe, and how it reads the pipe.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "probe/probeLink.h"

using namespace std::chrono_literals;
using station::Group;
using station::Groups;
using station::ProbeLink;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

Group group(int last) {
    return *Group::parse("239.1." + std::to_string(last / 250) + "." + std::to_string(last % 250 + 1));
}

Groups groups(int count) {
    Groups all;
    for (int i = 0; i < count; ++i) {
        all.insert(group(i));
    }
    return all;
}

// A probe that does as it is told, and shows a snapshot a second.
struct FakeProbe {
    explicit FakeProbe(ProbeLink& tried) : link(tried) {}

    ProbeLink& link;
    station::SteadyTime now{1h};
    int32_t sequence = 0;
    Groups list;
    std::size_t told = 0;
    ProbeLink::Event event{};

    ProbeLink::Answer ask(std::chrono::milliseconds pace = 500ms) {
        now += pace;
        event = link.request(sequence++, now);
        const auto answer = link.answer(now);
        for (const Group& gone : answer.remove) {
            list.erase(gone);
        }
        list.insert(answer.append.begin(), answer.append.end());
        told += answer.append.size();
        return answer;
    }
    void second() {
        ask();
        ask();
        link.shown(list, now - 100ms);
    }
};

}  // namespace

TEST(StationProbe, TellsAFreshProbeTwoHundredGroupsAnAnswerOnce) {
    ProbeLink link;
    link.want(groups(450));
    FakeProbe probe(link);
    EXPECT_THAT(probe.ask().append, IsEmpty()) << "whether it monitors is not known yet";
    EXPECT_THAT(probe.ask().append, SizeIs(200));
    EXPECT_THAT(probe.ask().append, SizeIs(200));
    EXPECT_THAT(probe.ask().append, SizeIs(50));
    for (int i = 0; i < 10; ++i) {
        probe.second();
    }
    EXPECT_EQ(probe.told, 450U);
    EXPECT_EQ(probe.list, groups(450));
}

TEST(StationProbe, TellsAProbeThatLostItsListAllGroupsAgain) {
    ProbeLink link;
    link.want(groups(3));
    FakeProbe probe(link);
    probe.second();
    probe.second();
    ASSERT_EQ(probe.list, groups(3));
    probe.sequence = 0;
    probe.list.clear();
    probe.ask();
    EXPECT_EQ(probe.event, ProbeLink::Event::kRestarted);
    probe.ask();
    EXPECT_EQ(probe.list, groups(3));
    probe.now += 1min;
    probe.ask();
    EXPECT_EQ(probe.event, ProbeLink::Event::kCame);
}

TEST(StationProbe, TellsAProbeThatWasRunningOnlyTheDifference) {
    ProbeLink link;
    link.want(groups(3));
    FakeProbe probe(link);
    probe.sequence = 1000;
    probe.list = {group(0), group(1), group(7)};
    probe.second();
    EXPECT_EQ(probe.told, 0U) << "its list is not known before a snapshot showed it";
    const auto answer = probe.ask();
    EXPECT_THAT(answer.append, ElementsAre(group(2)));
    EXPECT_THAT(answer.remove, ElementsAre(group(7)));
    probe.second();
    probe.second();
    EXPECT_EQ(probe.told, 1U);
    EXPECT_EQ(probe.list, groups(3));
}

TEST(StationProbe, TellsAGroupAgainThatThreeSnapshotsMissed) {
    ProbeLink link;
    link.want(groups(2));
    FakeProbe probe(link);
    probe.second();
    probe.second();
    probe.second();
    ASSERT_EQ(probe.told, 2U);
    probe.list.erase(group(1));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(probe.told, 2U) << i;
        probe.second();
    }
    probe.ask();
    EXPECT_EQ(probe.told, 3U);
    EXPECT_EQ(probe.list, groups(2));
}

TEST(StationProbe, LeavesAScanningProbeAlone) {
    ProbeLink link;
    link.want(groups(2));
    link.clearCounters();
    FakeProbe probe(link);
    for (int i = 0; i < 5; ++i) {
        const auto answer = probe.ask(2500ms);
        EXPECT_FALSE(answer.clearAll);
        EXPECT_THAT(answer.append, IsEmpty());
    }
    EXPECT_TRUE(link.scanning());
}

TEST(StationProbe, RemovesFewGroupsAnAnswerFromALongList) {
    ProbeLink link;
    link.want(groups(1000));
    FakeProbe probe(link);
    for (int i = 0; i < 10; ++i) {
        probe.second();
    }
    ASSERT_EQ(probe.list.size(), 1000U);
    link.want(groups(900));
    for (int i = 0; i < 2; ++i) {
        EXPECT_THAT(probe.ask().remove, SizeIs(16)) << "the probe prints a million lines for each";
    }
    link.want({});
    std::size_t most = 0;
    for (int i = 0; i < 2000 && !probe.list.empty(); ++i) {
        most = std::max(most, probe.ask().remove.size());
        link.shown(probe.list, probe.now);
    }
    EXPECT_THAT(probe.list, IsEmpty());
    EXPECT_GT(most, 10U);
}
