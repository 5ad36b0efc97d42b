// PCR accuracy (ETSI TR 101 290, 5.3.2.3, PCR_AC): how far PCRs are from a line through them and their
// places.
#pragma once

#include <span>
#include <vector>

#include "fields/moment.h"

namespace meter {

inline constexpr Ticks kAccuracyBlockSpan = kTicksPerSecond;
inline constexpr std::size_t kAccuracyBlockPcrs = 8;
inline constexpr double kAccuracyLimitNs = 500;

struct AccuracyFinding {
    std::size_t measured = 0;             // PCRs; 0: too few
    double worstNs = 0;                   // from the line, whichever side
    std::span<const Nanoseconds> beyond;  // arrivals of PCRs beyond the limit; valid until the next call
};

// PCRs of one clock from one end of a block to the next.
class AccuracyBlock {
  public:
    // A block with so many ends, however short it is: more than 2000 PCRs a second help nobody.
    static constexpr std::size_t kPcrsLimit = 2048;

    // `time`: PCR values summed up, so that they only grow.
    void add(uint64_t position, Ticks time, Nanoseconds arrival);
    bool full() const;
    // Measures what there is where the bit rate is constant, and begins anew.
    AccuracyFinding close(bool constant);
    std::size_t heldBytes() const {
        return points_.capacity() * sizeof(Point) + beyond_.capacity() * sizeof(Nanoseconds);
    }

  private:
    struct Point {
        uint32_t position;  // from the first one on
        uint32_t time;
        Nanoseconds arrival;
    };

    uint64_t firstPosition_ = 0;
    Ticks firstTime_ = 0;
    uint32_t lastTime_ = 0;  // of the newest point
    std::vector<Point> points_;
    std::vector<Nanoseconds> beyond_;
};

}  // namespace meter
