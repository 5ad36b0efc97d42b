// Times between datagrams: of the last second, and as a histogram of the last minute.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <limits>
#include <memory>
#include <optional>

#include "fields/moment.h"
#include "meter/report.h"
#include "packets/secondRing.h"

namespace meter {

class InterArrival {
  public:
    // Times kept a second: the 99th percentile of up to 51,100 is among the longest, that of more is not
    // known.
    static constexpr std::size_t kLongest = 512;

    // Fetches what datagram() is about to touch.
    void fetch() const {
        __builtin_prefetch(&lowest_);
        __builtin_prefetch(&running_);
    }
    // `between`: not negative.
    void datagram(Nanoseconds between) {
        lowest_ = std::min(lowest_, between);
        highest_ = std::max(highest_, between);
        sum_ += between;
        ++count_;
        ++running_[binOf(between)];
        // The longest ones are kept: enough to find the percentile among.
        const auto ns = static_cast<uint32_t>(std::min<Nanoseconds>(between, UINT32_MAX));
        if (keptCount_ < kLongest) {
            longest_[keptCount_++] = ns;
        } else if (ns > shortest_) {
            keep(ns);
        }
    }
    // So many whole seconds ended, all but the first of them without a datagram.
    void secondsEnded(int64_t seconds);
    void fill(NetworkReport& report) const;
    std::size_t heldBytes() const {
        const auto used = std::ranges::count_if(minute_, [](const auto& bin) { return bin != nullptr; });
        return static_cast<std::size_t>(used) * sizeof(BinSeconds);
    }

  private:
    using Bins = std::array<uint32_t, kHistogramBins>;
    using BinSeconds = std::array<uint16_t, kMinuteSeconds>;  // at most 65535 a bin and second are counted
    struct Figures {
        Nanoseconds lowest = 0;
        Nanoseconds highest = 0;
        double mean = 0;
        std::optional<uint32_t> p99;
    };

    // The n-th bin, from 0, has times below 2^(n + 1) us; the last one all that are longer.
    static std::size_t binOf(Nanoseconds time) {
        const auto us = static_cast<uint64_t>(time) / kNsPerUs;
        return std::min<std::size_t>(static_cast<std::size_t>(std::bit_width(us >> 1)), kHistogramBins - 1);
    }
    void keep(uint32_t ns);

    using Longest = std::array<uint32_t, kLongest>;

    Nanoseconds lowest_ = std::numeric_limits<Nanoseconds>::max();
    Nanoseconds highest_ = 0;
    Nanoseconds sum_ = 0;
    uint64_t count_ = 0;
    uint32_t shortest_ = 0;  // of those kept, once they are a heap
    uint16_t keptCount_ = 0;
    bool heap_ = false;
    Bins running_{};
    // ns, of the second that runs. In the order in which they came until there are more than have a place:
    // those that are never looked at cost nothing but to be written. From then on a heap, the shortest in
    // front.
    Longest longest_;

    std::optional<Figures> last_;
    // Of each bin a ring of whole seconds; none where no time fell into it yet, as into most.
    std::array<std::unique_ptr<BinSeconds>, kHistogramBins> minute_;
    std::size_t next_ = 0;
    Bins total_{};  // of the minute
};

}  // namespace meter
