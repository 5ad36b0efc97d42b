// The viewer of the results.
#pragma once

#include <chrono>
#include <string>

struct WatchOptions {
    bool once = false;
    bool json = false;
    std::chrono::milliseconds timeout;  // how long a snapshot that is wanted once may take
    std::string station;                // the station's socket; where none listens there, the pipe is read
};

// Shows snapshots as they come: one with `once`, otherwise without end. Returns the exit status: 1 when there
// is no results pipe or no snapshot came in time. Throws LinkError when the station refuses.
int runWatch(const WatchOptions& options);
