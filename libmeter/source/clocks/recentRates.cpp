#include "clocks/recentRates.h"

#include <algorithm>

namespace meter {

namespace {

constexpr std::size_t kRatesToJudge = 8;
constexpr uint64_t kSpreadShare = 100;  // of the median; a constant rate's spread is below one such part

}  // namespace

bool RecentRates::rateLess(uint16_t a, uint16_t b) const {
    const Pace first = ring_[a].pace();
    const Pace second = ring_[b].pace();
    const uint64_t left = uint64_t{first.packets} * second.ticks;
    const uint64_t right = uint64_t{second.packets} * first.ticks;
    return left < right;
}

// What is looked at is spread over the order; with a thousand channels none of it is in the caches.
void RecentRates::fetch() const {
    constexpr std::size_t kLine = 64 / sizeof(uint16_t);
    for (std::size_t i = 0; i < order_.size(); i += kLine) {
        __builtin_prefetch(order_.data() + i);
    }
    // Others take the places of those judged last, but not far from them.
    const std::size_t end = oldest_ + order_.size();
    const std::size_t next = end < ring_.size() ? end : end - ring_.size();
    for (const std::size_t index :
         {oldest_, next, std::size_t{lowIndex_}, std::size_t{medianIndex_}, std::size_t{highIndex_}}) {
        __builtin_prefetch(ring_.data() + index);
    }
}

// Behind those that are equal. Where the bit rate is constant most are, and it is the last one.
void RecentRates::insert(uint16_t index) {
    auto place = order_.end();
    if (!order_.empty() && rateLess(index, order_.back())) {
        place = std::upper_bound(order_.begin(), order_.end() - 1, index,
                                 [this](uint16_t a, uint16_t b) { return rateLess(a, b); });
    }
    order_.insert(place, index);
}

void RecentRates::dropOldest() {
    const auto index = static_cast<uint16_t>(oldest_);
    // The first of those that are equal.
    auto place = order_.begin();
    if (*place != index) {
        place = std::lower_bound(order_.begin() + 1, order_.end(), index,
                                 [this](uint16_t a, uint16_t b) { return rateLess(a, b); });
    }
    packets_ -= ring_[index].packets;
    ticks_ -= ring_[index].ticks;
    order_.erase(place);
    oldest_ = (oldest_ + 1) % ring_.size();
}

void RecentRates::grow() {
    std::vector<Sample> ring(std::max(2 * ring_.size(), kFirstCapacity));
    for (std::size_t i = 0; i < order_.size(); ++i) {
        ring[i] = ring_[(oldest_ + i) % ring_.size()];
    }
    ring_ = std::move(ring);
    oldest_ = 0;
    const std::size_t held = order_.size();
    order_.resize(held);
    for (std::size_t i = 0; i < held; ++i) {
        order_[i] = static_cast<uint16_t>(i);
    }
    std::stable_sort(order_.begin(), order_.end(), [this](uint16_t a, uint16_t b) { return rateLess(a, b); });
    order_.reserve(ring_.size());
}

void RecentRates::add(const Pace& pace, Ticks now) {
    const auto ms = static_cast<uint32_t>(now / kTicksPerMs);
    constexpr uint32_t kSpanMs = kSpan / kTicksPerMs;
    const bool allOld = ms - newestMs_ > kSpanMs;
    while (!order_.empty() && (allOld || static_cast<uint16_t>(ms - ring_[oldest_].time) > kSpanMs)) {
        dropOldest();
    }
    newestMs_ = ms;
    if (order_.size() == ring_.size()) {
        if (ring_.size() < kLimit) {
            grow();
        } else {
            dropOldest();
        }
    }
    const auto index = static_cast<uint16_t>((oldest_ + order_.size()) % ring_.size());
    ring_[index] = {pace.ticks & kPartLimit, pace.packets & kPartLimit, ms & UINT16_MAX};
    packets_ += pace.packets;
    ticks_ += pace.ticks;
    insert(index);
    judge();
}

bool RecentRates::judged() const {
    return order_.size() >= kRatesToJudge;
}

void RecentRates::judge() {
    const std::size_t count = order_.size();
    medianIndex_ = order_[count / 2];
    median_ = ring_[medianIndex_].pace();
    constant_ = false;
    if (count < kRatesToJudge) {
        return;
    }
    // With 32 bits of fraction: far finer than a hundredth.
    const auto rate = [](const Pace& pace) { return (uint64_t{pace.packets} << 32) / pace.ticks; };
    lowIndex_ = order_[count * 5 / 100];
    highIndex_ = order_[count * 95 / 100];
    const uint64_t low = rate(ring_[lowIndex_].pace());
    const uint64_t high = rate(ring_[highIndex_].pace());
    constant_ = (high - low) < rate(median_) / kSpreadShare;
}

void RecentRates::clear() {
    order_.clear();
    oldest_ = 0;
    packets_ = 0;
    ticks_ = 0;
    constant_ = false;
}

std::size_t RecentRates::heldBytes() const {
    return ring_.capacity() * sizeof(Sample) + order_.capacity() * sizeof(uint16_t);
}

}  // namespace meter
