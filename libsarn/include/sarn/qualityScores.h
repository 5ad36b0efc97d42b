// Two opinion-like scores from 1.0 to 5.0, from bit rate and packet loss: the transport quality index of a
// stream and the mean opinion score (MOS) of an elementary stream.
#pragma once

#include <cstdint>

// Constants of the model: base scores of the low, middle and high bit-rate band, and the weights of the loss.
extern const int32_t tqi_a;
extern const double tqi_b;
extern const double tqi_c;
extern const int32_t tqi_d;
extern const int32_t tqi_e;
extern const int32_t mos_a;
extern const double mos_b;
extern const double mos_c;
extern const int32_t mos_d;
extern const int32_t mos_e;

// MOS state of one PID. Starts zero-filled with minimum 5.0 and maximum 1.0.
struct MosMeasurement {
    double seed;  // carried into the next update: the last score
    double score;
    double minimum;
    double maximum;
    uint8_t seeded;  // 0 until the first update has chosen the seed
};

// Computes the index for a bit rate in kbit/s and a loss. A *seed of 0.0 means not yet chosen; the one chosen
// is written back. `impairment` is the delay factor in ms; it never lowers the index. No pointer may be null.
void getTransportQualityIndex(int32_t bitrateKbps, double loss, double impairment, double* index,
                              double* seed);

// Updates the PID's MOS: once for video and audio stream types, once per AC-3, E-AC-3, DTS or AAC descriptor
// tag for private data (0x06, 0x81), never for others. `mos` must not be null.
void getMosScore(uint8_t streamType, int32_t bitrateKbps, double loss, const uint8_t* descriptorTags,
                 uint8_t descriptorCount, MosMeasurement* mos);

// One update with the band limits in kbit/s (both belong to the middle band).
void getMos(int32_t bitrateKbps, double loss, MosMeasurement* mos, int32_t lowLimit, int32_t highLimit);

// Clamps a score to [1.0, 5.0]; the loss is ignored.
double sanitizeMosScore(double loss, double score);

// Makes the next update choose a new seed.
void startMOSMearument(MosMeasurement* mos);
