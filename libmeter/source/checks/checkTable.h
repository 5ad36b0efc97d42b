// The checks of ETSI TR 101 290 V1.4.1, clause 5.2, as data.
//
// Not measured: 3.3 Buffer_error, 3.9 Empty_buffer_error and 3.10 Data_delay_error need the decoder's buffer
// model.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "fields/moment.h"

namespace meter {

enum class Check : uint8_t {
    kTsSyncLoss,
    kSyncByteError,
    kPatError2,
    kContinuityCountError,
    kPmtError2,
    kPidError,
    kTransportError,
    kCrcError,
    kPcrRepetitionError,
    kPcrDiscontinuityIndicatorError,
    kPcrAccuracyError,
    kPtsError,
    kCatError,
    kNitActualError,
    kNitOtherError,
    kSiRepetitionError,
    kUnreferencedPid,
    kSdtActualError,
    kSdtOtherError,
    kEitActualError,
    kEitOtherError,
    kEitPfError,
    kRstError,
    kTdtError,
    kCount
};
inline constexpr std::size_t kCheckCount = static_cast<std::size_t>(Check::kCount);

struct CheckInfo {
    const char* id;
    const char* name;
    uint8_t priority;
};
inline constexpr std::array<CheckInfo, kCheckCount> kChecks = {{
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
}};

// Limits of stream time. Where the number is the operator's, Settings has it.
inline constexpr Ticks kPatLimit = kTicksPerSecond / 2;    // 5.2.1, 1.3.a
inline constexpr Ticks kPmtLimit = kTicksPerSecond / 2;    // 5.2.1, 1.5.a
inline constexpr Ticks kCatLimit = kTicksPerSecond / 2;    // 5.2.2, 2.6, whose text has no time: as the PAT
inline constexpr Ticks kPcrStepLimit = 100 * kTicksPerMs;  // 5.2.2, 2.3.b
inline constexpr Ticks kPtsLimit = 700 * kTicksPerMs;      // 5.2.2, 2.5
inline constexpr Ticks kUnreferencedLimit = kTicksPerSecond / 2;  // 5.2.3, 3.4.a
inline constexpr Ticks kShortestInterval = 25 * kTicksPerMs;      // 5.2.3, of one section of the SI

// How often absences are looked for at least.
inline constexpr Ticks kLookInterval = 100 * kTicksPerMs;

}  // namespace meter
