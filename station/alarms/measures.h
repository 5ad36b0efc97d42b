// What is measured of a channel: one row a measure, which alarms and the history go by.
#pragma once

#include <array>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <string_view>

#include "alarms/channelSample.h"

namespace station {

enum class MeasureKind : uint8_t {
    kCounter,  // what happened since the previous sample
    kLevel,    // a number at this time
    kState,    // a property of what arrives, or 0 and 1
};

// How the history keeps a measure.
enum class Keeping : uint8_t {
    kNone,
    kSum,      // counters: exact
    kFloat,    // levels: single precision
    kCompact,  // levels from 2^-16 to 2^47 in 16 bits, at least three significant digits
    kIndex,    // levels from 0 to 6 in 16 bits, steps of 0.0001
};

struct Measure {
    std::string_view name;  // the record column that it comes from
    std::string_view unit;  // empty where there is none
    MeasureKind kind;
    // How it is taken from a sample: the one of the kind.
    uint64_t (*growth)(const ChannelSample&) = nullptr;
    std::optional<double> (*level)(const ChannelSample&) = nullptr;  // nothing while it is not known
    int (*state)(const ChannelSample&) = nullptr;

    Keeping keeping = Keeping::kNone;
    // What the history keeps of a level; NaN for what is not known.
    double (*past)(const ChannelSample&) = nullptr;
};

namespace measure_rows {

inline constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();

// The rate is 0 where packets came and their span was too short to tell it; the index is 1 then.
inline bool rateKnown(const ChannelSample& sample) {
    return sample.bitRate > 0;
}

constexpr Measure counter(std::string_view name, std::string_view unit,
                          uint64_t (*growth)(const ChannelSample&), Keeping keeping = Keeping::kNone) {
    return {.name = name, .unit = unit, .kind = MeasureKind::kCounter, .growth = growth, .keeping = keeping};
}

template <std::size_t Counter>
uint64_t growth(const ChannelSample& sample) {
    return sample.increments[Counter];
}

// Known as soon as there is a signal and the probe has enough of it, which it says by more than 0.
template <double ChannelSample::*Value>
double pastUnlessZero(const ChannelSample& sample) {
    return sample.signal && sample.*Value > 0 ? sample.*Value : kUnknown;
}
// No packets are 0 bit/s, but packets without a rate are a rate that is not known.
template <double ChannelSample::*Value>
double pastWithRate(const ChannelSample& sample) {
    return rateKnown(sample) || !sample.signal ? sample.*Value : kUnknown;
}

}  // namespace measure_rows

// Those that the history keeps stand in the order in which it lists them.
inline constexpr std::array kMeasures = [] {
    using namespace measure_rows;
    using Sample = ChannelSample;
    return std::to_array<Measure>({
        {.name = "bitRate",
         .unit = "bit/s",
         .kind = MeasureKind::kLevel,
         .level = [](const Sample& s) { return rateKnown(s) ? std::optional(s.bitRate) : std::nullopt; },
         .keeping = Keeping::kFloat,
         .past = pastWithRate<&Sample::bitRate>},
        counter("packetsLost", "packet", growth<sampleCounter("packetsLost")>, Keeping::kSum),
        counter("Continuity_count_error", "", growth<sampleCounter("Continuity_count_error")>, Keeping::kSum),
        counter("PCR_error", "", growth<sampleCounter("PCR_error")>, Keeping::kSum),
        {.name = "mdiDelayFactor",
         .unit = "ms",
         .kind = MeasureKind::kLevel,
         .level = [](const Sample& s) { return std::optional(s.delayFactor); },
         .keeping = Keeping::kCompact,
         .past = pastUnlessZero<&Sample::delayFactor>},
        {.name = "jitterVariance",
         .unit = "ms^2",
         .kind = MeasureKind::kLevel,
         .level = [](const Sample& s) { return std::optional(s.jitterVariance); },
         .keeping = Keeping::kCompact,
         .past = pastUnlessZero<&Sample::jitterVariance>},
        {.name = "transportQualityIndex",
         .unit = "",
         .kind = MeasureKind::kLevel,
         .level = [](const Sample& s) { return rateKnown(s) ? std::optional(s.qualityIndex) : std::nullopt; },
         .keeping = Keeping::kIndex,
         .past = pastWithRate<&Sample::qualityIndex>},
        counter("packetsReceived", "packet", growth<kPacketsReceivedCounter>, Keeping::kSum),

        {.name = "mosScore",
         .unit = "",
         .kind = MeasureKind::kLevel,
         .level = [](const Sample& s) { return rateKnown(s) ? s.mos : std::nullopt; }},
        counter("packetsScrambled", "packet", growth<sampleCounter("packetsScrambled")>),
        counter("TS_sync_loss", "", growth<sampleCounter("TS_sync_loss")>),
        counter("Sync_byte_error", "", growth<sampleCounter("Sync_byte_error")>),
        counter("PAT_error", "", growth<sampleCounter("PAT_error")>),
        // Without what a faultless channel has of them.
        counter("PMT_error", "", [](const Sample& s) { return s.pmtErrors; }),
        counter("PTS_error", "", [](const Sample& s) { return s.ptsErrors; }),
        counter("Transport_error", "", growth<sampleCounter("Transport_error")>),
        counter("CRC_error", "", growth<sampleCounter("CRC_error")>),
        counter("PCR_repetition_error", "", growth<sampleCounter("PCR_repetition_error")>),
        counter("PCR_discontinuity_indicator_error", "",
                growth<sampleCounter("PCR_discontinuity_indicator_error")>),
        counter("PCR_accuracy_error", "", growth<sampleCounter("PCR_accuracy_error")>),
        counter("CAT_error", "", growth<sampleCounter("CAT_error")>),
        {.name = "wrongSource",
         .unit = "",
         .kind = MeasureKind::kState,
         .state = [](const Sample& s) { return s.wrongSource ? 1 : 0; }},
        {.name = "ttl",
         .unit = "",
         .kind = MeasureKind::kState,
         .state = [](const Sample& s) { return s.ttl; }},
        {.name = "dscp",
         .unit = "",
         .kind = MeasureKind::kState,
         .state = [](const Sample& s) { return s.dscp; }},
    });
}();

// REQUIRES: there is one of that name; anything else ends the program, or does not compile.
constexpr const Measure* measure(std::string_view name) {
    for (const Measure& one : kMeasures) {
        if (one.name == name) {
            return &one;
        }
    }
    std::abort();
}

}  // namespace station
