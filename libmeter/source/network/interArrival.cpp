#include "network/interArrival.h"

#include <algorithm>
#include <functional>

namespace meter {

void InterArrival::keep(uint32_t ns) {
    if (!heap_) {
        heap_ = true;
        std::ranges::make_heap(longest_, std::greater<>());
    }
    if (ns > longest_.front()) {
        std::ranges::pop_heap(longest_, std::greater<>());
        longest_.back() = ns;
        std::ranges::push_heap(longest_, std::greater<>());
    }
    shortest_ = longest_.front();
}

void InterArrival::secondsEnded(int64_t seconds) {
    last_.reset();
    if (seconds == 1 && count_ > 0) {
        // Element floor(0.99 n) of the sorted ones, counted from the longest.
        last_ = {lowest_, highest_, static_cast<double>(sum_) / static_cast<double>(count_), std::nullopt};
        const uint64_t behind = count_ - count_ * 99 / 100;
        if (behind <= keptCount_) {
            const auto end = longest_.begin() + static_cast<std::ptrdiff_t>(keptCount_);
            const auto p99 = end - static_cast<std::ptrdiff_t>(behind);
            std::nth_element(longest_.begin(), p99, end);
            last_->p99 = *p99;
        }
    }
    count_ = 0;
    sum_ = 0;
    lowest_ = std::numeric_limits<Nanoseconds>::max();
    highest_ = 0;
    keptCount_ = 0;
    shortest_ = 0;
    heap_ = false;
    for (int64_t i = std::min<int64_t>(seconds, kMinuteSeconds); i > 0; --i) {
        for (std::size_t bin = 0; bin < kHistogramBins; ++bin) {
            const auto ended = static_cast<uint16_t>(std::min<uint32_t>(running_[bin], UINT16_MAX));
            std::unique_ptr<BinSeconds>& ring = minute_[bin];
            if (!ring) {
                if (ended == 0) {
                    continue;
                }
                ring = std::make_unique<BinSeconds>();
            }
            total_[bin] += uint32_t{ended} - (*ring)[next_];
            (*ring)[next_] = ended;
        }
        running_.fill(0);
        next_ = (next_ + 1) % kMinuteSeconds;
    }
}

void InterArrival::fill(NetworkReport& report) const {
    const auto ms = [](double ns) { return ns / static_cast<double>(kNsPerMs); };
    if (last_) {
        report.interArrivalLowestMs = ms(static_cast<double>(last_->lowest));
        report.interArrivalMeanMs = ms(last_->mean);
        report.interArrivalHighestMs = ms(static_cast<double>(last_->highest));
        if (last_->p99) {
            report.interArrivalP99Ms = ms(*last_->p99);
        }
    }
    // The second that runs is within the last minute, too.
    for (std::size_t bin = 0; bin < kHistogramBins; ++bin) {
        report.histogram[bin] = uint64_t{total_[bin]} + running_[bin];
    }
}

}  // namespace meter
