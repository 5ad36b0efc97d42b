// What happened to one channel between two snapshots.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "common/clock.h"
#include "recordParser.h"

namespace station {

using records::Record;

// The counter columns of the stream record that have increments (recordColumns.h), packetsLost to CAT_error.
inline constexpr std::size_t kSampleCounters = 21;

struct ChannelSample {
    double seconds = 0;   // since the previous sample; 0 for the first, which has no increments
    bool first = false;   // the first sample of the channel, or the first after its counters started anew
    bool signal = false;  // packets were received since the previous sample (first: any packets at all)
    std::array<uint64_t, kSampleCounters> totals{};
    std::array<uint64_t, kSampleCounters> increments{};  // 0 where a counter stepped back: it was cleared

    double bitRate = 0;         // bit/s
    double delayFactor = 0;     // ms; 0 while unknown
    double jitterVariance = 0;  // ms^2; 0 while unknown
    double interArrival = 0;    // ms
    double qualityIndex = 0;    // 1 to 5
    std::optional<double> mos;  // lowest of the PIDs that have a score
    bool wrongSource = false;
    int ttl = 0;
    int dscp = 0;
};

// The place of a counter column in totals and increments. REQUIRES: it is one.
std::size_t sampleCounter(std::string_view column);
std::string_view sampleCounterColumn(std::size_t index);

// Makes the sample from a channel's records (the stream record and its PIDs) and the previous sample.
// `previous` is null for a channel that was not in a snapshot before.
ChannelSample makeSample(const Record& stream, std::span<const Record> pids, const ChannelSample* previous,
                         std::chrono::steady_clock::duration sincePrevious);

}  // namespace station
