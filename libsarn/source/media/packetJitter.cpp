#include "sarn/packetJitter.h"

#include <cstdlib>

namespace {

constexpr float kBlockDivisor = static_cast<float>(kJitterBlock);

// The order of the additions and their single precision are part of the result.
float varianceOf(const std::array<uint64_t, kJitterBlock>& ring, float mean) {
    float sum = 0.0F;
    for (const uint64_t interArrival : ring) {
        const float deviation = static_cast<float>(interArrival) - mean;
        sum += deviation * deviation;
    }
    return sum / kBlockDivisor;
}

void closeBlock(JitterMeasurement& j) {
    const float mean = static_cast<float>(j.blockSum) / kBlockDivisor;
    j.variance = varianceOf(j.ring, mean);
    if (j.variance > j.varianceMaximum) {
        j.varianceMaximum = j.variance;
    }
    j.meanInterArrival = static_cast<uint64_t>(mean);  // at most 2^64 / 4096, so it always fits
    j.blockSum = 0;
}

}  // namespace

JitterMeasurement* jitter_start_new_measurement() {
    auto* j = static_cast<JitterMeasurement*>(std::malloc(sizeof(JitterMeasurement)));
    j->started = 0;
    j->variance = 0.0F;
    j->varianceMaximum = 0.0F;
    j->meanInterArrival = 0;
    j->interArrivalMaximum = 0;
    return j;
}

void jitter_received_packet_cb(JitterMeasurement* j, const timeval* arrival) {
    jitter_received_at(
        j, static_cast<uint64_t>(arrival->tv_sec) * 1000U + static_cast<uint64_t>(arrival->tv_usec / 1000));
}

void jitter_received_at(JitterMeasurement* j, uint64_t now) {
    if (j->started == 0) {
        j->started = 1;
        j->arrivalCount = 0;
        j->ring[0] = 0;
        j->blockSum = 0;
    } else {
        const auto slot = static_cast<std::size_t>(j->arrivalCount % kJitterBlock);
        if (slot == 0) {
            closeBlock(*j);
        }
        // A clock that steps back gives a huge interval, which then stays the maximum.
        const uint64_t interArrival = now - j->lastArrival;
        j->ring[slot] = interArrival;
        if (interArrival > j->interArrivalMaximum) {
            j->interArrivalMaximum = interArrival;
        }
        j->blockSum += interArrival;
    }
    j->lastArrival = now;
    ++j->arrivalCount;
}

int32_t jitter_get_result(const JitterMeasurement* j, float* variance, float* varianceMaximum,
                          uint64_t* meanInterArrival, uint64_t* interArrivalMaximum) {
    if (j != nullptr) {
        *variance = j->variance;
        *varianceMaximum = j->varianceMaximum;
        *meanInterArrival = j->meanInterArrival;
        *interArrivalMaximum = j->interArrivalMaximum;
    }
    return 0;
}

void jitter_cleanup(JitterMeasurement* j) {
    std::free(j);
}
