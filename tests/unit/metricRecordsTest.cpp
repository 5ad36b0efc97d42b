// File columns and console blocks of the metric records; every field has a value of its own.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

#include "sarn/metrics.h"
#include "support/consoleText.h"

namespace {

using test::printedBy;

// The writers free what they are given.
template <typename Metrics>
Metrics* onHeap(const Metrics& metrics) {
    return new (malloc(sizeof(Metrics))) Metrics(metrics);
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
    EXPECT_EQ(printedBy([&] { sarnDvbPsi_printStreamMetricsToFile(all, last, stdout, &udp); }),
              ";5040;130;132;133;131;134;100;101;102;103;104;105;106;107;108;109;110;111;112;113;114;115"
              ";100.500000;0;0.100000;inf;18446744073709551515;5000.666667;61;62;3;18446744073709551615\n");
}

TEST(MetricRecords, PidLineEndsWithItsTags) {
    PidMetrics* all = onHeap(pidMetrics(100));
    PidMetrics* last = onHeap(pidMetrics(207));
    all->descriptorCount = 3;
    all->descriptorTags = new (malloc(3)) uint8_t[3]{10, 0, 255};
    EXPECT_EQ(printedBy([&] { sarnDvbPsi_printPidMetricsToFile(all, last, stdout); }),
              ";4000000207;130;132;133;131;134;100;101;102;103;104;105;106;107;108;109;110;111;112;113"
              ";114;115;207;11;13;2;210.500000;1.250000;207.000001;783;4294967073;3;10;0;255\n");
}

TEST(MetricRecords, ConsoleBlocks) {
    const TsMetrics stream = streamMetrics(100);
    PidMetrics pid = pidMetrics(100);
    EXPECT_EQ(printedBy([&] {
                  sarnDvbPsi_printTsMetricsInterval(&stream);
                  sarnDvbPsi_printPidMetricsInterval(&pid);
                  pid.seen = 0;
                  sarnDvbPsi_printPidMetricsCumulative(&pid);
              }),
              test::consoleText("metrics"));
}

}  // namespace
