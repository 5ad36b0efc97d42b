// PTS and DTS: 33 bits of 90 kHz (ISO/IEC 13818-1 2.4.3.7).
#pragma once

#include <optional>

#include "fields/moment.h"

namespace meter {

inline constexpr Ticks kTimeStampModulus = Ticks{1} << 33;
inline constexpr Ticks kTimeStampsPerMs = 90;
inline constexpr Ticks kTimeStampsPerSecond = 90'000;

// The way from one time stamp to a later one, over the wrap; nothing where it leads back or by a minute and
// more, which is a discontinuity.
inline std::optional<Ticks> timeStampStep(Ticks from, Ticks to) {
    constexpr Ticks kLimit = 60 * kTimeStampsPerSecond;
    const Ticks step = (to - from) & (kTimeStampModulus - 1);
    return step > 0 && step < kLimit ? std::optional(step) : std::nullopt;
}

}  // namespace meter
