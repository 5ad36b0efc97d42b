// File columns and console blocks of the metric records; every field has a value of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "sarn/metrics.h"

namespace {

// The writers free what they are given.
template <typename Metrics>
Metrics* onHeap(const Metrics& metrics) {
    return new (malloc(sizeof(Metrics))) Metrics(metrics);
}

template <typename Write>
std::string written(Write write) {
    char text[1000];
    FILE* file = fmemopen(text, sizeof text, "w");
    write(file);
    fclose(file);
    return text;
}

Tr101290Half countedFrom(uint64_t n) {
    return {n, n + 1, n + 2, n + 3, n + 4, n + 5, n + 6, n + 7};
}

// In the records' order, a few fields a line.
// clang-format off
TsMetrics streamMetrics(uint32_t n) {
    return {countedFrom(n), countedFrom(n + 8), n + 40, n + 41, n + 31, n + 30, n + 32, n + 33, n + 34, 0.125,
            1'700'000'000'000, 1'700'000'012'345, n + 0.5F, 2.5F, 3, 4, 0, 0.1F, INFINITY, UINT64_MAX - n, 7, n + 2.0 / 3};
}

PidMetrics pidMetrics(uint32_t n) {
    return {257, 1, 0x81, 4'000'000'000U + n, n + 30, n + 31, n + 32, n + 33, n + 34, 0.125, 1'700'000'000'000,
            1'700'000'012'345, 1, -50, 51, 52, n + 576, 4'294'967'280U - n, {static_cast<uint8_t>(n), 11, 13, 2},
            n + 3.5, 1.25, n + 0.0000006, 0, nullptr, countedFrom(n), countedFrom(n + 8)};
}
// clang-format on

TEST(MetricRecords, StreamLineTakesBitrateAndQualityFromTheInterval) {
    const UdpMetrics udp{.ttl = 61, .dscp = 62, .ecn = 3, .igmpLatency = UINT64_MAX};
    TsMetrics* all = onHeap(streamMetrics(100));
    TsMetrics* last = onHeap(streamMetrics(5000));
    EXPECT_EQ(written([&](FILE* file) { sarnDvbPsi_printStreamMetricsToFile(all, last, file, &udp); }),
              ";5040;130;132;133;131;134;100;101;102;103;104;105;106;107;108;109;110;111;112;113;114;115"
              ";100.500000;0;0.100000;inf;18446744073709551515;5000.666667;61;62;3;18446744073709551615\n");
}

TEST(MetricRecords, PidLineEndsWithItsTags) {
    for (const char* end : {";0\n", ";3;10;0;255\n"}) {
        PidMetrics* all = onHeap(pidMetrics(100));
        PidMetrics* last = onHeap(pidMetrics(207));
        all->descriptorCount = end[1] == '3' ? 3 : 0;
        all->descriptorTags = end[1] == '3' ? new (malloc(3)) uint8_t[3]{10, 0, 255} : nullptr;
        EXPECT_EQ(written([&](FILE* file) { sarnDvbPsi_printPidMetricsToFile(all, last, file); }),
                  ";4000000207;130;132;133;131;134;100;101;102;103;104;105;106;107;108;109;110;111;112;113"
                  ";114;115;207;11;13;2;210.500000;1.250000;207.000001;783;4294967073" +
                      std::string(end));
    }
}

// Tabs stand as '>'.
constexpr char kBlocks[] =
    R"(---------------------sarnDvbPsi_printTsMetrics-------------------------------------
TS first seen at 1700000000000. TS last seen at 1700000012345. TS duration: 12345
Whole TS packets received: 131. Whole TS packets lost: 130. PLR: 0.125000. NULL packets received: 141. Total bitrate 140 Duplicated: 133. OOS: 132
TR101290p2
    Transport_error>>       108
    CRC_error:>>>       109
    PCR_error: >>>       110
    PCR_repetition_error:       111
    PCR_discontinuity_indicator_error:        112
    PCR_accuracy_error:>       113
    PTS_error: >>>       114
    CAT_error: >>>       115
TR101290p1
    TS_sync_loss:>>       100
    Sync_byte_error:>       101
    PAT_error: >>>       102
    PAT_error_2: >>       103
    Continuity_count_error:        104
    PMT_error: >>>       105
    PMT_error_2: >>       106
    PID_error: >>>       107
-----------------------------------------------------------------------------------
---------------------sarnDvbPsi_printPidMetrics------------------------------------
            PID: 257, Seen: 1
                Stream type: User Private
                First seen: 1700000000000. Last seen: 1700000012345. Duration: 12345 [ms]
                Packets received: 131. Packets lost: 130. PLR:  0.125000. Packets duplicated: 133. Packets out of sequence 132
                Bitrate average: 4000000100
                This is PCR pid.
                >PCR jitter[us]: -50.
                >MAX PCR jitter[us]: 51.
                >MAX PCR date: 52.
-----------------------------------------------------------------------------------
---------------------sarnDvbPsi_printPidMetrics------------------------------------
            PID: 257, Seen: 0
-----------------------------------------------------------------------------------
)";

TEST(MetricRecords, ConsoleBlocks) {
    const TsMetrics stream = streamMetrics(100);
    PidMetrics pid = pidMetrics(100);
    testing::internal::CaptureStdout();
    sarnDvbPsi_printTsMetricsInterval(&stream);
    sarnDvbPsi_printPidMetricsInterval(&pid);
    pid.seen = 0;
    sarnDvbPsi_printPidMetricsCumulative(&pid);
    std::string blocks = testing::internal::GetCapturedStdout();
    std::replace(blocks.begin(), blocks.end(), '\t', '>');
    EXPECT_EQ(blocks, kBlocks);
}

}  // namespace
