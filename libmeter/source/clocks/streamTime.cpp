#include "clocks/streamTime.h"

#include "fields/packet.h"

namespace meter {

namespace {

constexpr uint64_t kPacketBits = kPacketSize * 8;
// A packet is not taken for longer than this, and no gap for more packets: sums stay far from 64 bits.
constexpr uint64_t kLongestPacket = static_cast<uint64_t>(kTicksPerSecond);
constexpr uint64_t kSkipLimit = 1 << 20;

bool isFaster(const Pace& a, const Pace& b) {
    return b.slowerThan(a);
}

}  // namespace

void StreamTime::setConstantPace(uint64_t bitrate) {
    constant_ = true;
    const uint64_t numerator = (kPacketBits * static_cast<uint64_t>(kTicksPerSecond)) << kFraction;
    step_ = std::min((numerator + bitrate / 2) / bitrate, kLongestPacket << kFraction);
}

void StreamTime::setFirstPace(const Pace& pace) {
    pace_ = pace;
    step_ = (uint64_t{pace.ticks} << kFraction) / pace.packets;
}

void StreamTime::fold() {
    base_ += static_cast<Ticks>(since_ >> kFraction);
    since_ &= (uint64_t{1} << kFraction) - 1;
}

void StreamTime::skip(uint64_t packets) {
    fold();
    for (uint64_t rest = packets; rest > 0;) {
        const uint64_t part = std::min<uint64_t>(rest, kSkipLimit);
        since_ += part * step_;
        fold();
        rest -= part;
    }
}

void StreamTime::goWithArrival(Nanoseconds passed) {
    const Nanoseconds total = passed + arrivalRest_;
    base_ += toTicks(total);
    arrivalRest_ = total - toNanoseconds(toTicks(total));
}

void StreamTime::addPace(const Pace& pace) {
    paces_[paceCount_ % kPaces] = pace;
    ++paceCount_;
    if (paceCount_ == 2 * kPaces) {
        paceCount_ = kPaces;  // which keeps the place in the ring
    }
    std::array<Pace, kPaces> sorted = paces_;
    const std::size_t known = std::min<std::size_t>(paceCount_, kPaces);
    // By insertion: there are few, and GCC 14 takes std::sort to go beyond them.
    for (std::size_t i = 1; i < known; ++i) {
        auto* const next = &sorted[i];
        std::rotate(std::upper_bound(sorted.data(), next, *next, isFaster), next, next + 1);
    }
    setFirstPace(sorted[known / 2]);
}

Ticks StreamTime::pcr(uint16_t pid, ClockTrack& track, Ticks pcr, uint64_t position) {
    const Ticks goesOn = this->goesOn();
    Ticks time = now();
    floor_ = time;
    if (!constant_) {
        if (reference_ == kNoReference && track.count == 1) {
            reference_ = pid;
        } else if (pid != reference_) {
            if (track.referenceMark != referenceMark_) {
                track.referenceMark = referenceMark_;
                track.sinceReference = 0;
            }
            if (++track.sinceReference >= kPcrsToTakeOver && reference_ != kNoReference) {
                reference_ = pid;
                ++referenceMark_;
                base_ = goesOn;
                since_ = 0;
                track = {pcr, time, position, track.count + 1, 0, referenceMark_, false};
                return time;
            }
        }
        if (pid == reference_) {
            time = goesOn;
            const Ticks step = pcrStep(track.pcr, pcr);
            const uint64_t packets = position - track.position;
            if (track.count > 0 && step > 0 && step <= kStepLimit && !track.discontinuity && packets > 0) {
                time = track.time + step;
                if (packets <= UINT32_MAX) {
                    addPace({static_cast<uint32_t>(step), static_cast<uint32_t>(packets)});
                }
            }
            base_ = time;
            since_ = 0;
            ++referenceMark_;
        }
    }
    track.pcr = pcr;
    track.time = time;
    track.position = position;
    ++track.count;
    track.discontinuity = false;
    return now();
}

std::optional<Ticks> StreamTime::duration(uint64_t packets) const {
    if (step_ == 0) {
        return std::nullopt;
    }
    const uint64_t known = std::min<uint64_t>(packets, kSkipLimit);
    return static_cast<Ticks>(known * step_ >> kFraction);
}

}  // namespace meter
