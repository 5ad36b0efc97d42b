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
// Whoever reaches the port may ask, so askers are told apart by their sequence numbers, which grow by one a
// request and at the pace of requests. One of them is told what to watch: the first, until it is silent and
// another asks in its place, or until snapshots show that it does not do what it is told and there is
// another.
//
// One thread; times by the steady clock.
class ProbeLink {
  public:
    static constexpr std::size_t kAddedPerAnswer = 200;
    static constexpr int kMissingSnapshots = 3;
    static constexpr std::size_t kAskers = 8;  // beyond, the one that was silent longest is forgotten

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
        kCame,      // first request, or the first after a silence
        kReplaced,  // another asks in place of the one that did: a probe that was started anew, most likely
        kAside,     // of another one than that which is told what to watch; its answer is empty
    };

    // Of the wanted groups it joins those of `passively`, a part of them, without IGMP: somebody else on this
    // machine joins them.
    void want(Groups groups, Groups passively = {});
    void setPassive(std::optional<bool> passive);
    void setIgmpLatency(std::optional<std::chrono::milliseconds> latency);
    // Has all counters start anew with the next answer to a probe that monitors.
    void clearCounters();
    // Has the probe leave and join these groups, as far as they are wanted. Their counters start anew, and
    // those of no other group.
    void rejoin(const Groups& groups);

    // A request came. answer() is called next.
    Event request(int32_t sequence, SteadyTime now);
    Answer answer(SteadyTime now);
    // What a snapshot showed that began at that time.
    void shown(const Groups& groups, SteadyTime began);

    bool scanning() const {
        return main_ && askers_.front().scanning;
    }
    // Whether somebody else asks beside the one that is told what to watch.
    bool secondAsker(SteadyTime now) const;

  private:
    struct Asker {
        int32_t firstSequence;
        int32_t sequence;
        SteadyTime last;
        bool repeats = false;   // asked more than once, with numbers that follow one another
        bool monitors = false;  // it asked again as soon as one that monitors does
        bool scanning = false;
    };
    struct Assignment {
        SteadyTime time;
        int missing = 0;   // snapshots in a row that began after it was told and do not show it
        int repeated = 0;  // how often it was told again
    };
    bool passiveWaits() const;
    static bool overdue(const Assignment& assignment);
    // Whether an answer in that mode is about this group's way of being joined.
    bool ofTurn(const Groups& passiveOnes, const Group& group) const {
        return !apart() || passiveOnes.contains(group) == passiveTurn_;
    }
    bool apart() const {
        return !passive_.value_or(false) && (!wantedPassively_.empty() || !heldPassively_.empty());
    }
    bool misjoined(const Group& group) const {
        return apart() && wantedPassively_.contains(group) != heldPassively_.contains(group);
    }
    std::vector<Group> nextRemovals(SteadyTime now);
    std::vector<Group> nextAdditions(SteadyTime now);
    std::vector<Group> nextRejoins(std::size_t bound, SteadyTime now);
    std::size_t removalsPerAnswer() const;
    bool listKnown(SteadyTime now) const;
    Asker* findAsker(int32_t sequence, SteadyTime now);
    Asker& addAsker(int32_t sequence, SteadyTime now);
    bool takesOver(const Asker& asker, SteadyTime now) const;
    void makeMain(Asker& asker, SteadyTime now);
    void noteAside(SteadyTime now);
    bool handOver(SteadyTime now);

    Groups wanted_;
    Groups wantedPassively_;  // of these
    std::map<Group, Assignment> assigned_;
    // The probe joins and leaves by the mode that its last answer has set, so that groups to be joined
    // passively and the others take turns.
    Groups heldPassively_;                 // of those that were told
    bool passiveTurn_ = false;             // the answer that is made now
    bool tookTurns_ = false;               // the mode is always told since
    Groups shown_;                         // by the last snapshot
    std::map<Group, SteadyTime> removed_;  // told to be removed, until a later snapshot is without it
    std::optional<bool> passive_;
    std::optional<std::chrono::milliseconds> igmpLatency_;
    bool clear_ = false;
    Groups rejoin_;  // to be removed and added again

    std::vector<Asker> askers_;  // the one that is told what to watch first
    bool main_ = false;          // there is one
    bool asideAsked_ = false;    // the last request was another's
    SteadyTime firstRequest_;    // of this run of the probe, as seen from here
    bool fresh_ = false;         // its run was seen from its begin: its list was empty
    bool snapshotSince_ = false;

    // Requests of others, without a pause of kAsideOver.
    int asides_ = 0;
    SteadyTime firstAside_;
    SteadyTime lastAside_;
};

}  // namespace station
