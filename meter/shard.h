// A thread's channels: their analysers, fed from the thread's own capture, and a second's reports of them.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "capture.h"
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
    explicit Shard(Share share) : share_(share) {}

    // Takes those groups of the list that are this share's: new ones begin, others end, the rest goes on.
    void watch(const WatchList& list);
    void feed(const meter::Datagram& datagram);
    // About ten times a second: nothing arrived until `now` (ns, the clock of arrivals).
    void tick(int64_t now);
    // The group was joined at that time (ns, the clock of arrivals).
    void joined(uint32_t group, int64_t now);
    // Descriptions are told again to whoever comes.
    void describeAnew();

    // The next reports of the second, at most `limit` groups, until all were there: `last` says so. Begins
    // anew with the first group then. Returns about how many bytes they add to the message.
    std::size_t report(std::size_t limit, metering::Second& second);
    // What happened since the last call.
    std::vector<metering::Happened> takeEvents();

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
    };

    Share share_;
    // Stable addresses: the last one found is kept.
    std::map<uint32_t, Channel> channels_;
    std::unordered_map<uint32_t, Channel*> byGroup_;
    uint64_t revision_ = 0;
    uint64_t nextEpoch_ = 0;
    uint32_t nextReport_ = 0;  // the group with which reports go on
};

}  // namespace meterd
