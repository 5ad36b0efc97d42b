// This machine's clocks.
#pragma once

#include <chrono>
#include <cstdint>

namespace meterd {

// ns since the Unix epoch.
inline int64_t wallNow() {
    return std::chrono::system_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
}
// ms of a clock that is never set.
inline int64_t nowMs() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
}

}  // namespace meterd
