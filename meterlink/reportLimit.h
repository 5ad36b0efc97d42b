// How large a channel's report may become, whatever its stream says.
#pragma once

#include "meter.pb.h"

namespace metering {

// Leaves out of a report with its description what is beyond kReportLimit, and says so in it: the oldest
// cues, the oldest changes, the last services, the levels of the last streams, the last PIDs, the PIDs of
// checks. Description and levels have half of the room each, so that a description does not change with the
// levels beside it. Returns the bytes that the report takes.
std::size_t fitReport(GroupReport& message);

}  // namespace metering
