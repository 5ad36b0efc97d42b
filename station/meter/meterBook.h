// The newest report of each group, and what is known of the meter that sends them.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "channels/channel.h"
#include "common/clock.h"
#include "meter.pb.h"
#include "meter/meterMail.h"
#include "meter/meterReport.h"
#include "meter/meterState.h"

namespace station {

// All calls from any thread; at once.
class MeterBook {
  public:
    static constexpr std::size_t kBytes = std::size_t{96} * 1024 * 1024;  // of all; further ones are dropped
    static constexpr std::size_t kThreadsLimit = 64;                      // of a meter
    static constexpr std::chrono::seconds kSilence{3};
    // Cues that are kept of a channel, the newest; bytes of those of all channels: of one that goes beyond it
    // the oldest give way. They stay when the meter goes, and go with the channel.
    static constexpr std::size_t kCuesKept = 64;
    static constexpr std::size_t kCueBytes = std::size_t{32} * 1024 * 1024;

    MeterBook() = default;
    MeterBook(const MeterBook&) = delete;

    // For readers.
    // The newest report of a group that is watched; none when no meter is connected, or before its first.
    std::optional<MeterReport> find(const Group& group) const;
    // The newest of all groups.
    MeterReports all() const;
    // The group's cues, newest first.
    std::vector<MeterCue> cues(const Group& group) const;
    // Of all groups that have a report or a cue; of those whose report is too old the cues alone.
    MeterBriefs briefs(SteadyTime now) const;
    MeterState state(SteadyTime now) const;
    // What is for the owner.
    MeterMail& mail() {
        return mail_;
    }

    // For the port.
    // What may be reported from here on; what is kept of others is dropped.
    // `joins`: how many of them the meter is to join.
    void watch(std::set<uint32_t> groups, std::size_t leftOut, std::size_t joins = 0);
    bool watches(uint32_t group) const;
    void setConfigured(bool configured);
    void setProblem(const std::string& problem);
    void connected(const std::string& version, const Now& now);
    void disconnected(const Now& now);
    // A part of a thread's second, without its reports. False: it cannot be (a thread that cannot be there).
    bool second(const metering::Second& part, std::size_t reports, const Now& now);
    // False when there is no room for it; it is counted then.
    bool report(uint32_t group, MeterReport&& report);
    // One that is larger than a report may be: it is counted.
    void skipped();
    // A change, or a cue with its content.
    void happened(uint32_t group);
    void cue(uint32_t group, const metering::Cue& cue, const Now& now);

  private:
    struct Thread {
        metering::Capture capture;
        bool known = false;         // it told a second in this connection
        std::size_t reported = 0;   // in its last whole second
        std::size_t reporting = 0;  // in the one that is coming
    };
    struct Tally {
        MeterTallies told;  // but for the loss
        LossTally loss;
    };
    struct Cues {
        std::deque<MeterCue> kept;  // newest last
        std::optional<bool> out;
    };
    void drop(uint32_t group);
    void dropOldest(Cues& cues);
    void dropCues(uint32_t group);
    MeterReport withTallies(const std::pair<const uint32_t, MeterReport>& kept) const;

    MeterMail mail_;
    mutable std::mutex mutex_;  // guards what follows; no lock is taken while it is held
    MeterState state_;
    SteadyTime lastSecond_;
    std::set<uint32_t> watched_;
    std::map<uint32_t, MeterReport> reports_;  // their tallies are in the next
    std::map<uint32_t, Tally> tallies_;        // of groups that are watched; they stay when the meter goes
    std::map<uint32_t, Cues> cues_;
    std::size_t cueBytes_ = 0;
    std::size_t bytes_ = 0;
    uint64_t number_ = 0;
    std::vector<Thread> threads_;
};

}  // namespace station
