#include "flow/rtpOrder.h"

#include <algorithm>

namespace meter {

namespace {

// Numbers begin far above 0, so that earlier ones have a place below.
constexpr uint64_t kNumberBase = uint64_t{1} << 32;

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
    straying_ = false;
}

RtpOrder::Place RtpOrder::beginAt(const RtpPacket& packet, Nanoseconds arrival, Nanoseconds wall,
                                  OrderedSink& sink) {
    began_ = true;
    straying_ = false;
    first_ = kNumberBase + packet.sequence;
    highest_ = first_;
    next_ = first_ + 1;
    seen_.fill(0);
    markSeen(first_);
    handOut(packet.payload, arrival, wall, 0, sink);
    return Place::kInOrder;
}

RtpOrder::Place RtpOrder::feed(const RtpPacket& packet, Nanoseconds arrival, Nanoseconds wall,
                               OrderedSink& sink) {
    if (!began_) {
        return beginAt(packet, arrival, wall, sink);
    }
    const auto ahead = static_cast<int16_t>(packet.sequence - static_cast<uint16_t>(highest_));
    const uint64_t number = highest_ + static_cast<uint64_t>(static_cast<int64_t>(ahead));
    if (ahead <= 0) {
        if (static_cast<uint64_t>(-ahead) > kMisorderLimit) {
            const bool follows = straying_ && packet.sequence == strayNext_;
            straying_ = true;
            strayNext_ = static_cast<uint16_t>(packet.sequence + 1);
            if (!follows) {
                return Place::kStray;
            }
            restart(sink);
            return beginAt(packet, arrival, wall, sink);
        }
        if (seen(number)) {
            return Place::kRepeated;
        }
        first_ = std::min(first_, number);  // one that was overtaken by the first that came
    }
    straying_ = false;
    for (uint64_t between = highest_ + 1; between <= number && between - highest_ <= kSeenBits; ++between) {
        seen_[between % kSeenBits / 64] &= ~(uint64_t{1} << (between % 64));
    }
    highest_ = std::max(highest_, number);
    if (ahead > static_cast<int>(kSeenBits)) {
        seen_.fill(0);
    }
    markSeen(number);
    if (number < next_) {
        return Place::kTooLate;
    }
    const Place place = ahead <= 0 ? Place::kLate : number == next_ ? Place::kInOrder : Place::kEarly;
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
    std::size_t bytes = held_.capacity() * sizeof(Held);
    for (const Held& held : held_) {
        bytes += held.bytes.capacity();
    }
    return bytes;
}

}  // namespace meter
