// Times between datagrams: of the last second, and as a histogram of the last minute.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <limits>
#include <optional>
#include <vector>

#include "fields/moment.h"
#include "meter/report.h"
#include "packets/secondRing.h"

namespace meter {

class InterArrival {
  public:
    // Times kept a second for its percentile; where more come, every second, fourth ... of them is kept.
    static constexpr std::size_t kTimesLimit = 8192;

    // `between`: not negative.
    void datagram(Nanoseconds between) {
        lowest_ = std::min(lowest_, between);
        highest_ = std::max(highest_, between);
        sum_ += between;
        ++count_;
        ++running_[binOf(between)];
        if (--untilKept_ == 0) {
            untilKept_ = keepEvery_;
            if (kept_ == times_.size()) {
                makeRoom();
            }
            times_[kept_++] = static_cast<uint32_t>(std::min<Nanoseconds>(between, UINT32_MAX));
        }
    }
    // So many whole seconds ended, all but the first of them without a datagram.
    void secondsEnded(int64_t seconds);
    void fill(NetworkReport& report) const;
    std::size_t heldBytes() const {
        return times_.capacity() * sizeof(uint32_t) + minute_.capacity() * sizeof(Bins);
    }

  private:
    using Bins = std::array<uint32_t, kHistogramBins>;
    struct Figures {
        Nanoseconds lowest = 0;
        Nanoseconds highest = 0;
        double mean = 0;
        Nanoseconds p99 = 0;
    };

    // The n-th bin, from 0, has times below 2^(n + 1) us; the last one all that are longer.
    static std::size_t binOf(Nanoseconds time) {
        const auto us = static_cast<uint64_t>(time) / kNsPerUs;
        return std::min<std::size_t>(static_cast<std::size_t>(std::bit_width(us >> 1)), kHistogramBins - 1);
    }
    void makeRoom();

    std::vector<uint32_t> times_;  // ns, of the second that runs; its size is its capacity
    std::size_t kept_ = 0;
    uint32_t keepEvery_ = 1;
    uint32_t untilKept_ = 1;
    Nanoseconds lowest_ = std::numeric_limits<Nanoseconds>::max();
    Nanoseconds highest_ = 0;
    Nanoseconds sum_ = 0;
    uint64_t count_ = 0;
    std::optional<Figures> last_;

    Bins running_{};
    std::vector<Bins> minute_;  // ring of whole seconds
    std::size_t next_ = 0;
    Bins total_{};  // of the minute
};

}  // namespace meter
