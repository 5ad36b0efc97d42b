#include "network/rtpStatistics.h"

#include <algorithm>

namespace meter {

namespace {

constexpr int64_t kPartsPerNs = 9;
constexpr int64_t kPartsPerTick = 100'000;  // of 90 kHz
constexpr int64_t kPartsPerSecond = kPartsPerNs * kNsPerSecond;
constexpr Nanoseconds kLongestGap = 3600 * kNsPerSecond;

}  // namespace

void RtpStatistics::datagram(const RtpPacket& packet, Nanoseconds arrival) {
    if (changesSource(packet)) {
        ++ssrcChanges_;
        has_ = false;
        jitter_ = 0;
    }
    if (has_) {
        const auto ticks = static_cast<int32_t>(packet.timestamp - timestamp_);
        const int64_t off =
            std::min(arrival - arrival_, kLongestGap) * kPartsPerNs - int64_t{ticks} * kPartsPerTick;
        const uint64_t distance = static_cast<uint64_t>(off < 0 ? -off : off);
        if (distance > static_cast<uint64_t>(kPartsPerSecond)) {
            ++timestampSteps_;  // which is no jitter
        } else {
            jitter_ += distance - ((jitter_ + 8) >> 4);
            jitterKnown_ = true;
        }
    }
    any_ = true;
    has_ = true;
    payloadType_ = packet.payloadType;
    ssrc_ = packet.ssrc;
    timestamp_ = packet.timestamp;
    arrival_ = arrival;
}

void RtpStatistics::placed(RtpOrder::Place place) {
    if (place == RtpOrder::Place::kRepeated) {
        ++repeated_;
        return;
    }
    if (place == RtpOrder::Place::kStray) {
        return;
    }
    received_ += place == RtpOrder::Place::kBeganAnew ? 2 : 1;
    outOfOrder_ += place == RtpOrder::Place::kLate || place == RtpOrder::Place::kTooLate ? 1 : 0;
}

void RtpStatistics::missing(uint32_t datagrams) {
    missing_ += datagrams;
    ++lossEvents_;
    longestBurst_ = std::max<uint64_t>(longestBurst_, datagrams);
}

RtpReport RtpStatistics::report(uint64_t expected) const {
    RtpReport report;
    report.payloadType = payloadType_;
    report.ssrc = ssrc_;
    report.received = received_;
    report.lost = static_cast<int64_t>(expected) - static_cast<int64_t>(received_);
    report.lossEvents = lossEvents_;
    report.longestBurst = longestBurst_;
    report.repeated = repeated_;
    report.outOfOrder = outOfOrder_;
    if (jitterKnown_) {
        report.jitterMs = static_cast<double>(jitter_ >> 4) / kPartsPerNs / static_cast<double>(kNsPerMs);
    }
    report.timestampSteps = timestampSteps_;
    report.ssrcChanges = ssrcChanges_;
    return report;
}

}  // namespace meter
