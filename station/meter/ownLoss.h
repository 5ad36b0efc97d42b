// What this machine itself lost of what the meter was to measure.
#pragma once

#include <cstdint>
#include <deque>
#include <limits>
#include <optional>

#include "meter.pb.h"
#include "meter/lossCounts.h"

namespace station {

// At most so much is missing of what reports of a second tell: a loss is found when the next packet comes,
// which may be a second or two later.
struct OwnLoss {
    static constexpr uint64_t kUnknown = std::numeric_limits<uint64_t>::max();

    uint64_t frames = 0;  // kUnknown: nobody can say, since nothing was captured
    bool much = false;    // of all frames so many that rates and pauses need not be the channels'
};

LossCounts lossCounts(const metering::Capture& capture);

// Of one thread of a meter, from its first second in a connection on: what was lost before is nobody's. One
// thread.
class OwnLossWatch {
  public:
    // Of the frames of the latest seconds; so many in a row take a hundredth of a second.
    static constexpr double kMuch = 0.01;

    // Each part of a second once; further parts say the same as the first.
    const OwnLoss& second(const metering::Second& part);

  private:
    static constexpr uint64_t kHolds = 2;  // seconds behind the one of the loss

    struct Lost {
        uint64_t number;
        uint64_t dropped;
        uint64_t taken;
        bool blind;  // nothing was captured for some of it
    };

    std::optional<LossCounts> counts_;
    uint64_t frames_ = 0;
    uint64_t told_ = 0;        // number of the last second, by the meter
    uint64_t number_ = 0;      // likewise, one at least behind the one before
    std::deque<Lost> lately_;  // kHolds + 1 at most
    OwnLoss loss_;
};

}  // namespace station
