// The checks of ETSI TR 101 290 V1.4.1, clause 5.2, and their limits.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "basics/tr101290.h"
#include "fields/moment.h"

namespace meter {

// By their places in basics::kChecks.
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

static_assert(basics::kChecks.size() == kCheckCount);

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
