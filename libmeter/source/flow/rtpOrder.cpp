#include "flow/rtpOrder.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace meter {

namespace {

// Numbers begin far above 0, so that earlier ones have a place below.
constexpr uint64_t kNumberBase = uint64_t{1} << 32;

// Datagrams that an outage is taken for at most: days at any rate, and sums stay far from 64 bits.
constexpr double kLongestOutage = 1e9;

}  // namespace

bool RtpOrder::seen(uint64_t number) const {
    return (seen_[number % kSeenBits / 64] >> (number % 64) & 1) != 0;
}

void RtpOrder::markSeen(uint64_t number) {
    seen_[number % kSeenBits / 64] |= uint64_t{1} << (number % 64);
}

void RtpOrder::handOut(Bytes packets, Nanoseconds arrival, Nanoseconds wall, uint32_t missing,
                       OrderedSink& sink) {
    lastArrival_ = std::max(lastArrival_, arrival);
    sink.ordered(packets, lastArrival_, wall, missing);
}

// Those that follow the last one handed out.
void RtpOrder::handOutHeld(OrderedSink& sink) {
    while (heldCount_ > 0) {
        Held& held = held_[next_ % kHeld];
        if (!held.used || held.number != next_) {
            // Places are numbers modulo kHeld, and the held ones lie further apart than that where many are
            // missing.
            const auto found = std::ranges::find_if(
                held_, [&](const Held& other) { return other.used && other.number == next_; });
            if (found == held_.end()) {
                return;
            }
            std::swap(*found, held);
        }
        held.used = false;
        --heldCount_;
        ++next_;
        handOut(held.bytes, held.arrival, held.wall, 0, sink);
    }
}

void RtpOrder::giveUpFirst(OrderedSink& sink) {
    auto first = held_.end();
    for (auto at = held_.begin(); at != held_.end(); ++at) {
        if (at->used && (first == held_.end() || at->number < first->number)) {
            first = at;
        }
    }
    if (first == held_.end()) {
        return;
    }
    const uint64_t missing = first->number - next_;
    next_ = first->number + 1;
    first->used = false;
    --heldCount_;
    handOut(first->bytes, first->arrival, first->wall,
            static_cast<uint32_t>(std::min<uint64_t>(missing, UINT32_MAX)), sink);
    handOutHeld(sink);
}

void RtpOrder::restart(OrderedSink& sink) {
    flush(sink);
    if (began_) {
        expectedBefore_ += highest_ - first_ + 1;
    }
    began_ = false;
}

void RtpOrder::beginAt(const RtpPacket& packet, Nanoseconds arrival, Nanoseconds wall, OrderedSink& sink) {
    began_ = true;
    straying_ = false;
    first_ = kNumberBase + packet.sequence;
    highest_ = first_;
    next_ = first_ + 1;
    firstArrival_ = arrival;
    highestArrival_ = arrival;
    firstTimestamp_ = packet.timestamp;
    highestTimestamp_ = packet.timestamp;
    seen_.fill(0);
    markSeen(first_);
    handOut(packet.payload, arrival, wall, 0, sink);
}

// Whether time stamps ran with arrival all the time, and this one is off: it is of another run of the sender.
bool RtpOrder::isOffTime(uint32_t timestamp, Nanoseconds passed) const {
    constexpr int64_t kDriftShare = 10'000;
    const auto isOff = [](uint32_t from, uint32_t to, Nanoseconds time, int64_t slackMs) {
        const int64_t due = time / 100'000 * (kRtpClock / 10'000);
        const int64_t off = static_cast<int32_t>(to - from - static_cast<uint32_t>(due));
        return std::abs(off) > slackMs * (kRtpClock / 1000) + due / kDriftShare;
    };
    return !isOff(firstTimestamp_, highestTimestamp_, highestArrival_ - firstArrival_, 100) &&
           isOff(highestTimestamp_, timestamp, passed, 1000);
}

// How far a datagram is ahead of the highest one; nothing where it has no place in the sequence.
std::optional<int64_t> RtpOrder::ahead(const RtpPacket& packet, Nanoseconds arrival) const {
    const int64_t forward = static_cast<uint16_t>(packet.sequence - static_cast<uint16_t>(highest_));
    return forward == 1 ? forward : outage(packet, arrival, forward);
}

std::optional<int64_t> RtpOrder::outage(const RtpPacket& packet, Nanoseconds arrival, int64_t forward) const {
    constexpr int64_t kCycle = 1 << 16;
    const Nanoseconds passed = arrival - highestArrival_;
    double held = 0;  // datagrams that the sequence's rate says for that time
    const Nanoseconds lasted = highestArrival_ - firstArrival_;
    if (lasted >= kKnownAfter && !isOffTime(packet.timestamp, passed)) {
        held = static_cast<double>(highest_ - first_) *
               (static_cast<double>(passed) / static_cast<double>(lasted));
        held = std::min(held, kLongestOutage);
    }
    // Where the time holds whole cycles the count that fits it best is taken.
    const int64_t cycles = std::llround((held - static_cast<double>(forward)) / kCycle);
    const int64_t best = forward + std::max<int64_t>(cycles, 0) * kCycle;
    if (best > kDropoutLimit && std::fabs(static_cast<double>(best) - held) <= held / kRateMargin) {
        return best;
    }
    if (forward <= kDropoutLimit) {
        return forward;
    }
    if (kCycle - forward <= kMisorderLimit) {
        return forward - kCycle;
    }
    return static_cast<double>(forward) <= held * kRateMargin ? std::optional(forward) : std::nullopt;
}

void RtpOrder::keepStray(const RtpPacket& packet, Nanoseconds arrival, Nanoseconds wall) {
    straying_ = true;
    strayHeader_ = packet;
    stray_.arrival = arrival;
    stray_.wall = wall;
    stray_.bytes.assign(packet.payload.begin(), packet.payload.end());
    strayHeader_.payload = stray_.bytes;
}

RtpOrder::Place RtpOrder::feed(const RtpPacket& packet, Nanoseconds arrival, Nanoseconds wall,
                               OrderedSink& sink) {
    if (!began_) {
        beginAt(packet, arrival, wall, sink);
        return Place::kInOrder;
    }
    if (straying_ && packet.sequence == static_cast<uint16_t>(strayHeader_.sequence + 1)) {
        restart(sink);
        beginAt(strayHeader_, stray_.arrival, stray_.wall, sink);
        feedAt(highest_ + 1, packet, arrival, wall, sink);
        return Place::kBeganAnew;
    }
    const std::optional<int64_t> place = ahead(packet, arrival);
    if (!place) {
        keepStray(packet, arrival, wall);
        return Place::kStray;
    }
    return feedAt(highest_ + static_cast<uint64_t>(*place), packet, arrival, wall, sink);
}

RtpOrder::Place RtpOrder::feedAt(uint64_t number, const RtpPacket& packet, Nanoseconds arrival,
                                 Nanoseconds wall, OrderedSink& sink) {
    const bool late = number <= highest_;
    if (late) {
        if (seen(number)) {
            return Place::kRepeated;
        }
        first_ = std::min(first_, number);  // one that was overtaken by the first that came
    }
    straying_ = false;
    for (uint64_t between = highest_ + 1; between <= number && between - highest_ <= kSeenBits; ++between) {
        seen_[between % kSeenBits / 64] &= ~(uint64_t{1} << (between % 64));
    }
    if (!late) {
        highest_ = number;
        highestArrival_ = arrival;
        highestTimestamp_ = packet.timestamp;
    }
    markSeen(number);
    if (number < next_) {
        return Place::kTooLate;
    }
    const Place place = late ? Place::kLate : number == next_ ? Place::kInOrder : Place::kEarly;
    if (number == next_) {
        ++next_;
        handOut(packet.payload, arrival, wall, 0, sink);
        handOutHeld(sink);
        return place;
    }
    if (held_.empty()) {
        held_.resize(kHeld);
    }
    auto slot = held_.begin() + static_cast<std::ptrdiff_t>(number % kHeld);
    if (slot->used) {
        slot = std::ranges::find_if(held_, [](const Held& other) { return !other.used; });
    }
    slot->used = true;
    slot->number = number;
    slot->arrival = arrival;
    slot->wall = wall;
    slot->bytes.assign(packet.payload.begin(), packet.payload.end());
    ++heldCount_;
    if (heldCount_ == kHeld) {
        giveUpFirst(sink);
    }
    return place;
}

std::size_t RtpOrder::heldBytes() const {
    std::size_t bytes = held_.capacity() * sizeof(Held) + stray_.bytes.capacity();
    for (const Held& held : held_) {
        bytes += held.bytes.capacity();
    }
    return bytes;
}

}  // namespace meter
