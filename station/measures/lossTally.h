// A channel's loss as counters that only grow, whatever counts it.
#pragma once

#include <cstdint>
#include <optional>

namespace metering {
class GroupReport;
}

namespace station {

// By what the best known figure of lost packets is counted.
enum class LossBasis : uint8_t { kNone, kCounter, kClock, kRtp };
LossBasis lossBasisOf(const metering::GroupReport& report);

// What a report says of loss. A figure by the clock or by RTP may fall while reports go on, and the best
// known one is another when its basis is.
struct LossFigures {
    uint64_t epoch = 0;
    bool disturbed =
        false;  // this machine lost packets itself, in this report's second or since the one before
    uint64_t disturbedSeconds = 0;
    LossBasis basis = LossBasis::kNone;
    int64_t best = 0;
    uint64_t byCounter = 0;
    int64_t byClock = 0;
    uint64_t byRtp = 0;
    uint64_t events = 0;
    int64_t rtpLost = 0;
    uint64_t rtpEvents = 0;
};
LossFigures lossOf(const metering::GroupReport& report, bool disturbed);

// Packets, but for the last two; all of them since the first report.
struct LossTotals {
    uint64_t best = 0;
    uint64_t disturbed = 0;  // of `best`: what was found missing while this machine lost packets itself
    uint64_t byCounter = 0;
    uint64_t byClock = 0;
    uint64_t byRtp = 0;
    uint64_t events = 0;
    uint64_t rtpLost = 0;  // datagrams
    uint64_t rtpEvents = 0;
};

// One channel's. Over a change of the basis the best figure grows by what the continuity counters found,
// which go on; another epoch's figures begin at 0.
class LossTally {
  public:
    void follow(const LossFigures& now);
    const LossTotals& totals() const {
        return totals_;
    }

  private:
    // The most that a figure has been: what is beyond it is new.
    class Highest {
      public:
        uint64_t raise(int64_t value);
        void restart(int64_t value);

      private:
        uint64_t value_ = 0;
    };

    std::optional<LossFigures> last_;
    LossTotals totals_;
    Highest best_, byClock_, rtpLost_;
};

}  // namespace station
