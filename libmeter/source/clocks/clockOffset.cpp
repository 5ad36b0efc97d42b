#include "clocks/clockOffset.h"

#include <algorithm>

namespace meter {

namespace {

constexpr int64_t kPartsPerNs = 27;
constexpr int64_t kPartsPerTick = 1000;
// Some five years, of either: a clock whose PCRs run so far ahead of the time is none, and delays stay within
// 64 bits.
constexpr Nanoseconds kLatestArrival = INT64_MAX / kPartsPerNs / 2;
constexpr Ticks kLatestTime = INT64_MAX / kPartsPerTick / 2;

}  // namespace

void ClockOffset::pcr(Nanoseconds arrival, Ticks time) {
    if (arrival > kLatestArrival || time > kLatestTime) {
        restart();
        return;
    }
    const int64_t delay = arrival * kPartsPerNs - time * kPartsPerTick;
    if (!low_ || delay < low_->delay) {
        low_ = Low{0, arrival, delay};
    }
    if (slope_) {
        const Low& origin = lows_.back();
        const double off = static_cast<double>(delay - origin.delay) -
                           *slope_ * static_cast<double>(arrival - origin.arrival);
        lowestOff_ = anyOff_ ? std::min(lowestOff_, off) : off;
        highestOff_ = anyOff_ ? std::max(highestOff_, off) : off;
        anyOff_ = true;
    }
}

void ClockOffset::secondEnded(int64_t second) {
    jitterNs_.reset();
    if (anyOff_) {
        jitterNs_ = (highestOff_ - lowestOff_) / kPartsPerNs;
        anyOff_ = false;
    }
    if (low_) {
        low_->second = second;
        if (lows_.size() == kSeconds) {
            lows_.erase(lows_.begin());
        }
        lows_.reserve(kSeconds);  // doubling would leave a fifth unused
        lows_.push_back(*low_);
        low_.reset();
    }
    while (!lows_.empty() && lows_.front().second <= second - kSeconds) {
        lows_.erase(lows_.begin());
    }
    slope_.reset();
    if (lows_.size() < kSecondsToMeasure) {
        return;
    }
    const Low& origin = lows_.front();
    double meanArrival = 0;
    double meanDelay = 0;
    for (const Low& low : lows_) {
        meanArrival += static_cast<double>(low.arrival - origin.arrival);
        meanDelay += static_cast<double>(low.delay - origin.delay);
    }
    meanArrival /= static_cast<double>(lows_.size());
    meanDelay /= static_cast<double>(lows_.size());
    double square = 0;
    double mixed = 0;
    for (const Low& low : lows_) {
        const double arrival = static_cast<double>(low.arrival - origin.arrival) - meanArrival;
        square += arrival * arrival;
        mixed += arrival * (static_cast<double>(low.delay - origin.delay) - meanDelay);
    }
    if (square > 0) {
        slope_ = mixed / square;
    }
}

void ClockOffset::restart() {
    lows_.clear();
    low_.reset();
    slope_.reset();
    anyOff_ = false;
    jitterNs_.reset();
}

std::optional<double> ClockOffset::ppm() const {
    if (!slope_) {
        return std::nullopt;
    }
    return -*slope_ / kPartsPerNs * 1e6;
}

}  // namespace meter
