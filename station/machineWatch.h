// What this machine does to the probe: joins by the wrong card, a lost link, packets that it drops itself.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "alarms/alarmEngine.h"
#include "machine/machineReader.h"
#include "probe/probeLink.h"
#include "state/state.h"

namespace station {

// What is found for the alarms not_joined, link_down and machine_drops.
struct MachineFindings {
    std::optional<bool> notJoined{};  // nothing while it is not known; likewise below
    double groups = 0;                // how many are not joined
    std::optional<bool> linkDown{};
    SteadyTime linkDownSince{};       // where it is
    std::optional<uint64_t> drops{};  // packets since the findings before
};

// Makes alarms' findings and sentences of readings, and says when the probe is to join groups again.
//
// One thread, no I/O.
class MachineWatch {
  public:
    // Groups are joined again only when their route has led to the right card for so long,
    static constexpr std::chrono::seconds kRouteSettles{2};
    // and this long after the last time, twice as long each time up to the bound. It begins anew once all
    // groups were joined for kJoinsHold.
    static constexpr std::chrono::seconds kFirstPause{10};
    static constexpr std::chrono::seconds kLongestPause{600};
    static constexpr std::chrono::seconds kJoinsHold{60};
    // A link that was never there since the station's start may just be coming up with the machine.
    static constexpr std::chrono::seconds kFirstLink{15};
    // The guard has a probe that captures nothing started anew before that.
    static constexpr std::chrono::seconds kCaptureTakes{20};
    // A packet socket that is new may be the meter's, which tells of it within that time.
    static constexpr std::chrono::seconds kCaptureSettles{4};
    // A card to which nothing came for so long receives nothing.
    static constexpr std::chrono::milliseconds kReceivesWithin{900};
    // A reading that is older says nothing.
    static constexpr std::chrono::seconds kReadingHolds{10};
    static constexpr std::chrono::seconds kDropsKept{600};  // as long as an alarm's window may be

    // What is known of the probe at that time.
    struct Probe {
        bool connected = false;                         // its snapshots come
        bool passive = false;                           // it joins nothing
        std::function<bool(const Group&)> hasSignal{};  // by the last snapshot
    };

    void apply(MachineReading&& reading);
    // About once a second.
    MachineFindings judge(const Probe& probe, SteadyTime now);
    // Groups that the probe is to leave and join again, once each time.
    Groups rejoin(const Now& now);

    // The sentence of an alarm that was just raised, or nothing for an alarm of another type.
    std::optional<std::string> raisedText(std::string_view type, const AlarmRule& rule, SteadyTime now) const;
    // To stand behind the text of a channel's alarm that is raised now: what this machine has to do with it.
    std::string remark(std::string_view type, const AlarmRule& rule, const Subject& about,
                       SteadyTime now) const;
    // Whether remark() would look at what is so at this moment, for which a reading may be too old.
    static bool goesByNow(std::string_view type);
    // What keeps a probe that is started from capturing, or empty.
    std::string captureProblem() const {
        return last_ && state_.known ? last_->advice.problem : std::string();
    }
    // Why a channel's group does not reach the probe, or empty.
    std::string note(const Group& group) const;

    // What is known of now: nothing of an old reading.
    MachineState state() const;
    // Why nothing is known of this machine, or empty.
    const std::string& problem() const {
        return state_.problem;
    }
    // The interface's name as it was last seen, or empty.
    std::string card() const {
        return state_.interface ? state_.interface->name : std::string();
    }

  private:
    struct Drops {
        uint64_t dropped = 0, missed = 0, fifo = 0, backlog = 0;

        // Some drivers count a frame as missed and as overrun.
        uint64_t sum() const {
            return dropped + std::max(missed, fifo) + backlog;
        }
    };

    void settleCapture(MachineReading& reading);
    void followCard(const MachineReading& reading);
    void followDrops(const MachineReading& reading);
    Drops dropsSince(SteadyTime time) const;
    std::string describeDrops(const Drops& drops) const;
    void followCapture(const Probe& probe, SteadyTime now);
    // `advice` stands right behind `what`, once, in the machine's own alarm and note.
    struct LinkProblem {
        std::string what;
        std::string advice;
    };
    LinkProblem describeLink() const;
    bool receives() const;
    std::string describeJoins() const;
    std::string describeDoubled() const;

    MachineState state_;  // as of the last reading that told something, but for `known` and `problem`
    std::string linkInShort_;
    std::optional<MachineReading> last_;
    SteadyTime previousTime_;  // of the reading before the last one
    bool hadLink_ = false;     // the card had a carrier since the station was started
    bool flapped_ = false;     // the carrier went and came between the last two readings
    bool gone_ = false;        // the card that there was is no more
    bool received_ = false;    // packets came to the card since the station was started
    SteadyTime receivedAt_;    // when a reading showed the last of them, or the card for the first time
    std::optional<SteadyTime> capturedSince_;  // somebody captures on the card, as readings tell
    std::optional<SteadyTime>
        uncapturedSince_;  // the card is well, and a probe that runs does not capture there
    SteadyTime firstReading_;
    bool anyReading_ = false;
    uint64_t newDrops_ = 0;  // since the last judge()
    struct Dropped {
        SteadyTime time;
        Drops drops;
    };
    std::deque<Dropped> drops_;  // readings with some, oldest first, at most kDropsKept

    std::map<Group, AstrayGroup> astray_;  // that the alarm is about
    std::optional<SteadyTime> rejoinableSince_;
    std::optional<SteadyTime> lastRejoin_;
    std::optional<SteadyTime> joinedSince_;
    SteadyTime::duration pause_ = kFirstPause;
    uint64_t rejoinsInARow_ = 0;  // since all groups were joined for kJoinsHold
};

}  // namespace station
