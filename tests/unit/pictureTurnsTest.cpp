// Whose turn it is, with time in hand: the meter answers after a while, a picture costs what it costs.
#include <gtest/gtest.h>

#include <deque>

#include "turns.h"

namespace pictured {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

std::vector<WantedChannel> channels(uint32_t count, uint32_t urgent = 0) {
    std::vector<WantedChannel> all;
    for (uint32_t i = 1; i <= count; ++i) {
        all.push_back({i, i <= urgent, false, true});
    }
    return all;
}

// Goes on in steps of 10 ms.
struct World {
    Turns turns;
    Time now{seconds(1000)};
    microseconds taken{};
    milliseconds latency{2500};
    microseconds cost{40'000};
    struct Open {
        Time due;
        uint64_t id;
    };
    std::deque<Open> open{};
    std::map<uint32_t, std::vector<Time>> began{};
    std::size_t mostOpen = 0;
    std::size_t meterTakes = picturing::kWantedLimit;

    void go(seconds time) {
        for (const Time end = now + time; now < end; now += milliseconds(10)) {
            while (!open.empty() && open.front().due <= now) {
                if (turns.open(open.front().id)) {
                    taken += cost;
                    turns.finished(open.front().id, now, cost);
                }
                open.pop_front();
            }
            while (const auto turn = turns.next(now, taken)) {
                if (open.size() >= meterTakes) {
                    turns.refused(turn->id, now);
                    continue;
                }
                began[turn->group].push_back(now);
                open.push_back({now + latency, turn->id});
                mostOpen = std::max(mostOpen, open.size());
            }
        }
    }
    // Of all channels from `first` to `last`, in seconds.
    double longestInterval(uint32_t first, uint32_t last) {
        double longest = 0;
        for (uint32_t group = first; group <= last; ++group) {
            const auto& times = began[group];
            for (std::size_t i = 1; i < times.size(); ++i) {
                longest = std::max(longest, std::chrono::duration<double>(times[i] - times[i - 1]).count());
            }
        }
        return longest;
    }
    double shortestInterval() {
        double shortest = 1e9;
        for (const auto& [group, times] : began) {
            for (std::size_t i = 1; i < times.size(); ++i) {
                shortest = std::min(shortest, std::chrono::duration<double>(times[i] - times[i - 1]).count());
            }
        }
        return shortest;
    }
    std::size_t turnsOf(uint32_t group) {
        return began[group].size();
    }
};

TEST(PictureTurns, KeepTheShareAndGoRound) {
    struct Case {
        uint32_t count;
        double cores;
        double interval;  // s
    };
    // 40 ms a picture.
    for (const Case& given :
         {Case{100, 0.5, 10}, Case{1000, 0.5, 80}, Case{4, 0.5, 10}, Case{300, 0.1, 120}}) {
        SCOPED_TRACE(given.count);
        World world;
        world.turns.setChannels(channels(given.count), given.cores);
        world.go(seconds(300));  // the cost is known by then, and turns are spread
        world.began.clear();
        const microseconds before = world.taken;
        world.go(seconds(300));
        EXPECT_LE(static_cast<double>((world.taken - before).count()) / 300e6, given.cores * 1.02);
        EXPECT_GE(world.shortestInterval(), 10);
        EXPECT_NEAR(world.longestInterval(1, given.count), given.interval, given.interval * 0.35);
        EXPECT_NEAR(*world.turns.intervalSeconds(), given.interval, given.interval * 0.1);
        EXPECT_LE(world.mostOpen, picturing::kWantedLimit);
    }
}

TEST(PictureTurns, AreSpreadButTheFirstComesAtOnce) {
    World world;
    world.turns.setChannels(channels(20), 4);
    world.go(seconds(1));
    for (uint32_t group = 1; group <= 20; ++group) {
        EXPECT_EQ(world.turnsOf(group), 1U) << group;
    }
    world.go(seconds(60));
    // Of 20 channels one each half a second.
    std::vector<Time> all;
    for (const auto& [group, times] : world.began) {
        all.insert(all.end(), times.begin() + 2, times.end());
    }
    std::sort(all.begin(), all.end());
    for (std::size_t i = 1; i < all.size(); ++i) {
        EXPECT_GE(all[i] - all[i - 1], milliseconds(490));
    }
}

TEST(PictureTurns, PreferThoseInNeedWithoutStarvingOthers) {
    World world;
    world.turns.setChannels(channels(1000, 20), 0.5);
    world.go(seconds(120));
    world.began.clear();
    world.go(seconds(200));
    EXPECT_LE(world.longestInterval(1, 20), 12);
    EXPECT_NEAR(*world.turns.intervalSeconds(), 93, 10);
    EXPECT_LE(world.longestInterval(21, 1000), 130);

    // All but one in alarm: that one goes round nevertheless.
    world.turns.setChannels(channels(1000, 999), 0.5);
    world.began.clear();
    world.go(seconds(100));
    EXPECT_GE(world.turnsOf(1000), 8U);
    // What is looked at from here on is next.
    std::vector<WantedChannel> looked = channels(1000);
    looked[499].lookedAt = true;
    world.turns.setChannels(looked, 0.5);
    world.began.clear();
    world.go(seconds(21));
    EXPECT_GE(world.turnsOf(500), 2U);
}

TEST(PictureTurns, AskForNoMoreThanTheMeterTakes) {
    World world;
    world.meterTakes = 4;
    world.turns.setChannels(channels(200), 4);
    world.go(seconds(200));
    // Four at a time of 2.5 s: 1.6 a second.
    EXPECT_EQ(world.mostOpen, 4U);
    EXPECT_GE(world.shortestInterval(), 1);
    std::size_t all = 0;
    for (const auto& [group, times] : world.began) {
        all += times.size();
    }
    EXPECT_GE(all, 200U);
    for (uint32_t group = 1; group <= 200; ++group) {
        EXPECT_GE(world.turnsOf(group), 1U) << group;
    }
}

TEST(PictureTurns, LeaveOutWhoKillsThreeWorkersWithinAnHour) {
    World world;
    world.turns.setChannels(channels(2), 1);
    const auto die = [&](uint32_t group) {
        for (;;) {
            world.now += milliseconds(100);
            const auto turn = world.turns.next(world.now, {});
            if (turn && turn->group == group) {
                world.turns.killed(turn->id, world.now, "its decoder crashed", seconds(0));
                return;
            }
            if (turn) {
                world.turns.finished(turn->id, world.now, {});
            }
        }
    };
    die(1);
    world.now += std::chrono::hours(2);
    die(1);
    die(1);
    EXPECT_TRUE(world.turns.leftOut(world.now).empty()) << "the first is more than an hour ago";
    die(1);
    const auto leftOut = world.turns.leftOut(world.now);
    ASSERT_EQ(leftOut.size(), 1U);
    EXPECT_EQ(leftOut[0].group, 1U);
    EXPECT_EQ(leftOut[0].why, "its decoder crashed");
    EXPECT_EQ(leftOut[0].until - world.now, std::chrono::hours(1));
    world.go(seconds(3590));
    EXPECT_EQ(world.turnsOf(1), 0U);
    EXPECT_GT(world.turnsOf(2), 300U);
    world.go(seconds(30));
    EXPECT_GE(world.turnsOf(1), 1U);
    EXPECT_TRUE(world.turns.leftOut(world.now).empty());
}

TEST(PictureTurns, ForgetWhoIsNotListed) {
    World world;
    world.turns.setChannels(channels(3), 1);
    const auto turn = world.turns.next(world.now, {});
    ASSERT_TRUE(turn);
    world.turns.setChannels({{2}, {3}, {3}}, 1);
    EXPECT_EQ(world.turns.channels(), 2U);
    EXPECT_EQ(world.turns.openTurns(), 0U);
    EXPECT_FALSE(world.turns.open(turn->id));
    world.turns.finished(turn->id, world.now, {});  // comes late
    world.go(seconds(60));
    EXPECT_EQ(world.turnsOf(1), 0U);
    // Nothing waits for ever: what a share of nothing left open ends, and nothing begins.
    world.turns.setChannels(channels(3), 0);
    world.began.clear();
    world.go(seconds(60));
    EXPECT_TRUE(world.began.empty());
    EXPECT_FALSE(world.turns.intervalSeconds());
    // More than there may be.
    world.turns.setChannels(channels(picturing::kChannelsLimit + 5), 1);
    EXPECT_EQ(world.turns.channels(), picturing::kChannelsLimit);
}

}  // namespace
}  // namespace pictured
