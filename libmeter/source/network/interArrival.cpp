#include "network/interArrival.h"

#include <algorithm>
#include <bit>

namespace meter {

namespace {

constexpr std::size_t kFirstTimes = 1024;

// The n-th bin, from 0, has times below 2^(n + 1) us; the last one all that are longer.
std::size_t binOf(Nanoseconds time) {
    const auto us = static_cast<uint64_t>(time / kNsPerUs);
    const auto width = static_cast<std::size_t>(std::bit_width(us));
    return std::min(std::max<std::size_t>(width, 1) - 1, kHistogramBins - 1);
}

}  // namespace

void InterArrival::datagram(Nanoseconds between) {
    lowest_ = count_ == 0 ? between : std::min(lowest_, between);
    highest_ = std::max(highest_, between);
    sum_ += between;
    ++count_;
    ++running_[binOf(between)];
    if (--untilKept_ > 0) {
        return;
    }
    untilKept_ = keepEvery_;
    if (times_.size() == kTimesLimit) {
        for (std::size_t i = 0; i < kTimesLimit / 2; ++i) {
            times_[i] = times_[2 * i];
        }
        times_.resize(kTimesLimit / 2);
        keepEvery_ *= 2;
        untilKept_ = keepEvery_;
    }
    if (times_.capacity() == 0) {
        times_.reserve(kFirstTimes);
    }
    times_.push_back(static_cast<uint32_t>(std::min<Nanoseconds>(between, UINT32_MAX)));
}

void InterArrival::secondsEnded(int64_t seconds) {
    last_.reset();
    if (seconds == 1 && count_ > 0) {
        const std::size_t rank = times_.size() * 99 / 100;
        std::nth_element(times_.begin(), times_.begin() + static_cast<std::ptrdiff_t>(rank), times_.end());
        last_ = {lowest_, highest_, static_cast<double>(sum_) / static_cast<double>(count_), times_[rank]};
    }
    count_ = 0;
    sum_ = 0;
    highest_ = 0;
    times_.clear();
    keepEvery_ = 1;
    untilKept_ = 1;
    if (minute_.empty()) {
        minute_.resize(kMinuteSeconds);
    }
    for (int64_t i = std::min<int64_t>(seconds, kMinuteSeconds); i > 0; --i) {
        Bins& oldest = minute_[next_];
        for (std::size_t bin = 0; bin < kHistogramBins; ++bin) {
            total_[bin] += running_[bin] - oldest[bin];
        }
        oldest = running_;
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
        report.interArrivalP99Ms = ms(static_cast<double>(last_->p99));
    }
    // The second that runs is within the last minute, too.
    for (std::size_t bin = 0; bin < kHistogramBins; ++bin) {
        report.histogram[bin] = uint64_t{total_[bin]} + running_[bin];
    }
}

}  // namespace meter
