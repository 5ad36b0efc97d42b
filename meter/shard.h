// A thread's channels: their analysers, fed from the thread's own capture, and a second's reports of them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "capture.h"
#include "excerpts.h"
#include "framing.h"
#include "meter.pb.h"
#include "meter/channelAnalyser.h"

namespace meterd {

// As metering::Group, checked.
struct Watch {
    uint32_t group = 0;
    meter::Settings settings;
    bool join = false;

    // Whether one goes on where the other was; who joins makes no difference.
    bool measuresLike(const Watch& other) const;
};
struct WatchList {
    uint64_t revision = 0;
    std::vector<Watch> groups;
};

// Groups of a message: those that are multicast, each once, at most kGroupsLimit.
using metering::kGroupsLimit;
WatchList watchListOf(const metering::Groups& message);

// Analyses what it is given; does no input or output, and asks no clock. One thread at a time.
class Shard {
  public:
    // Bytes of a second, for all threads together; each has the part that its groups are of all groups.
    struct Limits {
        // Of a channel's levels at least its even part is told, more while others leave room for it.
        std::size_t levels = std::size_t{16} * 1024 * 1024;
        // Descriptions that are due go with it until so many bytes are told, the last one whole, the others
        // in the next seconds, in turn.
        std::size_t descriptions = std::size_t{8} * 1024 * 1024;
        // Of excerpts that are being taken. A tenth of a second may go beyond it.
        std::size_t excerpts = std::size_t{32} * 1024 * 1024;
    };
    explicit Shard(Share share) : Shard(share, Limits()) {}
    Shard(Share share, Limits limits) : share_(share), limits_(limits) {}

    // Takes those groups of the list that are this share's: new ones begin, others end, the rest goes on, and
    // all are described anew: who sent the list may have dropped what it knew of a group meanwhile.
    void watch(const WatchList& list);
    void feed(const meter::Datagram& datagram);
    // About ten times a second: nothing arrived until `now` (ns, the clock of arrivals).
    void tick(int64_t now);
    // The group was joined at that time (ns, the clock of arrivals).
    void joined(uint32_t group, int64_t now);
    // So many seconds until the last tick may have lost what arrived, on this machine.
    void disturbed(uint64_t seconds);
    // Descriptions are told again to whoever comes.
    void describeAnew();

    // The next reports of the second, at most `limit` groups, until all were there: `last` says so. The next
    // second begins with the first group whose description had no room. Returns about how many bytes they add
    // to the message.
    std::size_t report(std::size_t limit, metering::Second& second);
    // The second is given up: the next report begins one.
    void reportAnew() {
        turn_ = {.first = turn_.first};
    }
    // What happened since the last call.
    std::vector<metering::Happened> takeEvents();

    // An excerpt of the group is begun, which takeExcerpts() hands over, at `deadline` (ns, any clock) as far
    // as it came then.
    void beginExcerpt(ExcerptWanted wanted, int64_t deadline);
    // Hands over those that ended; where all together hold more than Limits::excerpts, the largest one,
    // without its content. `now`: by the clock of the deadlines. About ten times a second.
    void takeExcerpts(int64_t now);

    std::size_t groups() const {
        return channels_.size();
    }
    uint64_t revision() const {
        return revision_;
    }

  private:
    struct Channel {
        explicit Channel(const Watch& wanted, uint64_t number)
            : watch(wanted), analyser(wanted.settings), epoch(number) {}

        Watch watch;
        meter::ChannelAnalyser analyser;
        uint64_t epoch;
        std::size_t described = 0;  // hash of what was told last; 0: nothing
        std::optional<int64_t> joinedAt;
        std::optional<int64_t> firstAt;
        uint64_t disturbedSeconds = 0;
        int64_t disturbedAt = 0;
    };

    using Channels = std::map<uint32_t, Channel>;
    // The second that is being reported: from `first` on to the highest group, then from the lowest one.
    struct Turn {
        uint32_t first = 0;
        bool begun = false;
        uint32_t next = 0;
        bool wrapped = false;
        std::size_t levels = 0;         // bytes that are left for levels
        std::size_t even = 0;           // of them for each channel at least
        std::size_t channels = 0;       // that were not reported yet
        std::size_t descriptions = 0;   // bytes that are left for descriptions
        std::optional<uint32_t> put{};  // the first whose description is put off
    };
    void beginTurn();
    Channels::iterator nextOfTurn();
    std::size_t reportLevels(uint32_t group, const Channel& channel, const meter::Report& report,
                             metering::GroupReport& message);
    std::size_t reportDescription(uint32_t group, Channel& channel, const meter::Report& report,
                                  metering::GroupReport& message);

    Share share_;
    Limits limits_;
    // Stable addresses: the last one found is kept.
    Channels channels_;
    std::unordered_map<uint32_t, Channel*> byGroup_;
    uint64_t revision_ = 0;
    int64_t now_ = 0;  // of the last tick
    uint64_t nextEpoch_ = 0;
    std::size_t allGroups_ = 0;  // of the list, whoever's they are
    Turn turn_;
    // As many as somebody wants at a time, which he bounds.
    struct OpenExcerpt {
        ExcerptWanted wanted;
        int64_t deadline;
    };
    void dropLargestExcerpt();
    std::vector<OpenExcerpt> excerpts_;
};

}  // namespace meterd
