// What is said of a measure: a row of the table of measures.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace station {

struct ChannelSample;

// Who measures channels.
enum class Source : uint8_t { kProbe, kMeter, kPicture };
inline constexpr std::array<std::string_view, 3> kSourceNames = {"probe", "meter", "picture"};
inline constexpr std::size_t kSources = kSourceNames.size();
constexpr std::string_view sourceName(Source source) {
    return kSourceNames[static_cast<std::size_t>(source)];
}
// Nothing for a name of none.
constexpr std::optional<Source> parseSource(std::string_view name) {
    for (std::size_t i = 0; i < kSources; ++i) {
        if (kSourceNames[i] == name) {
            return static_cast<Source>(i);
        }
    }
    return std::nullopt;
}

// Something of each source.
template <typename Value>
struct BySource {
    std::array<Value, kSources> values{};

    Value& operator[](Source source) {
        return values[static_cast<std::size_t>(source)];
    }
    const Value& operator[](Source source) const {
        return values[static_cast<std::size_t>(source)];
    }
};

enum class MeasureKind : uint8_t {
    kCounter,  // what happened since the counter was cleared
    kLevel,    // a number at this time
    kState,    // a property of what arrives, or 0 and 1
};

// How the history keeps a measure.
enum class Keeping : uint8_t {
    kNone,
    kSum,      // counters: exact
    kFloat,    // levels: single precision
    kCompact,  // levels from 2^-16 to 2^47 in 16 bits, at least three significant digits
    kSigned,   // levels from -2^20 to 2^20 in 16 bits, likewise from 2^-10 on
    kIndex,    // levels from 0 to 6 in 16 bits, steps of 0.0001
};

// Whether a sample's value means anything yet. Null stands for always; a level that is NaN is never known.
using Known = bool (*)(const ChannelSample& sample, double value);

// As the wall shows it: of a counter what came in the last minute, of others the value.
struct WallColumn {
    std::string_view field{};    // in the rows of the event stream; empty: not on the wall
    std::string_view label{};    // on a tile: "lost"
    std::string_view heading{};  // of a table: "Lost, 1 min"
    std::string_view title{};    // says more, or nothing
    int decimals = -1;           // behind the point; below 0: by the unit
};

// A metric of every channel: a counter or a gauge, by the measure's kind.
struct MeasureMetric {
    std::string_view name{};  // "kestor_stream_packets_total"; empty: none
    std::string_view help{};  // a sentence
    Known known = nullptr;    // else there is no sample
    double divisor = 1;       // the value is this many times the metric's
};

struct Measure {
    std::string_view name{};  // in the API: that of the record column; others begin with "meter." or such
    std::string_view unit{};  // empty where there is none
    std::string_view meaning{};
    MeasureKind kind{};
    std::string_view title{};  // for people: "Bit rate"; of those that the history keeps

    Known judged = nullptr;  // levels: when alarms go by it
    Keeping keeping = Keeping::kNone;
    Known kept = nullptr;  // levels: when the history keeps it
    // The probe's measure of the same: while the meter judges a channel its figure stands in lists, on the
    // wall and in the history where otherwise that of the probe does.
    std::string_view insteadOf{};
    bool listed = false;  // in the list of channels and in the event stream's rows, under its name
    WallColumn wall{};
    MeasureMetric metric{};

    // Set by the table.
    Source source{};
    uint8_t place = 0;  // among those of its kind and source
};

}  // namespace station
