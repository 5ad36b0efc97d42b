// What is kept of one channel's alarms, whoever measures it, and how a sample is judged.
#pragma once

#include <map>
#include <vector>

#include "alarms/alarmTracker.h"
#include "alarms/arrivals.h"

namespace station {

// No I/O, no clock of its own, one thread.
struct ChannelAlarms {
    SubjectAlarms subject;
    bool enabled = true;
    BySource<Arrivals> arrivals{};
    int missing = 0;  // video and audio streams, by the meter
    SteadyTime stampsHeldUntil{};
    SteadyTime metered{};                      // the last sample of the meter that delivers the channel
    std::map<std::size_t, int> properties{};   // by type, as of the last datagram that was judged
    std::map<std::size_t, SteadyTime> came{};  // kAbsence, by type: since when it is awaited

    // What is not counted of a sample.
    struct Held {
        bool gaps = false;      // what an interruption causes by itself
        bool counters = false;  // of any kind: they were cleared a moment ago
    };

    // Before a sample of the meter is judged; `judges`: it may be the one whose figures count.
    void followMeter(const ChannelSample& sample, bool judges, const Now& now);
    void leaveMeter(const Now& now);
    void awaitFirstPacket(Source source);
    // By all types that go by measures of the sample's source where that is whose figures count, but for
    // no_signal.
    void judge(const ChannelSample& sample, const Held& held, const Now& now,
               std::vector<AlarmChange>& changes);

  private:
    Finding findAbsence(std::size_t type, const ChannelSample& sample, const Now& now);
    void judgeCounted(std::size_t type, const Count& count, bool held, Source source, const Now& now,
                      std::vector<AlarmChange>& changes);
    void followProperty(std::size_t type, const ChannelSample& sample, const Now& now,
                        std::vector<AlarmChange>& changes);
};

}  // namespace station
