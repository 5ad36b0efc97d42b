// A bound for the end of the process.
#pragma once

#include <chrono>

namespace station {

// Has the process end with this status once the time is over, unless it ended before: what waits for a disk
// that hangs cannot be woken, and whoever ends the station is promised how long that takes. Says so in the
// log. To be called once, by the thread that ends all others.
void endWithin(std::chrono::milliseconds time, int status);

}  // namespace station
