// The pace that a bare file begins with: that of its first PCRs.
#pragma once

#include <optional>
#include <vector>

#include "clocks/streamTime.h"
#include "fields/packet.h"
#include "meter/settings.h"

namespace meter {

class FirstPace {
  public:
    // Bytes of a file's begin that are searched for PCRs, and PIDs that are told apart there.
    static constexpr std::size_t kHeadLimit = 32 * 1024 * 1024;
    static constexpr std::size_t kClocksLimit = 64;

    explicit FirstPace(const Settings& settings)
        : known_(!settings.bare || settings.bitrate.value_or(0) > 0) {}

    // Whether nothing is searched any more.
    bool done() const {
        return known_;
    }
    void giveUp() {
        known_ = true;
    }
    // The next packets; returns the pace when it is found.
    std::optional<Pace> search(Bytes packets);

  private:
    struct Clock {
        uint16_t pid;
        ClockTrack track;
    };

    bool known_;
    StreamTime time_;
    uint64_t position_ = 0;
    std::vector<Clock> clocks_;
};

}  // namespace meter
