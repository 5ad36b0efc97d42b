#include "network/interArrival.h"

#include <algorithm>

namespace meter {

namespace {

constexpr std::size_t kFirstTimes = 1024;

}  // namespace

void InterArrival::makeRoom() {
    if (times_.size() < kTimesLimit) {
        times_.resize(std::max(2 * times_.size(), kFirstTimes));
        return;
    }
    for (std::size_t i = 0; i < kTimesLimit / 2; ++i) {
        times_[i] = times_[2 * i];
    }
    kept_ = kTimesLimit / 2;
    keepEvery_ *= 2;
    untilKept_ = keepEvery_;
}

void InterArrival::secondsEnded(int64_t seconds) {
    last_.reset();
    if (seconds == 1 && count_ > 0) {
        const std::size_t rank = kept_ * 99 / 100;
        const auto begin = times_.begin();
        std::nth_element(begin, begin + static_cast<std::ptrdiff_t>(rank),
                         begin + static_cast<std::ptrdiff_t>(kept_));
        last_ = {lowest_, highest_, static_cast<double>(sum_) / static_cast<double>(count_), times_[rank]};
    }
    count_ = 0;
    sum_ = 0;
    lowest_ = std::numeric_limits<Nanoseconds>::max();
    highest_ = 0;
    kept_ = 0;
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
