// Units of time and place inside the library. Whole numbers until a figure is shown.
#pragma once

#include <cstdint>

namespace meter {

using Nanoseconds = int64_t;  // arrival
using Ticks = int64_t;        // stream time and PCR: 27 MHz

inline constexpr Ticks kTicksPerSecond = 27'000'000;
inline constexpr Ticks kTicksPerMs = kTicksPerSecond / 1000;
inline constexpr Ticks kTicksPer90kHz = 300;
inline constexpr Ticks kPcrModulus = (Ticks{1} << 33) * kTicksPer90kHz;
inline constexpr Nanoseconds kNsPerSecond = 1'000'000'000;
inline constexpr Nanoseconds kNsPerMs = 1'000'000;
inline constexpr Nanoseconds kNsPerUs = 1000;

// 27 ticks are 1000 ns; split, so that no product overflows.
constexpr Nanoseconds toNanoseconds(Ticks ticks) {
    return ticks / 27 * 1000 + ticks % 27 * 1000 / 27;
}
constexpr Ticks toTicks(Nanoseconds ns) {
    return ns / 1000 * 27 + ns % 1000 * 27 / 1000;
}

// Where and when a packet is, from the begin of the analysis of the channel.
struct Moment {
    Nanoseconds arrival = 0;
    Ticks stream = 0;       // stream time, from the begin of the flow
    uint64_t position = 0;  // packets before this one, known missing ones included
    Nanoseconds wall = 0;   // since the Unix epoch; 0: not known
};

}  // namespace meter
