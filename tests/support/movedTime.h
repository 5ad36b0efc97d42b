// Time that tests move by hand.
#pragma once

#include "common/clock.h"

namespace station {

// Both clocks go on.
inline Now& operator+=(Now& now, std::chrono::milliseconds time) {
    now.steady += time;
    now.wall += time;
    return now;
}

}  // namespace station
