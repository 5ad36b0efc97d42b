#include "sarn/mediaDeliveryIndex.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

#include "saturate.h"

namespace {

constexpr uint32_t kPacketBytes = 188;
constexpr uint32_t kWarmUpIntervals = 5;
constexpr float kIntervalSeconds = 1.0F;
constexpr float kMsPerSecond = 1000.0F;
constexpr double kMicrosecondsPerSecond = 1000000.0;

// Differences and sums of 32-bit values wrap.
int32_t wrappingSubtract(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

void openInterval(MdiMeasurement& m, const timeval& arrival, uint32_t drainRate) {
    m.intervalStartSeconds = static_cast<int32_t>(arrival.tv_sec);
    m.intervalStartMicroseconds = static_cast<int32_t>(arrival.tv_usec);
    m.drainRate = drainRate;
}

float secondsSinceIntervalStart(const MdiMeasurement& m, const timeval& arrival) {
    const auto seconds =
        static_cast<uint32_t>(arrival.tv_sec) - static_cast<uint32_t>(m.intervalStartSeconds);
    const auto microseconds =
        static_cast<uint32_t>(arrival.tv_usec) - static_cast<uint32_t>(m.intervalStartMicroseconds);
    const auto elapsed = static_cast<int32_t>(seconds * 1000000U + microseconds);
    return static_cast<float>(elapsed / kMicrosecondsPerSecond);
}

// What has left the buffer since the interval began, bytes.
float drained(const MdiMeasurement& m, float elapsed) {
    return static_cast<float>(m.drainRate) * elapsed;
}

// The buffer's level when `packets` of the interval have come and the next one is about to.
int32_t levelBefore(uint32_t packets, float drain) {
    return saturate<int32_t>(static_cast<float>(packets * kPacketBytes) - drain);
}

int32_t levelAfter(int32_t before) {
    return static_cast<int32_t>(static_cast<uint32_t>(before) + kPacketBytes);
}

void extendSwing(MdiMeasurement& m, int32_t level) {
    if (m.bufferMaximum < level) {
        m.bufferMaximum = level;
    }
    if (m.bufferMinimum > level) {
        m.bufferMinimum = level;
    }
}

// Accounts `count` packets that arrive together. The level only rises from one to the next, so the first and
// the last hold the extremes. False, with nothing accounted, when 32 bits wrap on the way.
bool accountRise(MdiMeasurement& m, float drain, uint32_t count) {
    if (count == 0) {
        return true;
    }
    const uint64_t last = uint64_t{m.packetsInInterval} + count - 1;
    const int32_t highest = levelBefore(static_cast<uint32_t>(last), drain);
    if (last * kPacketBytes > std::numeric_limits<uint32_t>::max() || levelAfter(highest) < highest) {
        return false;
    }
    const int32_t lowest = levelBefore(m.packetsInInterval, drain);
    m.packetsInInterval += count;
    m.bufferMinimum = std::min(m.bufferMinimum, lowest);
    m.bufferMaximum = std::max(m.bufferMaximum, levelAfter(highest));
    return true;
}

void closeInterval(MdiMeasurement& m, uint32_t cumulativeLost) {
    if (m.closedIntervals >= kWarmUpIntervals) {
        const int32_t swing = wrappingSubtract(m.bufferMaximum, m.bufferMinimum);
        m.delayFactor = static_cast<float>(swing) / static_cast<float>(m.drainRate) * kMsPerSecond;
    }
    ++m.closedIntervals;
    // The swing starts again from the empty buffer, not from its level, so that it always includes 0.
    m.bufferMaximum = 0;
    m.bufferMinimum = 0;
    m.packetsInInterval = 0;
    m.lostInLastInterval = cumulativeLost - m.lostAtLastIntervalEnd;
    m.lostAtLastIntervalEnd = cumulativeLost;
    if (m.delayFactor > m.delayFactorMaximum) {
        m.delayFactorMaximum = m.delayFactor;
    }
    if (m.lostInLastInterval > m.lostPerIntervalMaximum) {
        m.lostPerIntervalMaximum = m.lostInLastInterval;
    }
}

}  // namespace

MdiMeasurement* mdi_start_new_measurement() {
    auto* m = static_cast<MdiMeasurement*>(std::malloc(sizeof(MdiMeasurement)));
    *m = MdiMeasurement{};
    m->firstPacketPending = 1;
    return m;
}

int32_t mdi_received_packet_cb(MdiMeasurement* m, const timeval* arrival, uint32_t drainRate,
                               uint32_t cumulativeLost) {
    if (m == nullptr) {
        return -1;
    }
    if (m->firstPacketPending != 0) {
        openInterval(*m, *arrival, drainRate);
        m->firstPacketPending = 0;
    }
    const float elapsed = secondsSinceIntervalStart(*m, *arrival);
    const int32_t before = levelBefore(m->packetsInInterval, drained(*m, elapsed));
    ++m->packetsInInterval;
    extendSwing(*m, before);
    extendSwing(*m, levelAfter(before));
    if (elapsed > kIntervalSeconds) {
        closeInterval(*m, cumulativeLost);
        openInterval(*m, *arrival, drainRate);
        const auto handle = static_cast<int32_t>(reinterpret_cast<uintptr_t>(m));
        return handle != 0 ? handle : 1;
    }
    return 0;
}

void mdi_received_packets_cb(MdiMeasurement* m, const timeval* arrival, uint32_t drainRate,
                             uint32_t cumulativeLost, uint32_t count) {
    if (count == 0) {
        return;
    }
    float elapsed = secondsSinceIntervalStart(*m, *arrival);
    if (m->firstPacketPending != 0 || elapsed > kIntervalSeconds) {
        // Only the first packet can open or close an interval: behind it no time has passed.
        mdi_received_packet_cb(m, arrival, drainRate, cumulativeLost);
        --count;
        elapsed = secondsSinceIntervalStart(*m, *arrival);
    }
    if (accountRise(*m, drained(*m, elapsed), count)) {
        return;
    }
    for (; count > 0; --count) {
        mdi_received_packet_cb(m, arrival, drainRate, cumulativeLost);
    }
}

int32_t mdi_get_result(const MdiMeasurement* m, float* delayFactor, float* delayFactorMaximum,
                       uint32_t* lostInLastInterval, uint32_t* lostPerIntervalMaximum) {
    if (m == nullptr) {
        return -1;
    }
    *delayFactor = m->delayFactor;
    *delayFactorMaximum = m->delayFactorMaximum;
    *lostInLastInterval = m->lostInLastInterval;
    *lostPerIntervalMaximum = m->lostPerIntervalMaximum;
    return 0;
}

int32_t mdi_cleanup(MdiMeasurement* m) {
    if (m == nullptr) {
        return -1;
    }
    std::free(m);
    return 0;
}
