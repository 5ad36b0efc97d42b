// How the packets of a channel come, by one source: whether they do, and what that says of its measures.
#pragma once

#include <cstdint>
#include <optional>

#include "alarms/alarmTracker.h"
#include "common/clock.h"
#include "measures/channelSample.h"

namespace station {

// One thread. `clockSteps` counts how often the wall clock was set.
class Arrivals {
  public:
    // As of a channel that was just told.
    void begin(uint64_t clockSteps) {
        clockSteps_ = clockSteps;
    }
    // Packets are awaited as from a channel that was just told.
    void awaitFirst();
    // What is awaited is awaited from the next sample on.
    void awaitAnew();
    // A sample whose counters started anew without packets, of a channel that had some.
    bool areLost(const ChannelSample& sample) const {
        return sample.first && !sample.signal && hadSignal_;
    }
    void follow(const ChannelSample& sample, uint64_t clockSteps, const Now& now);
    // A look that does not show the channel. Since when that is so.
    SteadyTime miss(const Now& now);

    // Whether packets come, by the sample that was followed last.
    Finding findSignal(const ChannelSample& sample, const Now& now) const;
    // Whether it is known that they come.
    bool known() const {
        return hadSignal_ && !interrupted_ && !missingSince_;
    }
    // Statistics of arrivals are those of the channel again, and not those of an interruption.
    bool isSettled(const ChannelSample& sample) const {
        return sample.received >= settledAt_;
    }
    // An interruption's own gap may be counted at this time, or from now on for a while.
    bool holdsGaps(const Now& now) const {
        return now.steady < gapsHeldUntil_;
    }
    void holdGaps(const Now& now);

  private:
    bool hadSignal_ = false;                  // packets came since it was told or the probe was restarted
    std::optional<SteadyTime> awaitedSince_;  // first look at a channel without packets so far
    std::optional<SteadyTime> missingSince_;  // not in the snapshots
    SteadyTime lastSignal_;                   // the last look that found packets
    bool interrupted_ = false;                // the last look found no packets
    uint64_t settledAt_ = AlarmEngine::kSettlingPackets;  // ChannelSample::received
    SteadyTime gapsHeldUntil_;
    uint64_t clockSteps_ = 0;  // when it was last looked at
};

}  // namespace station
