// Which datagrams are the channel's, RTP put in order, and what the network did to them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

#include "network/interArrival.h"
#include "support/meterStream.h"

namespace {

using psi::Bytes;
using psi::TsPacket;
using test::datagram;
using test::MeterStream;

constexpr int64_t kDatagramNs = 7 * MeterStream::kPacketTicks * 1000 / 27;  // 5.264 ms

struct Sent {
    int64_t arrival;
    Bytes payload;
    uint16_t sequence;
};

// The stream as datagrams of seven packets, one each kDatagramNs.
std::vector<Sent> datagrams(double seconds, bool asRtp,
                            const std::function<void(double, TsPacket&)>& plant = nullptr) {
    const auto packets = MeterStream({.seconds = seconds, .plant = plant}).packets();
    std::vector<Sent> all;
    for (std::size_t i = 0; i + 7 <= packets.size(); i += 7) {
        const auto number = static_cast<int64_t>(i / 7);
        const auto sequence = static_cast<uint16_t>(65'500 + number);  // which wraps
        const auto timestamp = static_cast<uint32_t>(number * 7 * MeterStream::kPacketTicks / 300);
        const Bytes payload = test::joined(packets, i, 7);
        all.push_back(
            {number * kDatagramNs, asRtp ? test::rtp(sequence, timestamp, payload) : payload, sequence});
    }
    return all;
}

meter::Report measure(const std::vector<Sent>& sent, meter::Settings settings = {}) {
    meter::ChannelAnalyser analyser(settings);
    for (const Sent& one : sent) {
        analyser.feed(datagram(one.arrival, one.payload));
    }
    analyser.finish();
    return analyser.report();
}

uint64_t faults(const meter::Report& report) {
    uint64_t count = 0;
    for (const meter::CheckReport& check : report.checks) {
        count += check.count;
    }
    return count;
}

// The contents change places, the arrivals stay.
void swapAt(std::vector<Sent>& sent, std::size_t at) {
    std::swap(sent[at].payload, sent[at + 1].payload);
}

TEST(MeterRtp, SwappedPairsAreNoLoss) {
    std::vector<Sent> sent = datagrams(6, true);
    for (std::size_t i = 0; i < 25; ++i) {
        swapAt(sent, 10 + 20 * i);
    }
    const meter::Report report = measure(sent);
    EXPECT_EQ(faults(report), 0);
    EXPECT_EQ(report.packets.lost.packets, 0);
    EXPECT_EQ(report.packets.lost.basis, "rtp");
    const meter::RtpReport rtp = report.network->rtp.value();
    EXPECT_EQ(rtp.outOfOrder, 25);
    EXPECT_EQ(rtp.lost, 0);
    EXPECT_EQ(rtp.received, sent.size());
    EXPECT_EQ(report.network->lossRateHighest, 10 * 7)
        << "20 datagrams are 105 ms, a second has 10 pairs at most";
}

TEST(MeterRtp, MissingDatagramsAreGivenUpAfterSixteen) {
    std::vector<Sent> sent = datagrams(6, true);
    const uint64_t all = sent.size();
    sent.erase(sent.begin() + 500, sent.begin() + 530);
    sent.erase(sent.begin() + 100);
    const meter::Report report = measure(sent);
    EXPECT_EQ(report.packets.lost.byRtp, 31 * 7);
    EXPECT_EQ(report.packets.lost.packets, 31 * 7);
    EXPECT_EQ(report.packets.lost.events, 2);
    EXPECT_EQ(report.packets.lost.longest, 30 * 7);
    EXPECT_NEAR(report.packets.lost.longestMs.value(), 30 * 5.264, 0.1);
    EXPECT_EQ(report.packets.lost.byClock, 0) << "positions know what is missing";
    EXPECT_EQ(report.network->rtp->lost, 31);
    EXPECT_EQ(report.network->rtp->longestBurst, 30);
    EXPECT_EQ(report.packets.received, (all - 31) * 7);
    EXPECT_EQ(report.packets.lost.longestLately, 0) << "that was three seconds ago";
    sent.resize(600 - 31);  // until half a second behind it
    EXPECT_EQ(measure(sent).packets.lost.longestLately, 30 * 7);
}

TEST(MeterRtp, WhatComesTooLateIsReceivedAndMissing) {
    std::vector<Sent> sent = datagrams(3, true);
    const Bytes late = sent[100].payload;
    sent.erase(sent.begin() + 100);
    sent.insert(sent.begin() + 130, {sent[130].arrival, late, 0});
    const meter::Report report = measure(sent);
    EXPECT_EQ(report.packets.lost.packets, 7);
    EXPECT_EQ(report.network->rtp->lost, 0);
    EXPECT_EQ(report.network->rtp->outOfOrder, 1);
}

TEST(MeterRtp, IsWaitedForUntilSixteenLaterOnesAreHeld) {
    for (const int later : {15, 16}) {
        std::vector<Sent> sent = datagrams(3, true);
        const Bytes late = sent[100].payload;
        sent.erase(sent.begin() + 100);
        sent.insert(sent.begin() + 100 + later, {sent[99 + later].arrival, late, 0});
        EXPECT_EQ(measure(sent).packets.lost.packets, later < 16 ? 0 : 7) << later;
    }
}

TEST(MeterRtp, RepeatedOnesAreLeftOut) {
    std::vector<Sent> sent = datagrams(3, true);
    for (std::size_t i = 0; i < 20; ++i) {
        sent.insert(sent.begin() + static_cast<std::ptrdiff_t>(100 + 3 * i), sent[99 + 3 * i]);
    }
    const meter::Report report = measure(sent);
    EXPECT_EQ(faults(report), 0);
    EXPECT_EQ(report.network->rtp->repeated, 20);
    EXPECT_EQ(report.network->rtp->lost, 0);
    EXPECT_EQ(report.packets.repeated, 0);
}

void setHeader(Sent& sent, uint16_t sequence, uint32_t timestamp, uint32_t ssrc = 7) {
    const Bytes header = test::rtp(sequence, timestamp, {}, ssrc);
    std::ranges::copy(header, sent.payload.begin());
}

TEST(MeterRtp, AnotherSourceBeginsTheSequenceAnew) {
    std::vector<Sent> sent = datagrams(3, true);
    for (std::size_t i = 200; i < sent.size(); ++i) {
        setHeader(sent[i], static_cast<uint16_t>(i + 30'000), static_cast<uint32_t>(i), 8);
    }
    const meter::Report report = measure(sent);
    EXPECT_EQ(report.network->rtp->ssrcChanges, 1);
    EXPECT_EQ(report.packets.lost.byRtp, 0);
    EXPECT_EQ(faults(report), 0);
}

// Datagrams for 4 s, and 2 s more after a pause, whose sequence numbers are so many further.
struct Jump {
    const char* what;
    int64_t further;
    double pauseSeconds;
    enum { kGoOn, kOthers, kNone } timestamps;
    int64_t lost;
};

meter::Report measureJump(const Jump& jump) {
    std::vector<Sent> sent = datagrams(6, true);
    const auto pause = static_cast<int64_t>(jump.pauseSeconds * 1e9);
    for (std::size_t i = 0; i < sent.size(); ++i) {
        const bool behind = i >= 760;
        sent[i].arrival += behind ? pause : 0;
        auto timestamp = static_cast<uint32_t>(sent[i].arrival / 100'000 * 9);
        timestamp += behind && jump.timestamps == Jump::kOthers ? 0x2000'0000U : 0;
        setHeader(sent[i], static_cast<uint16_t>(sent[i].sequence + (behind ? jump.further : 0)),
                  jump.timestamps == Jump::kNone ? 0 : timestamp);
    }
    return measure(sent);
}

TEST(MeterRtp, AJumpIsLossWhereItsTimeCanHaveHeldItAndElseASenderThatBeganAnew) {
    // 190 datagrams a second: a minute holds 11,398 of them, six hold 68,389, which is more than a cycle.
    const Jump jumps[] = {
        {"a jump of 3000 at once, as far as RFC 3550 takes it", 2999, 0, Jump::kGoOn, 2999},
        {"one more in no time", 3000, 0, Jump::kGoOn, 0},
        {"far ahead", 20'000, 0, Jump::kGoOn, 0},
        {"far behind", -20'000, 0, Jump::kGoOn, 0},
        {"behind by more than is out of order", -102, 0, Jump::kGoOn, 0},
        {"a sender that was away for 5 s", 30'000, 5, Jump::kGoOn, 0},
        {"a sender that stood still for a minute", 0, 60, Jump::kGoOn, 0},
        {"a cable cut for a minute", 11'398, 60, Jump::kGoOn, 11'398},
        {"a cable cut for a minute, time stamps that tell nothing", 11'398, 60, Jump::kNone, 11'398},
        {"more than half a cycle", 47'492, 250, Jump::kGoOn, 47'492},
        {"more than a cycle", 68'389, 360, Jump::kGoOn, 68'389},
        {"another run of the sender after a minute", 11'398, 60, Jump::kOthers, 0},
        {"more than a minute holds", 50'000, 60, Jump::kGoOn, 0},
    };
    for (const Jump& jump : jumps) {
        SCOPED_TRACE(jump.what);
        const meter::Report report = measureJump(jump);
        const meter::RtpReport& rtp = *report.network->rtp;
        EXPECT_EQ(rtp.lost, jump.lost);
        EXPECT_EQ(rtp.longestBurst, jump.lost);
        EXPECT_EQ(rtp.lossEvents, jump.lost > 0 ? 1 : 0);
        EXPECT_EQ(rtp.received, report.flow->datagrams);
        EXPECT_EQ(rtp.outOfOrder, 0);
        EXPECT_EQ(report.packets.received, 7 * report.flow->datagrams);
        EXPECT_EQ(report.packets.lost.packets, 7 * jump.lost);
        EXPECT_EQ(report.packets.lost.byCounter, 0) << "the packets themselves go on";
    }
}

TEST(MeterRtp, ANumberThatNobodyFollowsIsLeftOut) {
    std::vector<Sent> sent = datagrams(3, true);
    for (const std::size_t at : {100U, 102U, 300U}) {
        setHeader(sent[at], static_cast<uint16_t>(sent[at].sequence + 20'000), 0);
    }
    const meter::Report report = measure(sent);
    EXPECT_EQ(report.network->rtp->lost, 3);
    EXPECT_EQ(report.packets.lost.packets, 3 * 7);
    EXPECT_EQ(report.packets.received, 7 * (sent.size() - 3));
}

TEST(MeterRtp, JitterIsThatOfRfc3550AndStepsAreNone) {
    std::vector<Sent> sent = datagrams(10, true);
    for (std::size_t i = 0; i < sent.size(); ++i) {
        sent[i].arrival += i % 2 == 0 ? 0 : 1'000'000;
    }
    EXPECT_NEAR(measure(sent).network->rtp->jitterMs.value(), 1, 0.01);
    for (std::size_t i = 900; i < sent.size(); ++i) {
        sent[i].payload[4] += 1;  // 186 s
    }
    const meter::Report stepped = measure(sent);
    EXPECT_EQ(stepped.network->rtp->timestampSteps, 1);
    EXPECT_NEAR(stepped.network->rtp->jitterMs.value(), 1, 0.01);
}

TEST(MeterNetwork, AHoldUpIsNoFaultOfTheStreamButADelay) {
    std::vector<Sent> sent = datagrams(8, false);
    for (std::size_t i = 400; i < 500; ++i) {
        sent[i].arrival = sent[500].arrival;
    }
    const meter::Report report = measure(sent);
    EXPECT_EQ(faults(report), 0);
    EXPECT_NEAR(report.network->delayFactorHighestMs.value(), 100 * 5.264, 11);
    EXPECT_NEAR(report.network->delayFactorMs.value(), 5.264, 0.01);
    EXPECT_EQ(report.network->lossRateHighest, 0);
    EXPECT_NEAR(report.network->interArrivalMeanMs.value(), 5.264, 0.001);
    EXPECT_EQ(
        std::accumulate(report.network->histogram.begin(), report.network->histogram.end(), uint64_t{0}),
        sent.size() - 1);
    EXPECT_EQ(report.network->histogram[12], sent.size() - 1 - 101) << "4096 to 8192 us";
}

TEST(MeterNetwork, BurstsAndAClockThatIsFastAreNoFaultsOfTheStream) {
    struct {
        std::size_t together;
        int64_t ppm;
    } const cases[] = {{1, 0}, {20, 0}, {1, 50}, {3, -20}};
    for (const auto& [together, ppm] : cases) {
        std::vector<Sent> sent = datagrams(40, false);
        for (std::size_t i = 0; i < sent.size(); ++i) {
            const int64_t made = static_cast<int64_t>(i / together * together) * kDatagramNs;
            sent[i].arrival = made - made / 1'000'000 * ppm;
        }
        const meter::Report report = measure(sent);
        EXPECT_EQ(faults(report), 0);
        EXPECT_EQ(report.clocks[0].over500, 0);
        EXPECT_GT(report.clocks[0].measured, 900);
        EXPECT_NEAR(report.clocks[0].frequencyOffsetPpm.value(), static_cast<double>(ppm),
                    together < 20 ? 5 : 100);
        EXPECT_NEAR(report.network->delayFactorHighestMs.value(), static_cast<double>(together) * 5.264,
                    together < 20 ? 1 : 6);
    }
}

TEST(MeterNetwork, ThePercentileIsThatOfTheSecond) {
    // Microseconds 1 to n in an order of their own: element floor(0.99 n) is known.
    for (const int64_t count : {10, 1000, 51'000, 51'150}) {
        for (const bool falling : {false, true}) {
            meter::InterArrival times;
            for (int64_t i = 0; i < count; ++i) {
                times.datagram((falling ? count - i : i * 7919 % count + 1) * 1000);
            }
            times.secondsEnded(1);
            meter::NetworkReport report;
            times.fill(report);
            EXPECT_DOUBLE_EQ(report.interArrivalP99Ms.value(),
                             static_cast<double>(count * 99 / 100 + 1) / 1000)
                << count << (falling ? " falling" : "");
        }
    }
    meter::InterArrival many;
    for (int64_t i = 0; i < 100'000; ++i) {
        many.datagram((i * 7919 % 100'000 + 1) * 1000);
    }
    many.secondsEnded(1);
    meter::NetworkReport report;
    many.fill(report);
    EXPECT_FALSE(report.interArrivalP99Ms.has_value());
}

TEST(MeterFlow, TimesFarApartDoNoHarm) {
    std::vector<Sent> sent = datagrams(1, false);
    sent[50].arrival = INT64_MIN;
    sent[100].arrival = INT64_MAX;
    EXPECT_GT(measure(sent).seconds, 3e8);
    sent[0].arrival = INT64_MIN;
    EXPECT_GT(measure(sent).seconds, 3e8);
}

TEST(MeterFlow, ADeafMinuteIsNothingLate) {
    std::vector<Sent> sent = datagrams(6, false);
    for (std::size_t i = 600; i < sent.size(); ++i) {
        sent[i].arrival += 60'000'000'000;
    }
    const meter::Report report = measure(sent);
    EXPECT_EQ(faults(report), 0);
    EXPECT_NEAR(report.seconds, 66, 0.1);
}

// Without a program clock time goes with arrival, and a pause is none of the stream's.
TEST(MeterFlow, APauseIsNothingLateWithoutAProgramClock) {
    std::vector<Sent> sent = datagrams(6, false, [](double, TsPacket& packet) {
        if (MeterStream::pidOf(packet) == test::kVideoPid && (packet[3] & 0x20) != 0) {
            packet =
                MeterStream::header(test::kVideoPid, false, static_cast<uint8_t>(0x10 | (packet[3] & 0xF)));
        }
    });
    for (std::size_t i = 0; i < sent.size(); ++i) {
        sent[i].arrival += (i >= 500 ? 3'000'000'000 : 0) + (i >= 800 ? 600'000'000 : 0);
    }
    EXPECT_EQ(faults(measure(sent)), 0);
    // What the stream lacks while it comes is late all the same.
    for (Sent& one : sent) {
        for (std::size_t at = 0; at < one.payload.size(); at += 188) {
            const bool pat = (one.payload[at + 1] & 0x1F) == 0 && one.payload[at + 2] == 0;
            if (pat && one.arrival > 1'000'000'000 && one.arrival < 1'700'000'000) {
                one.payload[at + 1] = 0x1F;
                one.payload[at + 2] = 0xFF;
            }
        }
    }
    EXPECT_EQ(test::checkOf(measure(sent), "1.3.a").count, 1);
}

TEST(MeterFlow, OthersAreCountedAndGiveWayAfterFiveSeconds) {
    const std::vector<Sent> sent = datagrams(3, false);
    meter::ChannelAnalyser analyser({});
    const auto other = [&](int64_t at, const Bytes& payload, uint16_t port = 5000) {
        meter::Datagram made = datagram(at, payload);
        made.source += 1;
        made.destinationPort = port;
        return made;
    };
    for (const Sent& one : sent) {
        analyser.feed(datagram(one.arrival, one.payload));
        analyser.feed(other(one.arrival, one.payload));
    }
    analyser.feed(other(sent.back().arrival, {0x80, 96, 0, 0}, 5002));
    analyser.feed(other(sent.back().arrival, {0x80, 96, 0, 0}, 5004));
    meter::Datagram fragment = datagram(sent.back().arrival, {});
    fragment.fragment = true;
    analyser.feed(fragment);
    analyser.feed(datagram(sent.back().arrival, Bytes{1, 2, 3}));
    meter::Report report = analyser.report();
    EXPECT_EQ(report.flow->otherFlows, sent.size());
    EXPECT_EQ(report.flow->fec, 2);
    EXPECT_EQ(report.flow->fragments, 1);
    EXPECT_EQ(report.flow->malformed, 1);
    EXPECT_EQ(report.flow->datagrams, sent.size() + 1);
    EXPECT_EQ(faults(report), 0);

    for (const Sent& one : sent) {
        analyser.feed(other(one.arrival + 9'000'000'000, one.payload));
    }
    report = analyser.report();
    EXPECT_EQ(report.flow->source, 0x0A000002);
    EXPECT_EQ(report.packets.received, 2 * 7 * sent.size());
    EXPECT_EQ(faults(report), 0);
    ASSERT_EQ(report.changes.size(), 1);
    EXPECT_EQ(report.changes[0].what, "flow");
    const std::vector<meter::Event> events = analyser.takeEvents();
    EXPECT_TRUE(std::ranges::any_of(events, [](const meter::Event& event) {
        const auto* change = std::get_if<meter::ChangeReport>(&event);
        return change != nullptr && change->what == "flow";
    }));
}

// Two flows, the second one 9 s later from another source; where `without` says so the first one lacks a
// burst of 30 datagrams, the second one a datagram.
meter::Report oneFlowAfterAnother(bool firstAsRtp, std::optional<std::size_t> firstWithout,
                                  std::optional<std::size_t> secondWithout) {
    meter::ChannelAnalyser analyser({});
    const auto send = [&](const std::vector<Sent>& sent, int64_t later, std::optional<std::size_t> without,
                          std::size_t count) {
        for (std::size_t i = 0; i < sent.size(); ++i) {
            meter::Datagram made = datagram(sent[i].arrival + later, sent[i].payload);
            made.source += later > 0 ? 1 : 0;
            if (!without || i < *without || i >= *without + count) {
                analyser.feed(made);
            }
        }
    };
    send(datagrams(4, firstAsRtp), 0, firstWithout, 30);
    send(datagrams(4, false), 9'000'000'000, secondWithout, 1);
    analyser.finish();
    return analyser.report();
}

TEST(MeterFlow, LossIsKnownWhereAPlainFlowFollowsOneOfRtp) {
    const meter::Report report = oneFlowAfterAnother(true, std::nullopt, 500);
    EXPECT_EQ(report.packets.lost.byRtp, 0);
    EXPECT_EQ(report.packets.lost.basis, "clock");
    EXPECT_EQ(report.packets.lost.packets, 7);
    EXPECT_EQ(report.network->lossRateHighest, 7);
}

TEST(MeterFlow, LossGoesOnToCountWhenTheFlowChanges) {
    const meter::LossReport lost = oneFlowAfterAnother(false, 500, 400).packets.lost;
    EXPECT_EQ(lost.basis, "clock");
    EXPECT_EQ(lost.packets, 31 * 7);
    EXPECT_EQ(lost.byClock, 31 * 7);
    EXPECT_EQ(lost.events, 2);
    EXPECT_EQ(lost.longest, 30 * 7);
}

TEST(MeterFlow, OnlyWhatFitsThePlaylistIsTheChannels) {
    meter::Settings settings;
    settings.source = 0x0A000001;
    settings.port = 6000;
    EXPECT_EQ(measure(datagrams(1, false), settings).flow->datagrams, 0);
    settings.port = 5000;
    EXPECT_GT(measure(datagrams(1, false), settings).flow->datagrams, 0);
}

TEST(MeterFlow, TakesWholePacketsOfWhatIsMalformed) {
    std::vector<Sent> sent = datagrams(2, false);
    sent[50].payload.push_back(0x47);
    sent[60].payload[0] = 0;  // a sync byte alone is wrong
    const meter::Report report = measure(sent);
    EXPECT_EQ(report.flow->malformed, 1);
    EXPECT_EQ(report.packets.received, 7 * sent.size());
}

TEST(MeterFlow, TicksLetSecondsEndAndNothingBeLate) {
    const std::vector<Sent> sent = datagrams(3, false);
    meter::ChannelAnalyser analyser({});
    analyser.tick(5'000'000'000);
    for (const Sent& one : sent) {
        analyser.feed(datagram(one.arrival, one.payload));
    }
    for (int64_t now = 3'000'000'000; now <= 10'000'000'000; now += 100'000'000) {
        analyser.tick(now);
    }
    const meter::Report report = analyser.report();
    EXPECT_EQ(faults(report), 0);
    EXPECT_EQ(report.seconds, 10);
    EXPECT_EQ(report.bitrate.bps, 0);
    EXPECT_FALSE(report.network->interArrivalMeanMs.has_value());
}

}  // namespace
