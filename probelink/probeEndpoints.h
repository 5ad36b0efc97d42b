// Where the probe and its controllers and readers meet.
#pragma once

namespace probelink {

// The named pipe that carries the results.
inline constexpr const char* RESULTS_FIFO_PATH = "/tmp/american_maid";

// The probe connects here, the controller listens.
inline constexpr const char* kControllerEndpoint = "tcp://127.0.0.1:5999";

}  // namespace probelink
