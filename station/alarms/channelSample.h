// What happened to one channel between two snapshots.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <string_view>

#include "recordColumns.h"
#include "recordParser.h"

namespace station {

using records::Record;

// The counter columns of the stream record, packetsLost to CAT_error, in their order.
inline constexpr std::size_t kSampleCounters = records::kCounterColumns.size();

struct ChannelSample {
    double seconds = 0;  // since the previous sample; 0 without one
    // There are no increments: the channel's first sample, the first with packets, or the first after its
    // counters started anew.
    bool first = false;
    bool signal = false;  // packets were received since the previous sample (first: any packets at all)
    std::array<uint64_t, kSampleCounters> totals{};
    std::array<uint64_t, kSampleCounters> increments{};  // 0 where a counter stepped back: it was cleared

    // Increments of PMT_error and PTS_error without those that a faultless channel has: a network information
    // table may come every 10 s (ETSI TS 101 211), subtitles come when somebody speaks.
    uint64_t pmtErrors = 0;
    uint64_t ptsErrors = 0;
    uint64_t pmtErrorsApart = 0;  // totals of what is left out
    uint64_t ptsErrorsApart = 0;

    double bitRate = 0;         // bit/s; 0 with a signal: not known, the packets span less than 200 ms
    double delayFactor = 0;     // ms; 0 while unknown
    double jitterVariance = 0;  // ms^2; 0 while unknown
    double interArrival = 0;    // ms
    double qualityIndex = 0;    // 1 to 5
    std::optional<double> mos;  // lowest of the PIDs that have a score
    bool wrongSource = false;
    int ttl = 0;
    int dscp = 0;
};

// The place of a counter column in totals and increments. REQUIRES: it is one; anything else ends the
// program, or does not compile.
constexpr std::size_t sampleCounter(std::string_view column) {
    for (std::size_t i = 0; i < kSampleCounters; ++i) {
        if (records::kCounterColumns[i].name == column) {
            return i;
        }
    }
    std::abort();
}
// The same for a name that comes from elsewhere; nothing when it is no counter's.
std::optional<std::size_t> findSampleCounter(std::string_view column);
std::string_view sampleCounterColumn(std::size_t index);

inline constexpr std::size_t kPacketsReceivedCounter = sampleCounter("packetsReceived");

// Makes the sample from a channel's records (the stream record and its PIDs) and the previous sample.
// `previous` is null for a channel that was not in a snapshot before.
ChannelSample makeSample(const Record& stream, std::span<const Record> pids, const ChannelSample* previous,
                         std::chrono::steady_clock::duration sincePrevious);

}  // namespace station
