// What this machine does to the meter's figures: whether one is there, and what was lost before it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cueFold.h"
#include "meter/meterBook.h"
#include "meter/ownLoss.h"
#include "meterWatch.h"
#include "support/movedTime.h"

using namespace std::chrono_literals;
using namespace station;

namespace {

TEST(StationMeterWatch, TellsAMeterThatWentFromOneThatNeverCame) {
    MeterWatch watch;
    SteadyTime now(1000s);
    MeterState state;
    state.configured = true;
    state.groups = 1;
    EXPECT_EQ(watch.judge(state, now).silent, std::nullopt) << "nobody installed one";
    EXPECT_EQ(watch.judge(state, now += 1h).silent, std::nullopt);
    EXPECT_TRUE(watch.hopeless(now));
    EXPECT_FALSE(watch.fresh(now, now));
    state.connected = true;
    state.connections = 1;
    state.seconds = 5;
    MeterFindings found = watch.judge(state, now);
    EXPECT_EQ(found.silent, false);
    ASSERT_TRUE(found.lost);
    EXPECT_EQ(found.lost->count, 0U);
    EXPECT_TRUE(watch.fresh(now, now));
    EXPECT_FALSE(watch.fresh(now - 4s, now));
    EXPECT_FALSE(watch.hopeless(now + 1h));
    state.captureProblem = "eth0 is down";
    found = watch.judge(state, now += 1s);
    EXPECT_EQ(found.silent, true);
    EXPECT_EQ(found.since, now);
    EXPECT_THAT(found.why, testing::HasSubstr("eth0 is down"));
    state.captureProblem.clear();
    state.silent = true;
    now += 1s;
    EXPECT_EQ(watch.judge(state, now).since, now - 1s) << "for another reason now, since the same time";
    state.silent = state.connected = false;
    found = watch.judge(state, now += 1s);
    EXPECT_THAT(found.why, testing::HasSubstr("systemctl status kestor-meter"));
    EXPECT_FALSE(found.lost) << "nobody tells";
    state.connected = true;
    EXPECT_EQ(watch.judge(state, now += 1s).silent, false);

    MeterWatch expecting;
    expecting.expect();
    state = {};
    state.configured = true;
    EXPECT_EQ(expecting.judge(state, now).silent, std::nullopt) << "it may just be starting";
    found = expecting.judge(state, now += MeterWatch::kFirstMeter);
    EXPECT_EQ(found.silent, true);
    EXPECT_THAT(found.why, testing::HasSubstr("has not come"));
    EXPECT_FALSE(expecting.hopeless(now));
    EXPECT_TRUE(expecting.hopeless(now + MeterWatch::kLastHope));
}

TEST(StationMeterWatch, CountsWhatThisMachineLostHoweverItDid) {
    MeterWatch watch;
    SteadyTime now(1000s);
    MeterState state;
    state.configured = state.connected = true;
    watch.judge(state, now);
    state.lost = {.kernel = 20, .card = 3, .cut = 1, .suspendedMs = 4100};
    const MeterFindings found = watch.judge(state, now += 1s);
    ASSERT_TRUE(found.lost);
    EXPECT_EQ(found.lost->count, 29U);
    EXPECT_EQ(found.lost->seconds, 5U);
    const std::string text = watch.lostIn(60s, now += 5s);
    for (const char* part : {"20 by the kernel", "3 by the card", "1 that the kernel", "5 seconds"}) {
        EXPECT_THAT(text, testing::HasSubstr(part));
    }
    EXPECT_EQ(watch.lostIn(3s, now), "");
}

// A part of a second of one thread.
struct Told {
    uint64_t number;
    uint64_t frames;
    uint64_t drops;
    bool disturbed = false;
    uint64_t suspendedMs = 0;
    const char* problem = "";
    uint32_t part = 0;
};

TEST(StationOwnLoss, IsWhatWasDroppedOfLateOrUnknown) {
    constexpr uint64_t kUnknown = OwnLoss::kUnknown;
    struct Case {
        const char* name;
        std::vector<Told> told;
        uint64_t frames;
        bool much;
    };
    const std::vector<Case> cases = {
        {"what was before the connection is nobody's", {{7, 90'000, 500}, {8, 91'000, 500}}, 0, false},
        {"a few", {{7, 90'000, 500}, {8, 91'000, 503, true}}, 3, false},
        {"in this second and the two before",
         {{7, 0, 0}, {8, 1000, 3, true}, {9, 2000, 5, true}, {10, 3000, 5, true}},
         5,
         false},
        {"no longer", {{7, 0, 0}, {8, 1000, 3, true}, {11, 4000, 3}}, 0, false},
        {"many", {{7, 0, 0}, {8, 1000, 30, true}}, 30, true},
        {"further parts say the same",
         {{7, 0, 0}, {8, 1000, 3, true}, {8, 1000, 3, true, 0, "", 1}},
         3,
         false},
        {"nothing was captured",
         {{7, 0, 0}, {8, 0, 0, true, 0, "no eth0"}, {9, 10, 1, true}},
         kUnknown,
         true},
        {"it slept", {{7, 0, 0}, {8, 1000, 3, true, 4000}}, kUnknown, true},
        {"for another reason", {{7, 0, 0}, {8, 1000, 0, true}}, kUnknown, true},
        {"of seconds that were not told", {{7, 0, 0}, {10, 1000, 3, true}}, kUnknown, true},
        {"another count", {{7, 1000, 800}, {8, 2000, 20}}, 0, false},
    };
    for (const Case& one : cases) {
        OwnLossWatch watch;
        OwnLoss loss;
        for (const Told& told : one.told) {
            metering::Second second;
            second.set_number(told.number);
            second.set_part(told.part);
            metering::Capture& capture = *second.mutable_capture();
            capture.set_frames(told.frames);
            capture.set_kernel_drops(told.drops);
            capture.set_disturbed(told.disturbed);
            capture.set_suspended_ms(told.suspendedMs);
            capture.set_problem(told.problem);
            loss = watch.second(second);
        }
        EXPECT_EQ(loss.frames, one.frames) << one.name;
        EXPECT_EQ(loss.much, one.much) << one.name;
    }
}

// A second of a thread of two.
metering::Second secondOf(uint32_t thread, uint64_t kernelDrops, uint64_t cardDrops) {
    metering::Second second;
    second.set_thread(thread);
    second.set_threads(2);
    second.set_last(true);
    second.mutable_capture()->set_kernel_drops(kernelDrops);
    second.mutable_capture()->set_card_drops(cardDrops);
    return second;
}

TEST(StationMeterBook, CountsLossesOfEachThreadFromItsFirstSecondInAConnectionOn) {
    MeterBook book;
    const Now now = systemNow();
    const auto lost = [&] {
        const LossCounts counts = book.state(now.steady).lost;
        return std::pair(counts.kernel, counts.card);
    };
    book.connected("1.2.3", now);
    EXPECT_TRUE(book.second(secondOf(0, 100, 50), 0, now));
    EXPECT_TRUE(book.second(secondOf(1, 5000, 50), 0, now));
    EXPECT_EQ(lost(), std::pair(uint64_t{0}, uint64_t{0})) << "from before it was known";
    EXPECT_TRUE(book.second(secondOf(0, 103, 57), 0, now));
    EXPECT_TRUE(book.second(secondOf(1, 5020, 57), 0, now));
    EXPECT_EQ(lost(), std::pair(uint64_t{23}, uint64_t{7})) << "one card";
    book.disconnected(now);
    book.connected("1.2.3", now);
    EXPECT_TRUE(book.second(secondOf(0, 900, 90), 0, now));
    EXPECT_TRUE(book.second(secondOf(1, 9000, 90), 0, now));
    EXPECT_EQ(lost(), std::pair(uint64_t{23}, uint64_t{7})) << "what came while nobody listened";
}

TEST(StationCueFold, TellsManyCuesAsOne) {
    CueFold fold;
    Now now{SteadyTime(1000s), WallTime(1'700'000'000s)};
    const Group group = *Group::parse("239.1.1.1");
    // As many as breaks have are told one by one, for however long.
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(fold.take(group, "out", now), "out");
        EXPECT_EQ(fold.take(group, "back", now), "back");
        now += 2min;
    }
    now += 1h;
    EXPECT_THAT(fold.due(now), testing::IsEmpty());
    int told = 0;
    for (int i = 0; i < 10 * 3600; ++i) {  // ten a second
        told += fold.take(group, "cue " + std::to_string(i), now) ? 1 : 0;
        if (i % 10 == 9) {
            now += 1s;
            told += static_cast<int>(fold.due(now).size());
        }
    }
    EXPECT_GE(told, CueFold::kBurst + 59);
    EXPECT_LE(told, CueFold::kBurst + 61);
    EXPECT_EQ(fold.take(*Group::parse("239.1.1.2"), "another channel's", now), "another channel's");
    EXPECT_FALSE(fold.take(group, "one", now));
    EXPECT_FALSE(fold.take(group, "and another", now));
    now += 60s;
    const auto late = fold.due(now);
    ASSERT_EQ(late.size(), 1U);
    EXPECT_EQ(late[0].first, group);
    EXPECT_THAT(late[0].second, testing::MatchesRegex("[0-9]+ cues since 2023-.*Z, the last: and another"));
    EXPECT_THAT(fold.due(now), testing::IsEmpty());
}

}  // namespace
