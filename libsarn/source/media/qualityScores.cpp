#include "sarn/qualityScores.h"

#include <algorithm>
#include <array>

constexpr int32_t tqi_a = 4;
constexpr double tqi_b = 4.5;
constexpr double tqi_c = 4.8;
constexpr int32_t tqi_d = 200;
constexpr int32_t tqi_e = 2000;
constexpr int32_t mos_a = 4;
constexpr double mos_b = 4.5;
constexpr double mos_c = 4.8;
constexpr int32_t mos_d = 200;
constexpr int32_t mos_e = 2000;

namespace {

constexpr double kLowestScore = 1.0;
constexpr double kHighestScore = 5.0;
constexpr double kWeightOfBase = 9.0;
constexpr double kWeightOfAll = 10.0;

// Limits between the bit-rate bands, kbit/s.
constexpr int32_t kVideoLow = 3000;
constexpr int32_t kVideoHigh = 7000;
constexpr int32_t kAudioLow = 200;
constexpr int32_t kAudioHigh = 400;

// Descriptor tags of AC-3, enhanced AC-3, DTS and AAC (ETSI EN 300 468).
constexpr std::array<uint8_t, 4> kAudioDescriptorTags = {0x6A, 0x7A, 0x7B, 0x7C};

struct Band {
    double seed;
    double base;
    double lossWeight;
};
using BandModel = std::array<Band, 3>;  // low, middle, high

// The seed of the middle band lies above its base and that of the high band below; both are meant so.
constexpr BandModel kTransportModel = {{{4.0, tqi_a, tqi_d}, {4.8, tqi_b, tqi_d}, {4.5, tqi_c, tqi_e}}};
constexpr BandModel kMosModel = {{{4.0, mos_a, mos_d}, {4.8, mos_b, mos_d}, {4.5, mos_c, mos_e}}};

const Band& bandFor(const BandModel& model, int32_t bitrateKbps, int32_t lowLimit, int32_t highLimit) {
    if (bitrateKbps < lowLimit) {
        return model[0];
    }
    return bitrateKbps > highLimit ? model[2] : model[1];
}

double rawScore(const Band& band, double loss, double seed) {
    return ((band.base - band.lossWeight * loss) * kWeightOfBase + seed) / kWeightOfAll;
}

double clampScore(double score) {
    if (score < kLowestScore) {
        return kLowestScore;
    }
    return score > kHighestScore ? kHighestScore : score;
}

}  // namespace

void getTransportQualityIndex(int32_t bitrateKbps, double loss, double impairment, double* index,
                              double* seed) {
    if (bitrateKbps < 1) {
        *index = kLowestScore;
        *seed = kLowestScore;
        return;
    }
    const Band& band = bandFor(kTransportModel, bitrateKbps, kVideoLow, kVideoHigh);
    if (*seed == 0.0) {
        *seed = band.seed;
    }
    double score = rawScore(band, loss, *seed);
    // No delay factor meets both tests, so none lowers the index; readers of the records rely on that.
    if (impairment < 9.0 && impairment > 50.0) {
        score -= 1.0;
    }
    *index = clampScore(score);
}

void getMosScore(uint8_t streamType, int32_t bitrateKbps, double loss, const uint8_t* descriptorTags,
                 uint8_t descriptorCount, MosMeasurement* mos) {
    switch (streamType) {
        case 0x01:  // MPEG-1 video
        case 0x02:  // MPEG-2 video
        case 0x10:  // MPEG-4 part 2 video
        case 0x1B:  // H.264 video
            getMos(bitrateKbps, loss, mos, kVideoLow, kVideoHigh);
            break;
        case 0x03:  // MPEG-1 audio
        case 0x04:  // MPEG-2 audio
        case 0x0F:  // AAC (ADTS)
            getMos(bitrateKbps, loss, mos, kAudioLow, kAudioHigh);
            break;
        case 0x06:  // private PES data
        case 0x81:  // AC-3
            for (uint8_t i = 0; i < descriptorCount; ++i) {
                if (std::find(kAudioDescriptorTags.begin(), kAudioDescriptorTags.end(), descriptorTags[i]) !=
                    kAudioDescriptorTags.end()) {
                    getMos(bitrateKbps, loss, mos, kAudioLow, kAudioHigh);
                }
            }
            break;
        default:
            break;
    }
}

void getMos(int32_t bitrateKbps, double loss, MosMeasurement* mos, int32_t lowLimit, int32_t highLimit) {
    const Band& band = bandFor(kMosModel, bitrateKbps, lowLimit, highLimit);
    if (mos->seeded == 0) {
        mos->seeded = 1;
        mos->seed = band.seed;
    }
    mos->score = sanitizeMosScore(loss, rawScore(band, loss, mos->seed));
    mos->seed = mos->score;
    if (mos->score >= mos->maximum) {
        mos->maximum = mos->score;
    }
    if (mos->score <= mos->minimum) {
        mos->minimum = mos->score;
    }
}

double sanitizeMosScore(double /*loss*/, double score) {
    return clampScore(score);
}

void startMOSMearument(MosMeasurement* mos) {
    mos->seeded = 0;
}
