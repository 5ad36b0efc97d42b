// From the kernel's time stamps, which go by the wall clock, to a clock that is never set.
#pragma once

#include <cstdint>

namespace meterd {

inline constexpr int64_t kNsPerSecond = 1'000'000'000;

// Both clocks read at the same moment, in ns.
struct ClockReading {
    int64_t wall = 0;
    int64_t steady = 0;
    int64_t uncertainty = 0;  // how far apart the two may have been read
};
// CLOCK_REALTIME and CLOCK_MONOTONIC, the closest of a few tries.
ClockReading readClocks();

// A step of the wall clock moves no arrival: stamps from before it and from behind it are told apart by where
// they would come to lie. Both clocks are slewed alike, so that between steps their difference stays.
class ArrivalClock {
  public:
    explicit ArrivalClock(const ClockReading& now)
        : difference_(now.wall - now.steady), newest_(now.steady) {}

    // Now and then, at least before each batch of frames.
    void look(const ClockReading& now);
    // When the frame with this stamp arrived, by the steady clock. Not later than the last look and a
    // millisecond.
    int64_t arrival(int64_t wall);

    // The wall clock's steps that were seen.
    uint64_t steps() const {
        return steps_;
    }

  private:
    static constexpr int64_t kSlack = 1'000'000;  // ns that stamps of one queue may be out of order
    static constexpr int64_t kNoStep = 100'000;   // ns: below, it is the reading

    int64_t difference_;
    int64_t before_ = 0;  // the difference before the last step
    bool stepped_ = false;
    int64_t now_ = INT64_MAX - kSlack;
    int64_t newest_;  // arrival
    uint64_t steps_ = 0;
};

}  // namespace meterd
