// The checks of ETSI TR 101 290 (clause 5.2) that the records count, each in a column of its own.
#pragma once

#include <array>
#include <string_view>

namespace records {

struct Check {
    std::string_view column;  // of stream and PID records; the standard's name for the check as well
    std::string_view number;  // of the standard's tables 5.0a and 5.0b
    int priority;             // 1: necessary for decodability, 2: to be watched all the time, 0: neither
};

// In the standard's order.
inline constexpr std::array kChecks = std::to_array<Check>({
    {"TS_sync_loss", "1.1", 1},
    {"Sync_byte_error", "1.2", 1},
    {"PAT_error", "1.3", 1},
    {"PAT_error_2", "1.3.a", 1},
    {"Continuity_count_error", "1.4", 1},
    {"PMT_error", "1.5", 1},
    {"PMT_error_2", "1.5.a", 1},
    {"PID_error", "1.6", 1},
    {"Transport_error", "2.1", 2},
    {"CRC_error", "2.2", 2},
    {"PCR_error", "2.3", 2},
    {"PCR_repetition_error", "2.3a", 2},
    {"PCR_discontinuity_indicator_error", "2.3b", 2},
    {"PCR_accuracy_error", "2.4", 2},
    {"PTS_error", "2.5", 2},
    {"CAT_error", "2.6", 2},
});

}  // namespace records
