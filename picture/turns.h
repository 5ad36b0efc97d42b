// Whose turn it is.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "exchange.h"
#include "share.h"

namespace pictured {

struct WantedChannel {
    uint32_t group = 0;  // host byte order
    bool urgent = false;
    bool lookedAt = false;
    bool audio = false;
};

// A state machine of all channels' turns; time is given in, and it does no input or output. One thread.
//
// A turn begins when share, window and pace allow it: the share has processor time for it beside those that
// are open; of these there are at most as many as the meter takes; and where there is plenty of both, turns
// are spread over picturing::kLeastInterval, which no channel is asked again within. Channels without a turn
// yet come first and are not spread. Then those that are urgent or looked at, but of kPreferred + 1 turns one
// is another channel's, so that these go round however many alarms there are. Among equals the one that has
// waited for longest.
//
// A channel of which kWorkerDeaths workers died within kLeftOutTime is left out for as long.
class Turns {
  public:
    static constexpr int kPreferred = 3;

    struct Turn {
        uint64_t id = 0;
        uint32_t group = 0;
        bool audio = false;
    };
    struct LeftOut {
        uint32_t group;
        Time until;
        std::string why;
    };

    // All channels, in place of those before; at most kChannelsLimit are taken. Open turns of others are
    // over.
    void setChannels(const std::vector<WantedChannel>& channels, double cores);

    // Takes notice of processor time taken so far, and begins a turn, when there is one to begin.
    std::optional<Turn> next(Time now, microseconds taken);
    // When one may begin at the earliest, as things are; at most a second from now.
    Time nextAt(Time now) const;

    // What the turn of this id is about; empty: it is over, or never was.
    std::optional<Turn> open(uint64_t id) const;
    std::size_t openTurns() const {
        return open_.size();
    }
    // Turns that were begun before `since` and are open.
    std::vector<Turn> begunBefore(Time since) const;

    // Ends a turn. `cost`: what its worker took.
    void finished(uint64_t id, Time now, std::optional<microseconds> cost);
    // The meter takes no more at a time than are open but this one, whose channel is asked again soon.
    void refused(uint64_t id, Time now);
    // Its worker died, in words for people; ends the turn.
    void killed(uint64_t id, Time now, const std::string& why, microseconds cost);
    // Whoever was asked is gone; ends the turn.
    void abandoned(uint64_t id);

    std::vector<LeftOut> leftOut(Time now) const;
    // Of a channel that is neither urgent nor looked at, by what a turn took lately; unknown without channels
    // or share.
    std::optional<double> intervalSeconds() const;
    double cores() const {
        return share_.cores();
    }
    std::size_t channels() const {
        return channels_.size();
    }
    bool has(uint32_t group) const {
        return channels_.count(group) != 0;
    }

  private:
    struct Channel {
        WantedChannel wanted;
        bool fresh = true;  // no turn was its yet
        Time due{};         // it has none before
        uint64_t open = 0;  // its turn; 0: it waits in a queue
        std::vector<Time> deaths{};
        Time leftOutUntil{};
        std::string why{};

        bool preferred() const {
            return wanted.urgent || wanted.lookedAt;
        }
    };
    struct OpenTurn {
        Turn turn;
        Time began;
    };
    // Waiting channels by when they are due, which is the order of their turns.
    using Queue = std::set<std::pair<Time, uint32_t>>;

    Queue& queueOf(const Channel& channel);
    void enqueue(const Channel& channel);
    void dequeue(const Channel& channel);
    Queue* choose(Time now);
    Channel* end(uint64_t id);
    Clock::duration spacing() const;  // between turns, where there is plenty of share and window

    std::map<uint32_t, Channel> channels_;
    std::map<uint64_t, OpenTurn> open_;
    Queue fresh_;
    Queue preferred_;
    Queue others_;
    int preferredInRow_ = 0;
    Share share_;
    std::size_t window_ = picturing::kWantedLimit;
    uint64_t lastId_ = 0;
    std::optional<Time> last_;  // when a turn began
    double turnSeconds_ = 2;    // from its beginning to its end, lately
};

}  // namespace pictured
