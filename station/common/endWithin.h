// A bound for the end of the process.
#pragma once

#include <chrono>
#include <thread>

namespace station {

// Has the process end with this status once the time is over, unless it ended before: what waits for a disk
// that hangs cannot be woken, and whoever ends the station is promised how long that takes. Says so in the
// log. Of several calls the one that is over first counts.
void endWithin(std::chrono::milliseconds time, int status);

// For a thread that blocks SIGTERM and SIGINT, has something take them later, and may wait for a disk until
// then: one that comes while this lives has the process end as endWithin() does, with status 0.
class EndOnSignal {
  public:
    explicit EndOnSignal(std::chrono::milliseconds time);
    ~EndOnSignal();
    EndOnSignal(const EndOnSignal&) = delete;

  private:
    std::jthread thread_;
};

}  // namespace station
