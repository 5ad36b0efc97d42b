// A cue in a sentence for an operator.
#pragma once

#include <string>

#include "meter.pb.h"

namespace station {

// "splice_insert 4711: out of the network at 2026-01-02T03:04:09Z, 4.0 s ahead, for 30.0 s".
std::string cueText(const metering::Cue& cue);

}  // namespace station
