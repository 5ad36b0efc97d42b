// Lengths of time as alarms tell them.
#pragma once

#include <chrono>

#include "common/clock.h"

namespace station {

inline double inSeconds(SteadyTime::duration time) {
    return std::chrono::duration<double>(time).count();
}

inline std::chrono::milliseconds toMilliseconds(SteadyTime::duration time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time);
}

}  // namespace station
