// A channel's report as messages, and back.
#pragma once

#include <optional>

#include "meter.pb.h"
#include "meter/report.h"

namespace metering {

// What moves all the time. `message` has its group and epoch from the caller, and no description.
void writeLevels(const meter::Report& report, GroupReport& message);
// What seldom changes: the services and their streams, and the newest cues and changes.
void writeDescription(const meter::Report& report, Description& message);
void writeChange(const meter::ChangeReport& change, Change& message);
void writeCue(const meter::CueReport& cue, Cue& message);

// The report that both were written from. Whatever the messages hold does no harm: what names a check or a
// stream that does not exist is left out, numbers beyond a member's range lose their upper bits.
meter::Report readReport(const GroupReport& levels, const Description& description);
meter::ChangeReport readChange(const Change& message);
meter::CueReport readCue(const Cue& message);

}  // namespace metering
