// Times as the tables have them: milliseconds since 1970-01-01 00:00 UTC.
#pragma once

#include <chrono>
#include <cstdint>

#include "common/clock.h"

namespace station {

inline int64_t storedTime(WallTime time) {
    return time.time_since_epoch().count();
}

inline WallTime wallTime(int64_t stored) {
    return WallTime(std::chrono::milliseconds(stored));
}

}  // namespace station
