// Stream time, program clocks and loss, against streams whose truth is known by construction.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <random>

#include "clocks/accuracyBlock.h"
#include "clocks/clockOffset.h"
#include "clocks/recentRates.h"
#include "clocks/streamTime.h"
#include "support/meterStream.h"

namespace {

using meter::kTicksPerMs;
using meter::kTicksPerSecond;
using meter::Ticks;
using psi::TsPacket;
using test::checkOf;
using test::MeterStream;

// A clock with a PCR each 10 packets, each a millisecond long.
class MeterStreamTime : public testing::Test {
  protected:
    static constexpr Ticks kBase = 1'000'000'000;

    // The next packets up to one with a PCR; returns that one's stream time.
    Ticks pcr(Ticks value, uint64_t packets = 10, uint16_t pid = 1, bool discontinuity = false) {
        for (uint64_t i = 0; i < packets; ++i) {
            time_.packet();
        }
        position_ += packets;
        meter::ClockTrack& track = pid == 1 ? one_ : two_;
        track.discontinuity = discontinuity;
        return time_.pcr(pid, track, value, position_);
    }

    meter::StreamTime time_;
    meter::ClockTrack one_;
    meter::ClockTrack two_;
    uint64_t position_ = 0;
};

TEST_F(MeterStreamTime, FollowsTheClockAcrossItsWrap) {
    Ticks value = meter::kPcrModulus - 15 * kTicksPerMs;
    const Ticks begin = pcr(value);
    for (int i = 1; i <= 10; ++i) {
        value = (value + 10 * kTicksPerMs) % meter::kPcrModulus;
        EXPECT_EQ(pcr(value), begin + i * 10 * kTicksPerMs);
    }
    time_.packet();
    EXPECT_EQ(time_.now(), begin + 101 * kTicksPerMs);
}

TEST_F(MeterStreamTime, GoesOnAtThePaceAcrossStepsAndLosses) {
    const Ticks begin = pcr(kBase);
    for (int i = 1; i <= 5; ++i) {
        pcr(kBase + i * 10 * kTicksPerMs);
    }
    EXPECT_EQ(pcr(5), begin + 60 * kTicksPerMs) << "back";
    EXPECT_EQ(pcr(5 + 10 * kTicksPerMs), begin + 70 * kTicksPerMs);
    EXPECT_EQ(pcr(5 + 2 * kTicksPerSecond), begin + 80 * kTicksPerMs) << "too far ahead";
    EXPECT_EQ(pcr(5 + 2 * kTicksPerSecond + 50 * kTicksPerMs, 10, 1, true), begin + 90 * kTicksPerMs)
        << "signalled";
    EXPECT_EQ(pcr(5 + 3 * kTicksPerSecond + 50 * kTicksPerMs, 10), begin + 90 * kTicksPerMs + kTicksPerSecond)
        << "within a second";
    time_.skip(5);
    EXPECT_EQ(time_.now(), begin + 95 * kTicksPerMs + kTicksPerSecond);
}

TEST_F(MeterStreamTime, NeverRunsBackwardsAndKeepsTheClocksOwn) {
    const Ticks begin = pcr(kBase);
    pcr(kBase + 10 * kTicksPerMs);
    // Thirty packets that the clock says were made in 10 ms.
    EXPECT_EQ(pcr(kBase + 20 * kTicksPerMs, 30), begin + 40 * kTicksPerMs);
    EXPECT_EQ(one_.time, begin + 20 * kTicksPerMs);
    EXPECT_EQ(pcr(kBase + 30 * kTicksPerMs, 1), begin + 40 * kTicksPerMs);
    EXPECT_EQ(pcr(kBase + 60 * kTicksPerMs, 10), begin + 60 * kTicksPerMs);
}

TEST_F(MeterStreamTime, TakesAnotherReferenceAfterFiftyOfItsClocks) {
    pcr(kBase);
    pcr(kBase + 10 * kTicksPerMs);
    EXPECT_EQ(time_.reference(), 1);
    for (int i = 0; i < 49; ++i) {
        pcr(i * 10 * kTicksPerMs, 10, 2);
    }
    EXPECT_EQ(time_.reference(), 1);
    const Ticks before = time_.now();
    EXPECT_EQ(pcr(490 * kTicksPerMs, 10, 2), before + 10 * kTicksPerMs);
    EXPECT_EQ(time_.reference(), 2);
    EXPECT_EQ(pcr(500 * kTicksPerMs, 10, 2), before + 20 * kTicksPerMs);
}

TEST(MeterStreamTimeAlone, RunsWithArrivalBeforeThereIsAPace) {
    meter::StreamTime time;
    for (int i = 0; i < 1000; ++i) {
        time.arrived(1'000'001);
        time.packet();
    }
    EXPECT_EQ(time.now(), meter::toTicks(1'000'001'000));
}

TEST(MeterRates, AreNoMoreThanTheirLimit) {
    meter::RecentRates rates;
    for (uint32_t i = 0; i < 5000; ++i) {
        rates.add({1'000'000 + i, 1000}, 30 * kTicksPerSecond + i);
    }
    EXPECT_EQ(rates.packets(), meter::RecentRates::kLimit * 1000);
    EXPECT_EQ(rates.median().ticks, 1'000'000 + 5000 - meter::RecentRates::kLimit / 2 - 1);
}

// Against the definition itself, with rates that are equal as they are, or once they are reduced.
TEST(MeterRates, AreTheSortedOnesOfTenSeconds) {
    struct Known {
        meter::Pace pace;
        Ticks time;
    };
    const auto rate = [](const Known& known) {
        return (uint64_t{known.pace.packets} << 32) / known.pace.ticks;
    };
    std::mt19937 random(1);
    for (const uint32_t spread : {1U, 3U, 400U, 2400U}) {
        meter::RecentRates rates;
        std::deque<Known> all;
        Ticks now = 0;
        for (int i = 0; i < 3000; ++i) {
            const bool pause = random() % 1000 == 0;  // longer than 16 bits of milliseconds
            now += static_cast<Ticks>(pause ? 70'000 : random() % 60) * kTicksPerMs;
            const auto factor = static_cast<uint32_t>(random() % 2 + 1);
            const auto ticks = static_cast<uint32_t>(100'000 + random() % spread);
            const Known known{{ticks * factor, 100 * factor}, now};
            rates.add(known.pace, now);
            all.push_back(known);
            while (now - all.front().time > meter::RecentRates::kSpan) {
                all.pop_front();
            }
            std::vector<uint64_t> sorted(all.size());
            std::ranges::transform(all, sorted.begin(), rate);
            std::ranges::sort(sorted);
            const std::size_t count = sorted.size();
            const uint64_t median = sorted[count / 2];
            ASSERT_EQ(rate({rates.median(), 0}), median);
            ASSERT_EQ(rates.constant(),
                      count >= 8 && sorted[count * 95 / 100] - sorted[count * 5 / 100] < median / 100)
                << spread << ' ' << count;
        }
    }
}

TEST(MeterAccuracy, MeasuresBlocksOfASecondFromTheLine) {
    meter::AccuracyBlock block;
    for (int i = 0; !block.full(); ++i) {
        block.add(static_cast<uint64_t>(i) * 100, i * 100 * 27'000 + (i == 5 ? 27 * 2 : 0), i);
    }
    const meter::AccuracyFinding finding = block.close(true);
    EXPECT_EQ(finding.measured, 11);
    EXPECT_THAT(finding.beyond, testing::ElementsAre(5));
    EXPECT_NEAR(finding.worstNs, 2000.0 * 10 / 11, 1);
    block.add(0, 0, 0);
    EXPECT_EQ(block.close(true).measured, 0) << "fewer than eight";
    for (int i = 0; i < 8; ++i) {
        block.add(static_cast<uint64_t>(i) * 100, i * 27'000, i);
    }
    EXPECT_FALSE(block.full()) << "less than a second";
    EXPECT_EQ(block.close(true).measured, 8);
}

TEST(MeterOffset, IsThatOfTheClockWhateverTheNetworkAdds) {
    meter::ClockOffset offset;
    int64_t second = 0;
    for (int64_t i = 0; i < 25 * 60; ++i) {
        const int64_t time = i * 40 * kTicksPerMs;
        // The clock is 50 ppm fast; up to 20 ms of delay, and none in each second's first datagram.
        const int64_t sent = meter::toNanoseconds(time) - meter::toNanoseconds(time) / 20'000;
        const int64_t arrival = sent + i % 25 * 800'000;
        while (arrival / meter::kNsPerSecond > second) {
            offset.secondEnded(second++);
        }
        offset.pcr(arrival, time);
        if (second < 30) {
            EXPECT_FALSE(offset.ppm().has_value());
        }
    }
    EXPECT_NEAR(offset.ppm().value(), 50, 0.5);
    EXPECT_NEAR(offset.jitterNs().value(), 24 * 800'000, 60'000);
}

TEST(MeterOffset, IsNoneOfAClockThatRunsYearsAhead) {
    meter::ClockOffset offset;
    for (int64_t i = 0; i < 100; ++i) {
        offset.pcr(i * meter::kNsPerSecond, INT64_MAX / 200 * (2 * i));
        offset.secondEnded(i);
    }
    EXPECT_FALSE(offset.ppm().has_value());
    EXPECT_FALSE(offset.jitterNs().has_value());
}

std::vector<TsPacket> secondsOf(double seconds) {
    return MeterStream({.seconds = seconds}).packets();
}

void lose(std::vector<TsPacket>& packets, std::size_t at, int count) {
    const auto from = packets.begin() + static_cast<std::ptrdiff_t>(at);
    packets.erase(from, from + count);
}

TEST(MeterLoss, CountsWholeBurstsByTheClock) {
    std::vector<TsPacket> packets = secondsOf(10);
    for (const std::size_t at : {9000U, 6000U, 3000U}) {
        lose(packets, at, 70);
    }
    const meter::LossReport lost = test::measureFile(packets).packets.lost;
    EXPECT_EQ(lost.packets, 210);
    EXPECT_EQ(lost.basis, "clock");
    EXPECT_EQ(lost.events, 3);
    EXPECT_EQ(lost.longest, 70);
    EXPECT_NEAR(lost.longestMs.value(), 70 * MeterStream::kPacketMs, 0.1);
    EXPECT_LT(lost.byCounter, 210);
}

TEST(MeterLoss, OfMoreThanAHundredMillisecondsIsCountedByTheClockToo) {
    std::vector<TsPacket> packets = secondsOf(10);
    lose(packets, 5000, 300);
    const meter::Report report = test::measureFile(packets);
    EXPECT_EQ(report.packets.lost.packets, 300);
    EXPECT_EQ(checkOf(report, "2.3.b").count, 1);
}

TEST(MeterLoss, OfPacketsSentTwiceIsNone) {
    std::vector<TsPacket> packets = secondsOf(5);
    uint64_t twice = 0;
    for (std::size_t i = 1000; i + 1 < packets.size(); ++i) {
        if (MeterStream::pidOf(packets[i]) == test::kVideoPid &&
            MeterStream::pidOf(packets[i + 1]) == 0x1FFF) {
            packets[i + 1] = packets[i];
            ++twice;
            ++i;
        }
    }
    const meter::Report report = test::measureFile(packets);
    EXPECT_EQ(report.packets.repeated, twice);
    EXPECT_EQ(report.packets.lost.packets, 0);
    EXPECT_EQ(checkOf(report, "1.4").count, 0);
}

TEST(MeterFile, WithABitrateNeedsNoClocks) {
    meter::Settings settings;
    settings.bitrate = 4'000'000;
    const meter::Report report =
        test::measureFile(std::vector<TsPacket>(10'000, MeterStream::null()), settings);
    EXPECT_NEAR(report.seconds, 10'000 * 1504 / 4e6, 1e-6);
    EXPECT_EQ(checkOf(report, "1.3.a").count, 1);
    EXPECT_EQ(report.bitrate.bps, 4'000'000 / 1504 * 1504);
}

TEST(MeterClocks, OneThatEndedSpeaksNoMore) {
    constexpr uint16_t kOtherPid = 0x105;
    const auto move = [](double ms, TsPacket& packet) {
        if (ms >= 20'000 && MeterStream::pidOf(packet) == test::kVideoPid) {
            packet[2] = psi::low8(kOtherPid);
        }
    };
    std::vector<TsPacket> packets = MeterStream({.seconds = 38, .plant = move}).packets();
    lose(packets, MeterStream::at(33'000), 20);
    const meter::Report report = test::measureFile(packets);
    ASSERT_EQ(report.clocks.size(), 2);
    EXPECT_EQ(report.packets.lost.byClock, 20);
}

}  // namespace
