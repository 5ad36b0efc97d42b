// Inter-arrival jitter of one stream's datagrams, in blocks of 4096.
#pragma once

#include <sys/time.h>

#include <array>
#include <cstdint>

inline constexpr uint64_t kJitterBlock = 4096;

// One measurement. Not locked: the thread that feeds it and the one that reads it agree among themselves.
struct JitterMeasurement {
    // ms between successive datagrams, slot = arrival count mod 4096
    std::array<uint64_t, kJitterBlock> ring;
    uint64_t lastArrival;  // ms
    uint64_t blockSum;     // ms, since the last block close
    float variance;        // ms^2, of the last full block
    float varianceMaximum;
    uint64_t meanInterArrival;     // ms, of the last full block, truncated
    uint64_t interArrivalMaximum;  // ms, since the start
    uint64_t arrivalCount;         // datagrams since the first one
    uint8_t started;               // 0 until the first datagram
};

// Returns a new measurement, to be released with jitter_cleanup; running out of memory is not handled. The
// ring, the sum and the times are set by the first datagrams.
JitterMeasurement* jitter_start_new_measurement();

// Accounts one datagram with its capture time; `j` must not be null. Every 4096th call after the first closes
// a block: the divisor is 4096 also for the first block, which holds only 4095 real intervals. A clock
// that steps back gives a huge interval.
void jitter_received_packet_cb(JitterMeasurement* j, const timeval* arrival);

// The same for an arrival in ms, of which the seconds of a timeval hold only 32 bits on some machines.
void jitter_received_at(JitterMeasurement* j, uint64_t now);

// Copies variance (ms^2), its maximum, mean and maximum inter-arrival time (ms). Returns 0 also for a null
// measurement, for which nothing is written.
int32_t jitter_get_result(const JitterMeasurement* j, float* variance, float* varianceMaximum,
                          uint64_t* meanInterArrival, uint64_t* interArrivalMaximum);

// Releases the measurement; null is accepted.
void jitter_cleanup(JitterMeasurement* j);
