// The packet loop: synchronisation, continuity, clocks and the ETSI TR 101 290 counters.
#include <gtest/gtest.h>

#include "support/analysisContext.h"

namespace {

using test::AnalysisContext;
using test::Bytes;
using test::TsPacket;
using test::TsStream;

constexpr uint16_t kVideoPid = 0x101;
constexpr uint64_t kPcrHz = 27'000'000;

Bytes datagramOf(int packets) {
    return TsStream().null(packets).takeDatagrams(packets).front();
}

TEST(PacketLoop, LosesSyncOnceAtThirdFailureAndRegainsItWithFifthPacket) {
    AnalysisContext context;
    const auto feedGarbage = [&](int datagrams) {
        for (int i = 0; i < datagrams; ++i)
            context.feed(Bytes(200, 0x55));
    };
    feedGarbage(4);
    EXPECT_EQ(context.errors(kTsSyncLoss), 0u) << "was never in sync";
    context.feed(datagramOf(4));
    EXPECT_FALSE(context->b_in_sync);
    context.feed(datagramOf(1));
    EXPECT_TRUE(context->b_in_sync);
    feedGarbage(2);
    EXPECT_EQ(context.errors(kTsSyncLoss), 0u);
    feedGarbage(1);
    EXPECT_EQ(context.errors(kTsSyncLoss), 1u);
    feedGarbage(302);
    EXPECT_EQ(context.errors(kTsSyncLoss), 1u);
    EXPECT_EQ(context->i_lost_bytes, (4 + 305) * 200u);
    EXPECT_EQ(context->i_sync_bad_run, 57) << "305 failures, wrapping from 250 to 2";
}

void payloadWithAdaptationField(TsStream& packets, uint8_t length, uint8_t flags) {
    TsPacket& packet = packets.payload(kVideoPid).last();
    packet[3] |= 0x20;
    packet[4] = length;
    packet[5] = flags;
}

TEST(PacketLoop, CountsContinuityGaps) {
    struct Case {
        const char* name;
        void (*damage)(TsStream&);
        uint64_t errors;
        uint64_t lost;
    };
    const Case cases[] = {
        {"three lost", [](TsStream& s) { s.lose(kVideoPid, 3).payload(kVideoPid); }, 1, 3},
        {"repeated packet", [](TsStream& s) { s.repeatLast(); }, 1, 15},
        {"gap before a packet without payload", [](TsStream& s) { s.lose(kVideoPid, 3).pcr(kVideoPid, 1); },
         0, 0},
        {"null packets", [](TsStream& s) { s.null().lose(test::kNullPid, 2).null(); }, 0, 0},
        {"discontinuity indicator without PCR",
         [](TsStream& s) { payloadWithAdaptationField(s.lose(kVideoPid, 2), 1, 0x80); }, 1, 2},
        {"discontinuity indicator with PCR",
         [](TsStream& s) { payloadWithAdaptationField(s.lose(kVideoPid, 2), 7, 0x90); }, 0, 0},
    };
    for (const Case& c : cases) {
        AnalysisContext context;
        TsStream packets;
        packets.payload(kVideoPid, 2);
        c.damage(packets);
        context.feed(packets);
        EXPECT_EQ(context.errors(kContinuityCountError), c.errors) << c.name;
        EXPECT_EQ(context.errors(kContinuityCountError, kVideoPid), c.errors) << c.name;
        EXPECT_EQ(context->i_lost, c.lost) << c.name;
        EXPECT_EQ(context->pid[kVideoPid].i_out_of_sequence, c.errors) << c.name;
        EXPECT_EQ(context->i_duplicated, 0u) << c.name;
    }
}

TEST(PacketLoop, ComputesBitrateFromTheSecondSpanOn) {
    AnalysisContext context;
    const Bytes datagram = datagramOf(7);
    const auto feedSpan = [&](int64_t from, int64_t to) {
        for (int i = 0; i < 10000; ++i)
            context.feed(datagram, from + (to - from) * (i + 1) / 10000);
    };
    feedSpan(0, 5000);
    EXPECT_EQ(context->i_bitrate, 0u);
    feedSpan(5000, 15000);
    EXPECT_EQ(context->i_bitrate, 10'528'000u);  // 70000 packets of 1504 bits in 10 s
    EXPECT_EQ(context->i_null_packets, 140'000u);
    feedSpan(15000, 15000);
    EXPECT_EQ(context->i_bitrate, 0u) << "a span of no time";
}

TEST(PacketLoop, ChecksPcrAgainstArrivalAndItsOwnSteps) {
    struct Case {
        const char* name;
        int64_t arrivalMs;
        int64_t pcrMs;
        bool discontinuity;
        uint64_t repetition;
        uint64_t discontinuityErrors;
    };
    const Case cases[] = {
        {"40 ms", 40, 40, false, 0, 0},           {"41 ms late", 41, 40, false, 1, 0},
        {"step of 101 ms", 40, 101, false, 0, 1}, {"signalled step", 40, 101, true, 0, 0},
        {"backwards", 40, -500, false, 0, 0},     {"late and wide", 200, 200, false, 1, 1},
    };
    for (const Case& c : cases) {
        AnalysisContext context;
        TsStream packets;
        context.feed(packets.pcr(kVideoPid, 10 * kPcrHz));
        context->i_bitrate = 75'200;  // two packets take 40 ms
        packets.pcr(kVideoPid, static_cast<uint64_t>(10'000 + c.pcrMs) * (kPcrHz / 1000), c.discontinuity);
        testing::internal::CaptureStderr();
        context.feed(packets, c.arrivalMs);
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  c.pcrMs < 0 ? "stofain: Warning wrapping PCR\n" : "");
        EXPECT_EQ(context.errors(kPcrRepetitionError, kVideoPid), c.repetition) << c.name;
        EXPECT_EQ(context.errors(kPcrDiscontinuityIndicatorError), c.discontinuityErrors) << c.name;
        EXPECT_EQ(context.errors(kPcrAccuracyError), c.pcrMs == 40 ? 0u : 1u) << c.name;
        EXPECT_EQ(context.errors(kPcrError), c.repetition + c.discontinuityErrors) << c.name;
        const int64_t deviationNs = std::abs(c.arrivalMs - c.pcrMs) * 1'000'000;
        EXPECT_EQ(context->pid[kVideoPid].i_pcr_jitter, deviationNs / 16) << c.name;
    }
}

TEST(PacketLoop, CountsLatePtsPerPid) {
    AnalysisContext context;
    TsStream packets;
    for (const auto& [ms, errors] : {std::pair{0, 0u}, {700, 0u}, {1401, 1u}, {1500, 1u}}) {
        packets.pes(kVideoPid);
        packets.pes(0x102, {.streamId = 0xBE});  // padding has no PTS
        TsPacket& late = packets.pes(0x103).last();
        std::copy_backward(late.begin() + 4, late.end() - 2, late.end());
        late[3] |= 0x20;  // behind an adaptation field
        std::ranges::copy(Bytes{1, 0}, late.begin() + 4);
        context.feed(packets, ms);
        for (const uint16_t pid : {kVideoPid, uint16_t{0x103}})
            EXPECT_EQ(context.errors(kPtsError, pid), errors) << ms;
        EXPECT_EQ(context.errors(kPtsError, 0x102), 0u);
    }
}

}  // namespace
