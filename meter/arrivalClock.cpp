#include "arrivalClock.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>

namespace meterd {

namespace {

constexpr int kTries = 5;

int64_t nanosecondsOf(clockid_t clock) {
    timespec time{};
    clock_gettime(clock, &time);
    return int64_t{time.tv_sec} * kNsPerSecond + time.tv_nsec;
}

}  // namespace

ClockReading readClocks() {
    ClockReading best;
    best.uncertainty = INT64_MAX;
    for (int i = 0; i < kTries; ++i) {
        const int64_t before = nanosecondsOf(CLOCK_MONOTONIC);
        const int64_t wall = nanosecondsOf(CLOCK_REALTIME);
        const int64_t after = nanosecondsOf(CLOCK_MONOTONIC);
        if (after - before < best.uncertainty) {
            best = {wall, before + (after - before) / 2, after - before};
        }
    }
    return best;
}

void ArrivalClock::look(const ClockReading& now) {
    const int64_t difference = now.wall - now.steady;
    const int64_t step = difference - difference_;
    if (std::abs(step) > std::max(kNoStep, now.uncertainty)) {
        before_ = difference_;
        difference_ = difference;
        stepped_ = true;
        ++steps_;
    }
    now_ = now.steady;
}

int64_t ArrivalClock::arrival(int64_t wall) {
    int64_t arrival = wall - difference_;
    if (stepped_) {
        const int64_t earlier = wall - before_;
        const auto fits = [&](int64_t when) { return when >= newest_ - kSlack && when <= now_ + kSlack; };
        if (!fits(arrival) && fits(earlier)) {
            arrival = earlier;
        }
    }
    arrival = std::min(arrival, now_ + kSlack);
    newest_ = std::max(newest_, arrival);
    return arrival;
}

}  // namespace meterd
