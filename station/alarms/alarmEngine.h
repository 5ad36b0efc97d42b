// Decides which alarms are raised.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
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

// What somebody knows of a condition.
struct ConditionLook {
    std::optional<bool> wrong;  // nothing while it is not known, which leaves the alarm as it is
    SteadyTime since;           // when it is wrong: from when the raise delay runs
    double value;               // that the alarm has
};

// All alarms of all channels and of the probe. No I/O, no clock of its own, one thread. The caller gives a
// raised alarm its id and its text with setRaise() before the next call.
//
// Delays and windows are reckoned by the times at which samples are observed. What a measure says nothing
// about is not judged: levels without a signal; the checks of intervals and tables (PAT, PMT, CRC, PCR, PTS)
// while no_signal is raised and just after; delay factor and jitter until kSettlingPackets have come after an
// interruption. A wall clock that is set is an interruption as well, since the probe stamps arrivals by it.
//
// Takes about 2 KiB a channel; kCounter needs 16 bytes more for each second with errors in its window.
class AlarmEngine {
  public:
    // A channel that never had a packet is given so long beyond no_signal's raise delay, from the first
    // snapshot that shows it: joining a group takes its time.
    static constexpr std::chrono::seconds kFirstPacketTime{5};
    // A channel that snapshots do not show is given so long beyond that delay: it is told again until then.
    static constexpr std::chrono::seconds kMissingTime{15};
    // The delay factor goes by a bit rate that is measured twice over 70000 packets, the jitter by two blocks
    // of 4096 datagrams of up to seven packets.
    static constexpr uint64_t kSettlingPackets = 140'000;

    AlarmEngine();
    ~AlarmEngine();
    AlarmEngine(const AlarmEngine&) = delete;

    // Rules and channels from here on. An alarm whose type is disabled or whose channel is gone or disabled
    // is cleared; one whose channel has another severity now goes on with the new one.
    std::vector<AlarmChange> configure(const Profiles& profiles, const ChannelMap& channels, const Now& now);

    // Takes up alarms that were raised before the station was restarted: they are not raised anew, and clear
    // when their measure says so, those of counters not before their window has passed. Returns as cleared
    // those whose channel is gone or whose type is disabled. REQUIRES: configure() was called; ids are set.
    std::vector<AlarmChange> restore(const std::vector<Alarm>& alarms, const Now& now);

    // A channel's sample of this snapshot.
    void observe(const Group& group, const ChannelSample& sample, const Now& now,
                 std::vector<AlarmChange>& changes);
    // A channel that a snapshot should show and does not.
    void observeMissing(const Group& group, const Now& now, std::vector<AlarmChange>& changes);
    // About once a second, also when no snapshot comes. While the probe is silent the channels' alarms stay
    // as they are (nothing is known), and probe_silent is raised.
    void tick(const ProbeLook& probe, const Now& now, std::vector<AlarmChange>& changes);
    // What others than records tell of a condition of a channel (nothing when there is none of that group)
    // or, without a group, of the probe. About once a second.
    void judge(std::size_t type, const std::optional<Group>& group, const ConditionLook& look, const Now& now,
               std::vector<AlarmChange>& changes);
    // What others than records count of a counter: so many since they told last. About once a second.
    void count(std::size_t type, const std::optional<Group>& group, uint64_t errors, const Now& now,
               std::vector<AlarmChange>& changes);
    // The probe was started anew, and its numbers with it, which is no fault: probe_restarted happens.
    void probeRestarted(const Now& now, std::vector<AlarmChange>& changes);
    // All counters were cleared on demand, which is no fault.
    void countersCleared(const Now& now);

    void setRaise(std::size_t type, const std::optional<Group>& group, int64_t id, std::string_view text);
    // A raised alarm is this one: it gets its id, time, text and acknowledgement.
    void identify(const Alarm& known);
    // False when no such alarm is raised. A second acknowledgement replaces the first.
    bool acknowledge(int64_t id, const Acknowledgement& acknowledgement, std::vector<AlarmChange>& changes);

    // By what an alarm is judged. REQUIRES: of the probe, or of a channel that is known.
    const AlarmRule& rule(const Alarm& alarm) const;

    std::vector<Alarm> active() const;                      // newest first
    std::vector<Alarm> activeOf(const Group& group) const;  // worst first
    // Alarm while any is raised; waiting while nothing is known: no packet came since the channel was told or
    // the probe restarted, none came for the last snapshot, or the probe is silent; disabled also for a group
    // that is not configured.
    ChannelStatus status(const Group& group) const;

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
