// A channel's past as JSON and as comma-separated values; docs/api.yaml describes both.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "measures/history.h"
#include "state/state.h"

namespace station {

// What is told of one measure.
struct HistorySeries {
    HistoryMetric metric;
    std::vector<HistoryPoint> points;  // oldest first
};

struct HistoryAbout {
    Group group;
    int64_t resolution;  // seconds
};

std::string historyJson(const HistoryAbout& about, const HistorySeries& series);
// Several measures, which have points at the same times, and the levels that the profile of the channel has
// for each of them.
std::string historiesJson(const HistoryAbout& about, std::span<const HistorySeries> series,
                          const StationState& state);
// One or several measures at the same times.
std::string historyCsv(std::span<const HistorySeries> series);

}  // namespace station
