// The checks of ETSI TR 101 290 V1.4.1, clause 5.2, that the meter makes, as data.
//
// Not measured: 3.3 Buffer_error, 3.9 Empty_buffer_error and 3.10 Data_delay_error need the decoder's buffer
// model.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace basics {

// Texts are literals, so that data() ends with 0.
struct CheckName {
    std::string_view id;    // of the standard's tables: "1.3.a"
    std::string_view name;  // "PAT_error_2"
    uint8_t priority;
};

// Messages and reports name a check by its place here: new ones come last.
inline constexpr std::array kChecks = std::to_array<CheckName>({
    {"1.1", "TS_sync_loss", 1},
    {"1.2", "Sync_byte_error", 1},
    {"1.3.a", "PAT_error_2", 1},
    {"1.4", "Continuity_count_error", 1},
    {"1.5.a", "PMT_error_2", 1},
    {"1.6", "PID_error", 1},
    {"2.1", "Transport_error", 2},
    {"2.2", "CRC_error", 2},
    {"2.3.a", "PCR_repetition_error", 2},
    {"2.3.b", "PCR_discontinuity_indicator_error", 2},
    {"2.4", "PCR_accuracy_error", 2},
    {"2.5", "PTS_error", 2},
    {"2.6", "CAT_error", 2},
    {"3.1.a", "NIT_actual_error", 3},
    {"3.1.b", "NIT_other_error", 3},
    {"3.2", "SI_repetition_error", 3},
    {"3.4.a", "Unreferenced_PID", 3},
    {"3.5.a", "SDT_actual_error", 3},
    {"3.5.b", "SDT_other_error", 3},
    {"3.6.a", "EIT_actual_error", 3},
    {"3.6.b", "EIT_other_error", 3},
    {"3.6.c", "EIT_PF_error", 3},
    {"3.7", "RST_error", 3},
    {"3.8", "TDT_error", 3},
});

}  // namespace basics
