// Media Delivery Index of one stream (RFC 4445): how much a virtual buffer, filled by the arriving transport
// packets and drained at the stream's bit rate, swings within about a second, as a delay factor.
#pragma once

#include <sys/time.h>

#include <cstdint>

// One measurement. Not locked: the thread that feeds it and the one that reads it agree among themselves.
struct MdiMeasurement {
    uint32_t drainRate;            // bytes/s, of the current interval
    int32_t intervalStartSeconds;  // arrival of the packet that opened the current interval
    int32_t intervalStartMicroseconds;
    uint32_t closedIntervals;
    uint32_t packetsInInterval;
    int32_t bufferMaximum;        // bytes, within the current interval; starts at 0
    int32_t bufferMinimum;        // bytes
    float delayFactor;            // ms, of the last closed interval; 0 for the first five
    float delayFactorMaximum;     // ms
    uint32_t lostInLastInterval;  // transport packets
    uint32_t lostPerIntervalMaximum;
    uint32_t lostAtLastIntervalEnd;  // the caller's running count at that time
    uint8_t firstPacketPending;      // 1 until the first packet
};

// Returns a new measurement, to be released with mdi_cleanup; running out of memory is not handled.
MdiMeasurement* mdi_start_new_measurement();

// Accounts one 188-byte transport packet. `arrival` is its capture time, `drainRate` the stream's current
// rate in bytes/s (not 0), `cumulativeLost` the stream's running count of lost packets (modulo 2^32). Returns
// -1 for a null measurement, 0 while the interval stays open, non-zero when this packet closed it: the first
// one that arrives more than a second after the packet that opened it.
int32_t mdi_received_packet_cb(MdiMeasurement* m, const timeval* arrival, uint32_t drainRate,
                               uint32_t cumulativeLost);

// The same as `count` calls of mdi_received_packet_cb with these arguments; `m` must not be null. The packets
// of one datagram share their arrival, so the analysis accounts them together.
void mdi_received_packets_cb(MdiMeasurement* m, const timeval* arrival, uint32_t drainRate,
                             uint32_t cumulativeLost, uint32_t count);

// Copies the delay factor (ms), its maximum, the loss of the last closed interval and its maximum.
// Returns 0, or -1 with nothing written for a null measurement.
int32_t mdi_get_result(const MdiMeasurement* m, float* delayFactor, float* delayFactorMaximum,
                       uint32_t* lostInLastInterval, uint32_t* lostPerIntervalMaximum);

// Releases the measurement. Returns 0, or -1 for null.
int32_t mdi_cleanup(MdiMeasurement* m);
