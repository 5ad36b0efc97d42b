// What a context learns from PAT and PMT, the silence check, and the latch.
#include <gtest/gtest.h>

#include <array>
#include <map>
#include <span>
#include <vector>

#include "sarn/mediaDeliveryIndex.h"
#include "support/analysisContext.h"

namespace {

using test::kStartMs;
using Programs = std::map<uint16_t, std::vector<uint16_t>>;  // PMT PID and elementary PIDs of each

struct Context : testing::Test {
    test::AnalysisContext context;
    test::TsStream packets;

    Programs programs() {
        Programs programs;
        ChannelsInfo* info = sarnDvbPsi_getChannelsInfo(context.get());
        for (const ChannelInfo& program : std::span(info->channels, info->count)) {
            auto& pids = programs[program.programNumber] = {program.pmtPid};
            pids.insert(pids.end(), program.elementaryPids,
                        program.elementaryPids + program.elementaryPidCount);
        }
        sarnDvbPsi_freeChannelsInfo(info);
        return programs;
    }
};

TEST_F(Context, PmtListFollowsEveryPat) {
    context.feed(packets.pat({{1, 0x100}, {2, 0x200}})
                     .pmt(1, 0x100, 0x101, {{2, 0x101}})
                     .pmt(2, 0x200, 0x201, {{2, 0x201}, {2, 0x200}}));
    struct Case {
        std::initializer_list<std::pair<uint16_t, uint16_t>> pat;
        Programs expected;
    };
    const Case cases[] = {
        // One only passes over another's place.
        {{{1, 0x200}, {1, 0x100}}, {{1, {0x100, 0x101}}, {2, {0x200, 0x201, 0x200}}}},
        // They swap their PIDs and keep their tables.
        {{{1, 0x200}, {2, 0x100}}, {{1, {0x200, 0x101}}, {2, {0x100, 0x201, 0x200}}}},
        {{{1, 0x100}, {3, 0x200}},
         {{1, {0x100, 0x101}}, {3, {0x200}}}},  // one in the place of one that is gone
        {{{1, 0x300}}, {{1, {0x300}}}},         // a new record on a PID that nobody had
        {{{1, 0x300}, {2, 0x300}, {0, 0x10}},
         {{0, {0x10}}, {2, {0x300}}}},  // two on one PID: the later stays
        {{{7, 0x1FFF}, {7, 0x44}, {8, 1}, {9, 0}}, {{7, {0x44}}, {8, {1}}}},  // named twice; odd PIDs
        {{{7, 1}, {7, 0x44}, {9, 1}, {8, 2}}, {{7, {0x44}}, {8, {2}}, {9, {1}}}},
        {{}, {}},
    };
    uint8_t version = 0;
    for (const Case& c : cases) {
        context.feed(packets.pat(c.pat, ++version));
        EXPECT_EQ(programs(), c.expected) << "PAT " << int{version};
        for (const auto& [number, pids] : c.expected)
            EXPECT_EQ(context->pid[pids[0]].p_pmt, findPmtByProgramNumber(context.get(), number))
                << "the PID's packets reach it";
    }
}

TEST_F(Context, KeepsTypesAndTheFirst256DescriptorTagsOfAPmtEntry) {
    test::Bytes many;
    for (std::size_t tag = 0; tag < 258; ++tag)
        many = psi::concat({many, psi::descriptor(psi::low8(tag), {})});
    context.feed(packets.pat({{5, 0x100}})
                     .pmt(5, 0x100, 0x101, {{0x1B, 0x101, psi::descriptor(0x28, {1})}, {0x06, 0x102, many}}));
    EXPECT_EQ(context->pid[0x101].i_stream_type, 0x1B);
    EXPECT_EQ(context->pid[0x101].descriptor_tags[0], 0x28);
    EXPECT_EQ(context->pid[0x101].i_program_number, 5);
    EXPECT_TRUE(context->pid[0x101].b_pcr_pid);
    EXPECT_EQ(context->pid[0x102].i_descriptor_count, 2) << "258 modulo 256";
    EXPECT_EQ(context->pid[0x102].descriptor_tags[255], 255);

    PidMetrics* unseen = sarnDvbPsi_getPidMetricsInterval(context.get(), 0x102, 0);
    EXPECT_EQ(unseen->streamType, 0x06);
    EXPECT_EQ(unseen->descriptorTags[1], 1);
    EXPECT_EQ(unseen->mosScore, 0);
    sarnDvbPsi_freePidMetricsInterval(unseen);
}

TEST(LateTables, CountByTheirArrival) {
    for (const auto& [program, ms, patError2, pmtError, pmtError2] :
         {std::tuple<uint16_t, int64_t, uint64_t, uint64_t, uint64_t>{1, 500, 0, 0, 0},
          {1, 600, 1, 1, 1},
          {0, 600, 1, 1, 0}}) {
        test::AnalysisContext context;
        test::TsStream packets;
        context.feed(packets.pat({{program, 0x100}}, 0).pmt(program, 0x100, 0x101, {}, 0));
        context->i_next_check = INT64_MAX;  // the presence check counts the same things
        context.feed(packets.pat({{program, 0x100}}, 1), ms);
        context.feed(packets.pmt(program, 0x100, 0x101, {}, 1), ms);
        EXPECT_EQ(context.errors(kPatError2, 0), patError2);
        EXPECT_EQ(context.errors(kPatError), ms > 500 ? 1u : 0u) << "PID 0 itself came late";
        EXPECT_EQ(context.errors(kPmtError, 0x100), pmtError);
        EXPECT_EQ(context.errors(kPmtError2), pmtError2);
    }
}

TEST_F(Context, ChecksTheTablesPresenceEvery500Ms) {
    context.feed(packets.pat({{1, 0x100}}));
    for (const auto& [ms, pat, pmt] :
         {std::tuple{499, 0u, 0u}, {500, 0u, 1u}, {999, 0u, 1u}, {1000, 1u, 2u}}) {
        context.feed(packets.null(), ms);
        EXPECT_EQ(context.errors(kPatError), pat) << ms;
        EXPECT_EQ(context.errors(kPatError2, 0), pat) << ms;
        EXPECT_EQ(context.errors(kPmtError, 0x100), pmt) << ms << ": the PMT PID was never seen";
        EXPECT_EQ(context.errors(kPmtError2), pmt) << ms;
    }
}

TEST_F(Context, CountsSilentPidsThatAreNotIgnored) {
    context.feed(
        packets.pat({{1, 0x100}}).pmt(1, 0x100, 0x101, {{0x1B, 0x101}, {0xFF, 0x102}}).payload(0x101));
    context.feed(packets.payload(0x102).payload(0x103).null(), -kStartMs + 4000);
    sarnDvbPsi_timerTick(9);
    EXPECT_EQ(context.errors(kPidError), 0u) << "last seen exactly at the limit";
    sarnDvbPsi_timerTick(10);
    EXPECT_EQ(context.errors(kPidError), 2u) << "wall-clock times are above the threshold; not 8191";
    sarnDvbPsi_setPidNumberState(context.get(), 0x103, 1);
    sarnDvbPsi_setPidTypeState(context.get(), 0xFF, 1);
    sarnDvbPsi_timerTick(10);
    EXPECT_EQ(context.errors(kPidError), 2u);
    sarnDvbPsi_resetPidIgnoreState(context.get());
    sarnDvbPsi_timerTick(10);
    EXPECT_EQ(context.errors(kPidError, 0x103), 2u);
    EXPECT_EQ(context.errors(kPidError, 0x102), 1u) << "the state of type 255 survives the reset";
    sarnDvbPsi_setPidErrorPeriod(context.get(), 6);
    sarnDvbPsi_timerTick(10);
    EXPECT_EQ(context.errors(kPidError), 3u);
}

TEST_F(Context, LatchMakesIntervalsDifferencesAndRestartsTheJitterMaximum) {
    packets.pat({{1, 0x100}}).pmt(1, 0x100, 0x101, {{0x1B, 0x101}});
    context.feed(packets.pcr(0x101, 0).payload(0x101).lose(0x101, 2).payload(0x101, 3));
    context.feed(packets.pcr(0x101, 0), 160);
    context.feed(packets.payload(0x101), 1000);
    sarnDvbPsi_latchInterval(context.get(), 0);

    TsMetrics* quiet = sarnDvbPsi_getTsMetricsInterval(context.get(), 0);
    EXPECT_EQ(quiet->packetsReceived, 0u);
    EXPECT_EQ(quiet->totalBitrate, 0u);
    EXPECT_DOUBLE_EQ(quiet->plr, 2.0 / 11) << "without traffic the cumulative ratio stays";
    sarnDvbPsi_freeTsMetricsInterval(quiet);
    PidMetrics* pid = sarnDvbPsi_getPidMetricsInterval(context.get(), 0x101, 0);
    EXPECT_EQ(pid->pcrJitterUs, 10'000);
    EXPECT_EQ(pid->maxPcrJitterUs, 0);
    sarnDvbPsi_freePidMetricsInterval(pid);

    context.feed(packets.payload(0x101, 24).lose(0x101, 1).payload(0x101, 25).pcr(0x101, 0), 2000);
    TsMetrics* loss = sarnDvbPsi_getTsMetricsInterval(context.get(), 0);
    EXPECT_EQ(loss->packetsReceived, 50u);
    EXPECT_EQ(loss->packetsLost, 1u);
    EXPECT_EQ(loss->totalBitrate, 51u * 1504) << "over the second since the last packet before the latch";
    EXPECT_EQ(loss->tr101290p1[kContinuityCountError], 1u);
    sarnDvbPsi_freeTsMetricsInterval(loss);
    pid = sarnDvbPsi_getPidMetricsInterval(context.get(), 0x101, 0);
    EXPECT_EQ(pid->maxPcrJitterUs, pid->pcrJitterUs);
    EXPECT_EQ(pid->maxPcrDate, static_cast<uint64_t>(kStartMs + 2000));
    sarnDvbPsi_freePidMetricsInterval(pid);
}

using ContextDeathTest = Context;
TEST_F(ContextDeathTest, AbortsOnBrokenInvariants) {
    EXPECT_DEATH(sarnDvbPsi_getTsMetricsInterval(context.get(), 1), "intervalId < 1 && intervalId >=0");
    EXPECT_DEATH(sarnDvbPsi_getPidMetricsInterval(context.get(), 0, -1),
                 "source/sarnDvbPsi:2375: sarnDvbPsi_getPidMetricsInterval: Assertion");
    EXPECT_DEATH(sarnDvbPsi_setPidNumberState(context.get(), 8192, 1), "pidNumber < 8192");
    for (int records = 0; records < 2; ++records) {
        ts_pmt_t* pmt = newPmt(context.get());
        pmt->i_number = 7;
        pmt->p_pid = &context->pid[0x100];
    }
    context->pid[0x100].i_pid = 0x100;
    EXPECT_DEATH(findPmtByProgramNumber(context.get(), 7), "count < 2");
    EXPECT_DEATH(findPmtByPid(context.get(), 0x100), "count < 2");
    EXPECT_DEATH(deletePmtByPid(context.get(), 0x100), "count < 2");
    context->p_pmts->p_pid = &context->pid[0];
    deletePmtByPid(context.get(), 0x100);
    deletePmtByPid(context.get(), 0);
    EXPECT_DEATH(sarnDvbPsi_exit(context->p_intervals), "knownStream != \\(\\(void \\*\\)0\\)");
}

TEST_F(Context, FindsRecordsByWhatTheirFieldsSay) {
    ts_pmt_t* pmt = newPmt(context.get());
    EXPECT_EQ(findPmtByPid(context.get(), 0x100), nullptr);
    pmt->i_number = 7;
    pmt->p_pid = &context->pid[0x100];
    context->pid[0x100].i_pid = 0x100;
    EXPECT_EQ(findPmtByProgramNumber(context.get(), 7), pmt);
    EXPECT_EQ(findPmtByPid(context.get(), 0x100), pmt);
    context.feed(packets.pat({{7, 0x100}, {8, 0x200}}).pmt(7, 0x100, 0x101, {}));
    EXPECT_EQ(programs(), (Programs{{7, {0x100}}, {8, {0x200}}}));
    EXPECT_EQ(pmt->p_pcr_pid, &context->pid[0x101]) << "a PAT takes it over";
    pmt->i_number = 9;
    context.feed(packets.pat({{7, 0x300}, {8, 0x200}, {9, 0x100}}, 1));
    EXPECT_EQ(findPmtByProgramNumber(context.get(), 9), pmt);
    deletePmtByPid(context.get(), 0x200);
    EXPECT_EQ(programs(), (Programs{{7, {0x300}}, {9, {0x100}}}));
}

TEST_F(Context, HooksWrittenAtAnyTimeSeeThePacketsBeforeTheirOwn) {
    struct View {
        const ts_stream_t* stream;
        // Packets, arrival of the last, packets in the delivery index.
        std::vector<std::array<int64_t, 3>> seen = {};
    };
    const auto look = [](int32_t length, const uint8_t* packet, void* data) {
        EXPECT_EQ(packet[0] + length, 0x47 + 188);
        auto& [stream, seen] = *static_cast<View*>(data);
        seen.push_back({static_cast<int64_t>(stream->i_packets), stream->i_last_time - kStartMs,
                        stream->p_mdi->packetsInInterval});
    };
    for (const uint16_t pid : {0x101, 0x100, 0, 0x1FFF}) {
        View view{context.get()};
        context.feed(packets.pat({{1, 0x100}}).payload(pid, 2));
        context->i_bitrate = 8000;
        context.feed(packets.null(7), 10);  // brings the index up to date
        const auto counted = static_cast<int64_t>(context->i_packets);
        const int64_t accounted = context->p_mdi->packetsInInterval;
        context->pid[pid].pf_callback = look;
        context->pid[pid].p_callback_data = &view;
        context.feed(packets.payload(0x102).payload(pid, 2), 20);
        EXPECT_EQ(view.seen,
                  (decltype(view.seen){{counted + 1, 20, accounted + 1}, {counted + 2, 20, accounted + 2}}));
        sarnDvbPsi_setPidDataCallback(context.get(), pid, nullptr, nullptr);
        context.feed(packets.payload(pid), 30);
        EXPECT_EQ(view.seen.size(), 2U);
    }
}

}  // namespace
