// How large a channel's report may become, whatever its stream says.
#pragma once

#include "framing.h"
#include "meter.pb.h"

namespace metering {

// Description and levels, which are all else, have half of the room each, so that a description does not
// change with the levels beside it. Either way what is left out is said in the report.
inline constexpr std::size_t kReportHeads = 512;  // tags, lengths and what is said to be left out
inline constexpr std::size_t kHalfReport = kReportLimit / 2 - kReportHeads;

// Leaves out of the description what is beyond kHalfReport: the oldest cues, the oldest changes, the last
// services. Returns the bytes that it takes.
std::size_t fitDescription(GroupReport& message);
// Leaves out of a report that has no description yet what is beyond `limit`: the levels of the last streams,
// the last PIDs, the PIDs of checks, the last clocks, the levels of the last services. What remains then are
// some 3 KiB at most. Returns the bytes that it takes.
std::size_t fitLevels(GroupReport& message, std::size_t limit);

}  // namespace metering
