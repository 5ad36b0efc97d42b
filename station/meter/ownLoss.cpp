#include "meter/ownLoss.h"

#include <algorithm>

namespace station {

namespace {

uint64_t grownBy(uint64_t before, uint64_t after) {
    return after > before ? after - before : 0;
}

}  // namespace

LossCounts& LossCounts::operator+=(const LossCounts& other) {
    kernel += other.kernel;
    card += other.card;
    cut += other.cut;
    suspendedMs += other.suspendedMs;
    return *this;
}

LossCounts LossCounts::since(const LossCounts& before) const {
    return {grownBy(before.kernel, kernel), grownBy(before.card, card), grownBy(before.cut, cut),
            grownBy(before.suspendedMs, suspendedMs)};
}

LossCounts lossCounts(const metering::Capture& capture) {
    return {capture.kernel_drops(), capture.card_drops(), capture.cut_frames(), capture.suspended_ms()};
}

const OwnLoss& OwnLossWatch::second(const metering::Second& part) {
    if (counts_ && part.part() != 0) {
        return loss_;
    }
    const metering::Capture& capture = part.capture();
    const LossCounts counts = lossCounts(capture);
    const LossCounts lost = counts_ ? counts.since(*counts_) : LossCounts{};
    const uint64_t steps = counts_ ? std::max<uint64_t>(grownBy(told_, part.number()), 1) : 1;
    number_ += steps;
    lately_.push_back(
        {.number = number_,
         .dropped = lost.frames(),
         .taken = counts_ ? grownBy(frames_, capture.frames()) : 0,
         // Of seconds that were not told nobody knows whether something was captured.
         .blind = !capture.problem().empty() || lost.suspendedMs > 0 || (steps > 1 && capture.disturbed())});
    while (lately_.front().number + kHolds < number_) {
        lately_.pop_front();
    }
    counts_ = counts;
    frames_ = capture.frames();
    told_ = part.number();
    uint64_t dropped = 0;
    uint64_t taken = 0;
    bool blind = false;
    for (const Lost& one : lately_) {
        dropped += one.dropped;
        taken += one.taken;
        blind = blind || one.blind;
    }
    // Something else than drops: it captured nothing before it told its first second here.
    blind = blind || (capture.disturbed() && dropped == 0);
    loss_.frames = blind ? OwnLoss::kUnknown : dropped;
    loss_.much = blind || static_cast<double>(dropped) >
                              kMuch * (static_cast<double>(taken) + static_cast<double>(dropped));
    return loss_;
}

}  // namespace station
