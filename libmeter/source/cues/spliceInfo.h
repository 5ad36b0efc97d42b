// Reads splice_info_section (ANSI/SCTE 35, clause 9).
#pragma once

#include <optional>
#include <string_view>

#include "fields/bytes.h"
#include "meter/report.h"

namespace meter {

inline constexpr std::size_t kSegmentationsLimit = 16;  // of a cue; what is beyond is left out

enum class SpliceResult : uint8_t {
    kCue,        // a splice_insert or time_signal
    kOther,      // another command: nothing to tell
    kEncrypted,  // unreadable
    kMalformed,
};

// A whole section whose CRC_32 is right, from table_id on. Fills of `cue` for kCue all that the section
// itself says: neither pid, at, aheadMs nor repetitions.
SpliceResult readSpliceInfo(Bytes section, CueReport& cue);

// Name of a segmentation_type_id; empty for one that the standard does not list. Static storage.
std::string_view segmentationTypeName(uint8_t typeId);

}  // namespace meter
