// What to tell the probe: a state machine without I/O.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "channels/channel.h"
#include "common/clock.h"

namespace station {

using Groups = std::set<Group>;

// Keeps the probe's channel list equal to the wanted groups. Told are only IPv4 multicast groups, and only to
// a probe that monitors: one that scans asks at another pace and would end by a group that it has already.
//
// One thread; times by the steady clock.
class ProbeLink {
  public:
    static constexpr std::size_t kAddedPerAnswer = 200;
    static constexpr int kMissingSnapshots = 3;

    // One answer. The order in which the probe acts on it is the members'.
    struct Answer {
        bool clearAll = false;  // stands alone: an answer with a response is not looked at for it
        std::optional<bool> passive;
        std::vector<Group> remove;
        std::vector<Group> append;
        std::optional<std::chrono::milliseconds> igmpLatency;
    };

    enum class Event : uint8_t {
        kNone,
        kCame,       // first request, or the first after a silence
        kRestarted,  // its sequence numbers started anew
    };

    void want(Groups groups);
    void setPassive(std::optional<bool> passive);
    void setIgmpLatency(std::optional<std::chrono::milliseconds> latency);
    // Has all counters start anew with the next answer to a probe that monitors.
    void clearCounters();

    // A request came. answer() is called next.
    Event request(int32_t sequence, SteadyTime now);
    Answer answer(SteadyTime now);
    // What a snapshot showed that began at that time.
    void shown(const Groups& groups, SteadyTime began);

    bool scanning() const {
        return scanning_;
    }

  private:
    struct Told {
        SteadyTime time;
        int missing = 0;   // snapshots in a row that began after it was told and do not show it
        int repeated = 0;  // how often it was told again
    };
    std::vector<Group> nextRemovals(SteadyTime now);
    std::vector<Group> nextAdditions(SteadyTime now);
    bool listKnown(SteadyTime now) const;

    Groups wanted_;
    std::map<Group, Told> told_;
    Groups shown_;                         // by the last snapshot
    std::map<Group, SteadyTime> removed_;  // told to be removed, until a later snapshot is without it
    std::optional<bool> passive_;
    std::optional<std::chrono::milliseconds> igmpLatency_;
    bool clear_ = false;

    std::optional<int32_t> sequence_;
    SteadyTime lastRequest_;
    SteadyTime firstRequest_;  // of this run of the probe, as seen from here
    bool fresh_ = false;       // its run was seen from its first request: its list was empty
    bool snapshotSince_ = false;
    bool monitors_ = false;  // it asked again as soon as one that monitors does
    bool scanning_ = false;
};

}  // namespace station
