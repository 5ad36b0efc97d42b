// Alarms that began together and share something: one fault, one incident.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "alarms/alarm.h"

namespace station {

// What alarms have in common.
struct Shared {
    enum class Kind : uint8_t { kChannel, kSender, kLabel, kMachine };  // kMachine: probe, meter, card, link
    Kind kind = Kind::kMachine;
    std::string name{};   // the label's
    std::string value{};  // the channel's group, the sender's address or the label's value

    // "channel 239.1.1.1", "sender 10.0.0.1", "site=north" or "this machine".
    std::string text() const;
    auto operator<=>(const Shared&) const = default;  // NOLINT(modernize-use-nullptr): as Group's
};
std::string_view sharedKindName(Shared::Kind kind);  // "channel", "sender", "label", "machine"
std::optional<Shared::Kind> parseSharedKind(std::string_view name);

struct Incident {
    int64_t id = 0;  // of its first alarm: never given twice
    Shared shared{};
    WallTime began{};
    WallTime last{};         // when the newest of its alarms began
    std::size_t alarms = 0;  // that belong or belonged to it
    std::size_t active = 0;  // of them, raised
    std::size_t channels = 0;
    std::size_t covered = 0;    // channels that have in common what is shared
    std::size_t firstType = 0;  // of its first alarm
    Subject firstAbout = Source::kProbe;
    std::string firstText{};
    std::optional<WallTime> over{};  // since when none of its alarms is raised

    bool operator==(const Incident&) const = default;
};

// An incident as it is, and which alarms came to it.
struct IncidentChange {
    Incident incident;
    std::vector<int64_t> joined{};
};

// Puts alarms together. No I/O, no clock of its own, one thread.
//
// An alarm belongs to a chain as long as each began within kGap of one before and all within kSpan. Of what
// the alarms of a chain share counts what explains most: each channel that is in alarm speaks for it, each
// channel that shares it and is well speaks against it, by kAgainst of one. So a label of 900 channels does
// not explain two, and one that 2 of 2 have does. kMany channels at once are no chance, whatever is well
// beside them. What is wrong with this machine and concerns all channels (probe, meter, card, link) explains
// whatever else begins with it, where nothing narrower does as well; of what concerns some of them alone
// (groups that are not joined), as of anything else, channels that are well speak against this machine. Of
// what explains the same the narrowest is taken. An alarm by itself is no incident, and an incident never
// gives one away; it may turn out to share something wider than it seemed.
class Incidents {
  public:
    static constexpr std::chrono::seconds kGap{10};
    static constexpr std::chrono::seconds kSpan{60};
    static constexpr double kAgainst = 0.25;
    static constexpr double kAgainstMachine = 0.5;  // every channel shares it
    static constexpr std::size_t kMany = 10;
    static constexpr std::size_t kLone = 20'000;  // waiting for others; beyond, the oldest stay alone
    static constexpr std::size_t kAtOnce = 20;    // incidents that one call makes or widens
    static constexpr std::size_t kOver = 100;     // newest kept of those that are over and not wanted

    // How many channels share what. To be called when channels change.
    void setChannels(const ChannelMap& channels);

    // Alarms that were raised a moment ago, with their ids.
    std::vector<IncidentChange> raise(std::span<const Alarm> raised, const Now& now);
    // An alarm is over. What became of its incident; nothing where it had none.
    std::optional<IncidentChange> clear(int64_t alarm, const Now& now);
    // Takes up what was stored: of each incident those of the raised alarms that are of it (Alarm::incident).
    // One without any that is not wanted is forgotten, and returned.
    std::vector<int64_t> restore(std::span<const Incident> stored, std::span<const Alarm> raised,
                                 const std::set<int64_t>& wanted, const Now& now);
    // Of incidents that are over the newest kOver stay, and those that are wanted. To be called now and then.
    void forgetOver(const std::set<int64_t>& wanted);

    // 0: by itself.
    int64_t incidentOf(int64_t alarm) const;
    const Incident* find(int64_t incident) const;
    std::vector<Incident> all() const;  // newest first, also those that are over

  private:
    struct Candidate {
        Alarm alarm;
        std::vector<Shared> keys;  // what it could share
        SteadyTime at;
        bool cleared = false;
    };
    // Whom alarms are about.
    struct Concerned {
        std::set<Subject> subjects{};
        bool all = false;  // one of this machine is among them that concerns all channels

        void add(const Alarm& alarm);
        void add(const Concerned& others);
    };
    struct State {
        Incident incident{};
        SteadyTime first{};
        SteadyTime last{};
        std::vector<Shared> common{};  // to all of its alarms, in order
        Concerned concerned{};
        std::set<int64_t> raised{};
    };
    struct Proposal {
        double gain = 0;
        std::size_t population = 0;
        Shared key{};
        State* wider = nullptr;  // null: a new incident
    };

    std::vector<Shared> keysOf(const Alarm& alarm) const;
    std::size_t population(const Shared& key) const;
    double score(const Shared& key, const Concerned& concerned) const;
    static bool isOpen(const State& state, SteadyTime now);
    void forgetOld(const Now& now);
    void joinOpen(const Now& now, std::map<int64_t, IncidentChange>& changes);
    Proposal propose(const Now& now);
    void join(State& state, const Shared& key, std::map<int64_t, IncidentChange>& changes);
    void take(State& state, const Candidate& candidate, IncidentChange& change);

    std::map<Group, std::vector<Shared>> channelKeys_;
    std::map<Shared, std::size_t> populations_;
    std::size_t channels_ = 0;
    std::map<int64_t, Candidate> lone_;  // by alarm: raised within kGap and by themselves so far
    std::map<int64_t, State> states_;    // by incident
    std::map<int64_t, int64_t> of_;      // raised alarm -> incident
};

}  // namespace station
