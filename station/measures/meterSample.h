// Samples from the meter's reports.
#pragma once

#include <chrono>

#include "measures/channelSample.h"

namespace station {

// What a report says, whatever it holds: totals, levels and states, without growth. What takes more than one
// report is not known.
ChannelSample readTotals(const metering::GroupReport& report);

// Packets lost since another sample of the epoch, by the basis that the sample goes by.
uint64_t lossGrowth(const ChannelSample& sample, const ChannelSample& previous);

// Adds the growth since the previous sample of the channel, null where there was none: none in another epoch,
// and of what follows from loss no faults where this machine may have lost that itself.
void takeGrowth(ChannelSample& sample, const ChannelSample* previous,
                std::chrono::steady_clock::duration sincePrevious);

}  // namespace station
