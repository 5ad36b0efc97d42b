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
#include "measures/channelSample.h"

namespace station {

struct AlarmChange {
    enum class What : uint8_t { kRaised, kCleared, kHappened, kAcknowledged, kUnacknowledged };
    What what;
    Alarm alarm;  // as it is after the change; id 0 for kRaised and kHappened: the caller's
    std::chrono::milliseconds duration{0};  // kCleared
    std::string text;                       // a sentence: "12 packets lost within 10 s"
    std::string by{};                       // kUnacknowledged: who said it
};

// What somebody knows of a condition.
struct ConditionLook {
    std::optional<bool> wrong;  // nothing while it is not known, which leaves the alarm as it is
    SteadyTime since;           // when it is wrong: from when the raise delay runs
    double value;               // that the alarm has
};

// Who judges channels.
struct Judges {
    AlarmSource source = AlarmSource::kAuto;
    bool meter = true;     // there may be one
    bool pictures = true;  // may be taken

    bool operator==(const Judges&) const = default;
};

// All alarms of all channels and sources. No I/O, no clock of its own, one thread. The caller gives a raised
// alarm its id and its text with setRaise() before the next call.
//
// Delays and windows are reckoned by the times at which samples are observed. What a measure says nothing
// about is not judged: levels without a signal; the checks of intervals and tables (PAT, PMT, CRC, PCR, PTS)
// while no_signal is raised and just after; delay factor and jitter until kSettlingPackets have come after an
// interruption. A wall clock that is set is an interruption as well, since the probe stamps arrivals by it.
//
// What both the probe and the meter measure is judged by the meter of a channel that it delivers: samples
// come, and had packets since its counters began. Else, once none came for kMeterTime, by the probe.
//
// Takes about 3 KiB a channel; kCounter needs 24 bytes more for each second with errors in its window.
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
    static constexpr std::chrono::seconds kMeterTime{3};

    AlarmEngine();
    ~AlarmEngine();
    AlarmEngine(const AlarmEngine&) = delete;

    // Rules and channels from here on. An alarm whose type is disabled or whose channel is gone or disabled
    // is cleared; one whose channel has another severity now goes on with the new one.
    std::vector<AlarmChange> configure(const Profiles& profiles, const ChannelMap& channels, const Now& now,
                                       const Judges& judges = {});

    // Takes up alarms that were raised before the station was restarted: they are not raised anew, and clear
    // when their measure says so, those of counters not before their window has passed. Returns as cleared
    // those whose channel is gone or whose type is disabled or needs a meter, where there is none. REQUIRES:
    // configure() was called; ids are set.
    std::vector<AlarmChange> restore(const std::vector<Alarm>& alarms, const Now& now);

    // What a source says of a channel: judges what it measures.
    void observe(const Group& group, const ChannelSample& sample, const Now& now,
                 std::vector<AlarmChange>& changes);
    // A channel that the probe's snapshot should show and does not.
    void observeMissing(const Group& group, const Now& now, std::vector<AlarmChange>& changes);
    // About once a second, also when no snapshot comes. While a source is silent the alarms of what it
    // measures stay as they are (nothing is known); of the probe's silence probe_silent is raised.
    void tick(const ProbeLook& probe, const Now& now, std::vector<AlarmChange>& changes);
    // What others than samples tell of a condition (nothing when there is no such channel). About once a
    // second.
    void judge(std::size_t type, const Subject& about, const ConditionLook& look, const Now& now,
               std::vector<AlarmChange>& changes);
    // What others than samples count of a counter: so many since they told last, nothing while they do not
    // know, and in how many seconds, which is one where they do not say. About once a second.
    void count(std::size_t type, const Subject& about, std::optional<uint64_t> errors, const Now& now,
               std::vector<AlarmChange>& changes, std::optional<uint64_t> seconds = {});
    // Clears what was raised by a meter's figures and waits for a meter, which will not come.
    void giveUpMeter(const Now& now, std::vector<AlarmChange>& changes);
    // Likewise of what was raised by pictures.
    void giveUpPictures(const Now& now, std::vector<AlarmChange>& changes);
    // Clears this alarm of a channel, where it is raised: nobody can judge it any more.
    void giveUp(std::size_t type, const Group& group, std::string_view why, const Now& now,
                std::vector<AlarmChange>& changes);
    // What others than samples tell happened, of kind kEvent. Told now or, where the rule keeps events apart,
    // by a later tick().
    void happen(std::size_t type, const Subject& about, double value, std::string_view text, const Now& now,
                std::vector<AlarmChange>& changes);
    // The probe was started anew, and its numbers with it, which is no fault: probe_restarted happens.
    void probeRestarted(const Now& now, std::vector<AlarmChange>& changes);
    // All counters were cleared on demand, which is no fault.
    void countersCleared(const Now& now);

    void setRaise(std::size_t type, const Subject& about, int64_t id, std::string_view text);
    // A raised alarm is this one: it gets its id, time, text and acknowledgement.
    void identify(const Alarm& known);
    // False when no such alarm is raised. A second acknowledgement replaces the first.
    bool acknowledge(int64_t id, const Acknowledgement& acknowledgement, std::vector<AlarmChange>& changes);
    // The same of an alarm of active(), without a search; nothing takes its acknowledgement back. Without a
    // change where it is not raised any more, or was not acknowledged.
    void setAcknowledgement(const Alarm& alarm, const std::optional<Acknowledgement>& acknowledgement,
                            std::vector<AlarmChange>& changes);

    // By what an alarm is judged. REQUIRES: of a source, or of a channel that is known.
    const AlarmRule& rule(const Alarm& alarm) const;

    std::vector<Alarm> active() const;                      // newest first
    std::vector<Alarm> activeOf(const Group& group) const;  // worst first
    // Alarm while any is raised; waiting while nothing is known: no packet came since the channel was told or
    // the probe restarted, none came for the last snapshot, or the probe is silent; disabled also for a group
    // that is not configured.
    ChannelStatus status(const Group& group) const;
    // By whom a channel's alarms are judged that both can judge; so the channel's signal.
    Source judgeOf(const Group& group) const;

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
