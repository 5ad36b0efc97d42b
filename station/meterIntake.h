// What reports of the meter say of channels.
#pragma once

#include <string>
#include <vector>

#include "channelWatch.h"
#include "meter/meterMail.h"

namespace station {

// Makes samples of figures, with their growth, and has them heard. One thread, no input or output.
class MeterIntake {
  public:
    // Both have to outlive it.
    MeterIntake(ChannelWatch& watch, AlarmEngine& engine) : watch_(watch), engine_(engine) {}

    struct Cue {
        const Channel* channel;
        std::string text;
    };
    struct Result {
        std::vector<AlarmChange> changes;
        std::vector<Cue> cues;  // point into the channels
    };
    Result apply(const MeterMail::Batch& batch, const Now& now);

  private:
    void report(const Channel& channel, const std::vector<const MeterHappened*>& happened, const Now& now,
                Result& result);
    void observe(WatchedChannel& channel, const MeterFigures& figures, const Now& now,
                 std::vector<AlarmChange>& changes);

    ChannelWatch& watch_;
    AlarmEngine& engine_;
};

}  // namespace station
