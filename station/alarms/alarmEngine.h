// Decides which alarms are raised.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "alarms/alarm.h"
#include "alarms/channelSample.h"

namespace station {

struct AlarmChange {
    enum class What : uint8_t { kRaised, kCleared, kHappened, kAcknowledged };
    What what;
    Alarm alarm;  // as it is after the change; id 0 for kRaised and kHappened: the caller's
    std::chrono::milliseconds duration{0};  // kCleared
    std::string text;                       // a sentence: "12 packets lost within 10 s"
};

// All alarms of all channels and of the probe. No I/O, no clock of its own, one thread. The caller gives a
// raised alarm its id with setId() before the next call.
class AlarmEngine {
  public:
    AlarmEngine();
    ~AlarmEngine();
    AlarmEngine(const AlarmEngine&) = delete;

    // Rules and channels from here on. An alarm whose type is disabled or whose channel is gone or disabled
    // is cleared; one whose channel has another severity now goes on with the new one.
    std::vector<AlarmChange> configure(const Profiles& profiles, const ChannelMap& channels, const Now& now);

    // Takes up alarms that were raised before the station was restarted: they are not raised anew, and clear
    // when their measure says so. REQUIRES: configure() was called; ids are set.
    void restore(const std::vector<Alarm>& alarms, const Now& now);

    // A channel's sample of this snapshot.
    void observe(const Group& group, const ChannelSample& sample, const Now& now,
                 std::vector<AlarmChange>& changes);
    // A channel that a snapshot should show and does not.
    void observeMissing(const Group& group, const Now& now, std::vector<AlarmChange>& changes);
    // About once a second, also when no snapshot comes. While the probe is silent the channels' alarms stay
    // as they are (nothing is known), and probe_silent is raised.
    void tick(bool probeSilent, const Now& now, std::vector<AlarmChange>& changes);
    // The probe's sequence numbers started anew: probe_restarted happens; all counters start anew, which is
    // no fault.
    void probeRestarted(const Now& now, std::vector<AlarmChange>& changes);
    // All counters were cleared on demand, which is no fault.
    void countersCleared(const Now& now);

    void setId(std::size_t type, std::optional<Group> group, int64_t id);
    // False when no such alarm is raised. A second acknowledgement replaces the first.
    bool acknowledge(int64_t id, const Acknowledgement& acknowledgement, std::vector<AlarmChange>& changes);

    std::vector<Alarm> active() const;                      // newest first
    std::vector<Alarm> activeOf(const Group& group) const;  // worst first

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
