// Samples from the probe's records.
#pragma once

#include <chrono>
#include <span>

#include "measures/channelSample.h"

namespace station {

// Makes the sample from a channel's records (the stream record and its PIDs) and the previous sample.
// `previous` is null for a channel that was not in a snapshot before.
ChannelSample makeSample(const Record& stream, std::span<const Record> pids, const ChannelSample* previous,
                         std::chrono::steady_clock::duration sincePrevious);

}  // namespace station
