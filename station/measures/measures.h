// What is measured of a channel: one row a measure, by which samples, alarms, history, metrics, the API and
// the page go. A source's rows stand in a file of their own.
#pragma once

#include <algorithm>
#include <array>
#include <cstdlib>

#include "measures/measure.h"
#include "measures/meterMeasures.h"
#include "measures/pictureMeasures.h"
#include "measures/probeMeasures.h"

namespace station {

// All of all sources.
inline constexpr auto kMeasures = [] {
    std::array<Measure, kProbeMeasures.size() + kMeterMeasures.size() + kPictureMeasures.size()> all{};
    const auto rest = std::ranges::transform(kProbeMeasures, all.begin(), &ProbeMeasure::measure);
    const auto pictures = std::ranges::transform(kMeterMeasures, rest.out, &MeterMeasure::measure);
    std::ranges::copy(kPictureMeasures, pictures.out);
    for (auto one = all.begin(); one != all.end(); ++one) {
        one->place = static_cast<uint8_t>(std::count_if(all.begin(), one, [&](const Measure& before) {
            return before.kind == one->kind && before.source == one->source;
        }));
    }
    return all;
}();

// How many of a kind a source has.
constexpr std::size_t countMeasures(MeasureKind kind, Source source) {
    return static_cast<std::size_t>(std::ranges::count_if(
        kMeasures, [&](const Measure& one) { return one.kind == kind && one.source == source; }));
}
// The source with the most of them.
constexpr std::size_t mostMeasures(MeasureKind kind) {
    std::size_t most = 0;
    for (std::size_t source = 0; source < kSources; ++source) {
        most = std::max(most, countMeasures(kind, static_cast<Source>(source)));
    }
    return most;
}

// REQUIRES: there is one of that name; anything else ends the program, or does not compile.
constexpr const Measure& measureOf(std::string_view name) {
    for (const Measure& one : kMeasures) {
        if (one.name == name) {
            return one;
        }
    }
    std::abort();
}

}  // namespace station
