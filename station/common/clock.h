// Time as the station uses it: durations by a clock that never steps, stamps by the wall clock.
#pragma once

#include <chrono>
#include <functional>

namespace station {

using SteadyTime = std::chrono::steady_clock::time_point;
using WallTime = std::chrono::sys_time<std::chrono::milliseconds>;

// One moment on both clocks. Delays, windows and ages are reckoned from `steady`, whatever happens to the
// wall clock; `wall` is only shown and stored.
struct Now {
    SteadyTime steady;
    WallTime wall;
};

// Where a room gets the time from; tests pass one that they move.
using ClockFunction = std::function<Now()>;

inline Now systemNow() {
    return {std::chrono::steady_clock::now(),
            std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now())};
}

}  // namespace station
