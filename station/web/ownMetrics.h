// What the station tells of itself and of its process, as metrics.
#pragma once

#include "common/clock.h"
#include "web/exposition.h"
#include "web/metrics.h"

namespace station {

double secondsSinceEpoch(WallTime time);

// The families `process_...`, by the names that monitoring knows of any program, and `kestor_station_...`.
// Reads /proc/self: not for a thread that must not wait.
void writeStationMetrics(Exposition& out, const StationState& state, const MetricsExtras& extras);

}  // namespace station
