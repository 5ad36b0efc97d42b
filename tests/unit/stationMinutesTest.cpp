// The minutes of channels on the disk: what a restart, another version, a damaged or a full file leave of
// them.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <fstream>
#include <future>
#include <memory>
#include <thread>

#include "measures/history.h"
#include "store/minuteStore.h"
#include "support/movedTime.h"
#include "support/scratch.h"

namespace {

using namespace std::chrono_literals;
using namespace station;
using past::MinuteRecord;

constexpr int64_t kBegin = 1'700'000'400;  // seconds; ten minutes begin

Group group(int number) {
    return *Group::parse("239.7.0." + std::to_string(number));
}

// Numbers that tell minutes apart.
MinuteRecord minuteAt(int64_t wall) {
    MinuteRecord minute{};
    minute.wall = static_cast<uint32_t>(wall);
    minute.known = 15;
    minute.worst = static_cast<uint8_t>(StripCell::kAlarm) & 3U;
    minute.badSeconds = static_cast<uint8_t>(wall / 60 % 60) & 63U;
    minute.sums.fill(static_cast<uint32_t>(wall % 1'000'000));
    for (auto& floats : minute.floats) {
        floats.fill(static_cast<float>(wall % 10'000));
    }
    for (auto& codes : minute.codes) {
        codes.fill(static_cast<uint16_t>(wall % 60'000));
    }
    return minute;
}

Minutes minutesFrom(int64_t wall, int count) {
    Minutes minutes;
    for (int i = 0; i < count; ++i) {
        minutes.push_back(minuteAt(wall + 60 * i));
    }
    return minutes;
}

bool same(const MinuteRecord& one, const MinuteRecord& other) {
    return one.wall == other.wall && one.known == other.known && one.worst == other.worst &&
           one.badSeconds == other.badSeconds && one.sums == other.sums && one.floats == other.floats &&
           one.codes == other.codes;
}

struct Disk {
    ScratchDirectory directory;
    std::atomic<int64_t> wall{kBegin};
    std::unique_ptr<MinuteStore> store;

    Now now() const {
        return {std::chrono::steady_clock::now(), WallTime(std::chrono::seconds(wall.load()))};
    }
    void start(MinuteStore::Limits limits = {30, 1000}) {
        store = std::make_unique<MinuteStore>(
            directory.path(), limits, [this] { return now(); }, [] {});
    }
    Minutes query(int number, int64_t since = 0) const {
        std::promise<std::pair<Minutes, std::string>> said;
        EXPECT_TRUE(store->query(group(number), WallTime(std::chrono::seconds(since)), now().wall + 1h,
                                 [&](Minutes&& minutes, const std::string& problem) {
                                     said.set_value({std::move(minutes), problem});
                                 }));
        auto answer = said.get_future().get();
        EXPECT_EQ(answer.second, "");
        return std::move(answer.first);
    }
    // What is restored, once it is so many minutes.
    std::vector<ChannelMinutes> restored(std::size_t wanted) const {
        std::vector<ChannelMinutes> all;
        std::size_t came = 0;
        EXPECT_TRUE(eventually([&] {
            for (ChannelMinutes& one : store->takeRestored()) {
                came += one.minutes.size();
                all.push_back(std::move(one));
            }
            return came >= wanted;
        }));
        return all;
    }
};

}  // namespace

TEST(StationMinutes, AreThereAfterARestartAsTheyWere) {
    Disk disk;
    disk.start();
    // A stop in the middle of ten minutes, and one that goes on with them.
    disk.store->take({{group(1), minutesFrom(kBegin, 14)}, {group(2), minutesFrom(kBegin + 60, 1)}});
    disk.wall += 14 * 60;
    disk.start();
    disk.store->take({{group(1), minutesFrom(kBegin + 14 * 60, 3)}});
    const Minutes wanted = minutesFrom(kBegin, 17);
    EXPECT_TRUE(std::ranges::equal(disk.query(1), wanted, same));  // what waits for the disk as well
    disk.wall += 3 * 60;
    disk.start();
    EXPECT_TRUE(std::ranges::equal(disk.query(1), wanted, same));
    EXPECT_TRUE(std::ranges::equal(disk.query(1, kBegin + 600), minutesFrom(kBegin + 600, 7), same));
    EXPECT_TRUE(disk.query(3).empty());

    disk.store->restore({group(1), group(3)}, WallTime(std::chrono::seconds(kBegin)));
    Minutes all;
    for (const ChannelMinutes& one : disk.restored(wanted.size())) {
        EXPECT_EQ(one.group, group(1));
        all.insert(all.end(), one.minutes.begin(), one.minutes.end());
    }
    EXPECT_TRUE(std::ranges::equal(all, wanted, same));
}

TEST(StationMinutes, OfAnotherVersionAreReadByTheNamesOfTheirMeasures) {
    // Its first sum and first level of 16 bits alone, the level behind one that is no more.
    const auto first = [](Keeping keeping) {
        return std::string(std::ranges::find_if(past::kKept, [&](const past::Kept& kept) {
                               return kept.measure->keeping == keeping && kept.measure->insteadOf.empty();
                           })->measure->name);
    };
    const std::string sum = first(Keeping::kSum);
    const std::string level = first(Keeping::kCompact);
    const auto layout = MinuteLayout::parse("gone:c " + sum + ":s " + level + ":c");
    ASSERT_TRUE(layout);
    ASSERT_EQ(layout->bytes(), 8U + 4 + 3 * 2 * 2);
    std::vector<std::byte> bytes(2 * layout->bytes() - 1);
    const auto put = [&bytes](std::size_t at, auto value) {
        std::memcpy(bytes.data() + at, &value, sizeof value);
    };
    put(0, uint32_t{1'700'000'460});
    put(4, uint16_t{15});
    put(6, uint8_t{0xFF});
    put(7, uint8_t{0xFF});
    put(8, uint32_t{77});
    for (std::size_t i = 0; i < 6; ++i) {
        put(12 + 2 * i, static_cast<uint16_t>(1000 + i));
    }
    Minutes read;
    layout->read(bytes, read);
    ASSERT_EQ(read.size(), 1U);  // the second one is cut
    EXPECT_EQ(read[0].wall, 1'700'000'460U);
    EXPECT_LE(read[0].badSeconds, 60);
    const auto points = [&](const std::string& name) { return pointsOf(read, historyMetric(name))[0]; };
    EXPECT_EQ(points(sum).mean, 77);
    EXPECT_EQ(points(level).minimum, past::CompactLevel::decode(1001));
    EXPECT_EQ(points(level).maximum, past::CompactLevel::decode(1005));
    EXPECT_TRUE(std::isnan(points(first(Keeping::kFloat)).mean));
    for (const char* const wrong : {"a", "a:", "a:x", ":", "a:cc", "a:c  b:c"}) {
        EXPECT_FALSE(MinuteLayout::parse(wrong)) << wrong;
    }
}

TEST(StationMinutes, LossesAreSummedWhereTheyCount) {
    Disk disk;
    disk.start();
    const auto at = [](int64_t second) { return WallTime(std::chrono::seconds(kBegin + second)); };
    const auto placeOf = [](const char* name) {
        return past::kKept.at(static_cast<std::size_t>(historyMetric(name))).place;
    };
    // Whole tens, which are on the disk, and some that wait.
    Minutes minutes = minutesFrom(kBegin, 25);
    for (std::size_t i = 0; i < minutes.size(); ++i) {
        minutes[i].sums.fill(0);
        minutes[i].sums[placeOf("packetsReceived")] = 900;
        minutes[i].sums[placeOf("packetsLost")] = i == 3 ? 100 : i == 20 ? 300 : 0;
    }
    disk.wall = kBegin + 25 * 60;
    disk.store->take({{group(1), minutes}, {group(2), minutes}, {group(3), minutes}});
    const auto losses = [&](std::map<Group, Spans> counted) {
        std::promise<std::pair<LossSums, std::string>> said;
        EXPECT_TRUE(disk.store->queryLosses({.time = {at(0), at(3600)}, .counted = std::move(counted)},
                                            [&](LossSums&& sums, const std::string& problem) {
                                                said.set_value({std::move(sums), problem});
                                            }));
        auto answer = said.get_future().get();
        EXPECT_EQ(answer.second, "");
        return std::move(answer.first);
    };
    const auto sums = losses({{group(1), Spans({{at(0), at(3600)}})},
                              // The second minute and the 21st are cut.
                              {group(2), Spans({{at(0), at(70)}, {at(180), at(1210)}})},
                              {group(4), Spans({{at(0), at(3600)}})}});
    ASSERT_EQ(sums.size(), 2U) << "of the third nobody asked, of the fourth nothing is known";
    const LossSum& all = sums.at(group(1));
    EXPECT_EQ(all.minutes, 25U);
    EXPECT_EQ(all.lost, 400U);
    EXPECT_DOUBLE_EQ(*all.meanPercent(), 100.0 * 400 / (400 + 25 * 900));
    EXPECT_DOUBLE_EQ(all.worstPercent, 25);
    EXPECT_EQ(all.worst, at(20 * 60));
    const LossSum& part = sums.at(group(2));
    EXPECT_EQ(part.minutes, 1U + 17U);
    EXPECT_EQ(part.lost, 100U);
    EXPECT_EQ(part.worst, at(3 * 60));
}

TEST(StationMinutes, DamagedAreSetAsideAndGoOn) {
    Disk disk;
    const auto file = disk.directory.path() / "history.db";
    std::ofstream(file) << std::string(8192, 'x');
    disk.start();
    disk.store->take({{group(1), minutesFrom(kBegin, 1)}});
    EXPECT_EQ(disk.query(1).size(), 1U);
    disk.store.reset();
    std::size_t aside = 0;
    for (const auto& entry : std::filesystem::directory_iterator(disk.directory.path())) {
        aside += entry.path().filename().string().starts_with("history.db.damaged-") ? 1 : 0;
    }
    EXPECT_EQ(aside, 1U);
    disk.start();
    EXPECT_EQ(disk.query(1).size(), 1U);
}

TEST(StationMinutes, AreBoundedByAgeAndSize) {
    Disk disk;
    disk.start({1, 10});
    // Some 20 MB: a day of 150 channels and one of before.
    for (int64_t row = 0; row < 288; ++row) {
        std::vector<ChannelMinutes> all;
        for (int number = 0; number < 100; ++number) {
            all.push_back({group(number), minutesFrom(kBegin + row * 600, 10)});
        }
        disk.store->take(std::move(all));
        disk.wall = kBegin + (row + 1) * 600;
        disk.query(1, disk.wall);  // has it written
    }
    for (int i = 0; i < 200 && disk.query(1).size() > 1440; ++i) {
    }
    const Minutes left = disk.query(1);
    ASSERT_FALSE(left.empty());
    EXPECT_GE(int64_t{left.front().wall}, disk.wall - 86'400 - 600);
    EXPECT_EQ(int64_t{left.back().wall}, disk.wall - 60);
    disk.store.reset();
    EXPECT_LT(std::filesystem::file_size(disk.directory.path() / "history.db"), 15'000'000U);
    // Nothing is kept where nothing is wanted.
    disk.start({0, 10});
    EXPECT_TRUE(disk.query(1).empty());
}

TEST(StationMinutes, WaitForADiskWithinTheirBound) {
    Disk disk;
    const auto blocked = disk.directory.path() / "history.db";
    std::filesystem::create_directory(blocked);
    disk.start();
    for (int64_t row = 0; row < 10; ++row) {
        disk.store->take({{group(1), minutesFrom(kBegin + row * 600, 10)}});
        std::this_thread::sleep_for(5ms);
    }
    std::string problem;
    EXPECT_TRUE(eventually([&] {
        problem = disk.store->statistics().problem;
        return !problem.empty() && disk.store->statistics().dropped >= 40;
    })) << problem;
    EXPECT_EQ(disk.store->statistics().dropped, (10 - MinuteStore::kWaiting) * 10);
}

TEST(StationMinutes, OfBeforeARestartAreInPointsAndStrips) {
    // Twenty minutes, of which the eleventh to thirteenth were without signal, then a restart.
    ChannelSample sample;
    sample.signal = true;
    sample.seconds = 1;
    Now now{SteadyTime(500s), WallTime(std::chrono::seconds(kBegin))};
    History before;
    for (int second = 0; second < 20 * 60 + 10; ++second, now += 1s) {
        sample.level(measureOf("bitRate")) = 1'000'000 + second / 60;
        before.add(sample, second / 60 >= 10 && second / 60 < 13 ? StripCell::kNoSignal : StripCell::kOk,
                   now);
    }
    Minutes stored;
    before.takeMinutes(stored, now);
    ASSERT_EQ(stored.size(), 20U);
    before.takeMinutes(stored, now);
    EXPECT_EQ(stored.size(), 20U);  // each once

    now += 5min;
    now.steady += 77s;  // the machine was started anew
    History after;
    after.add(sample, StripCell::kOk, now);
    after.restore(stored, now);
    after.restore(stored, now);  // twice is once
    const auto points = after.points(historyMetric("bitRate"), 60, {}, now);
    ASSERT_EQ(points.size(), 26U);
    EXPECT_EQ(points.front().time, WallTime(std::chrono::seconds(kBegin)));
    EXPECT_EQ(points[7].mean, 1'000'007);
    EXPECT_TRUE(std::isnan(points[22].mean));
    EXPECT_EQ(points.back().mean, 1'000'020);
    const auto day = after.day(now);
    const auto cell = [&day](std::size_t back) { return day[kDayCells - 1 - back]; };
    EXPECT_EQ(cell(3).worst, StripCell::kNoSignal);  // minutes 10 to 14
    EXPECT_EQ(cell(3).badSeconds, 180);
    EXPECT_EQ(cell(4).worst, StripCell::kOk);
    EXPECT_EQ(cell(4).badSeconds, 0);
    EXPECT_EQ(after.strip(now)[kStripCells - 4], StripCell::kNoSignal);
    Minutes again;
    after.takeMinutes(again, now);
    EXPECT_TRUE(again.empty());  // what came from the disk is not written again
}
