// Alarms as metrics: which are raised, which could be, and which somebody looks after.
#pragma once

#include "state/state.h"
#include "web/exposition.h"

namespace station {

// An alarm has the same labels whether it is raised or not. kMetricsAlarms bounds those that are not.
void writeAlarmMetrics(Exposition& out, const StationState& state);

}  // namespace station
