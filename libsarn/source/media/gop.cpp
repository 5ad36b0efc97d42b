#include "sarn/gop.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <span>
#include <vector>

#include "sarn/sarnLog.h"

namespace {

constexpr unsigned kLengthEqualsBFramesLine = 200;

// Frames of a larger reference size are classified with these coefficients.
struct CoefficientBand {
    uint64_t above;  // bytes
    double iCoefficient;
    double pFactor;  // the P coefficient is this times the I coefficient
};

constexpr std::array<CoefficientBand, 4> kCoefficientBands = {{
    {180000, 2.0, 5.5},
    {120000, 1.8, 5.0},
    {60000, 1.7, 4.5},
    {35000, 1.6, 3.5},
}};
constexpr CoefficientBand kSmallestBand = {0, 1.5, 3.0};

// Counts start at 1, which the figures that readers of the records know contain.
struct Classification {
    uint16_t iCount = 1;
    uint16_t pCount = 1;
    uint64_t sumOfISizes = 0;
    uint64_t sumOfPSizes = 0;
};

std::vector<PesSample> sortedBySize(const PesSample* frames, int32_t count) {
    std::vector<PesSample> sorted(frames, frames + count);
    std::qsort(sorted.data(), sorted.size(), sizeof(PesSample), compareMyTypeStruct);
    return sorted;
}

// The size an I frame is compared with: a frame counts as one when its size, scaled up, exceeds it.
double thresholdFor(uint64_t reference, uint64_t averageISize) {
    if (averageISize != 0) {
        return static_cast<double>(reference + averageISize) * 2.0 / 3.0;
    }
    return static_cast<double>(reference);
}

Classification classify(std::span<const PesSample> sorted, uint64_t averageISize) {
    const uint64_t reference = sorted[sorted.size() - 2].i_pes_bytes;
    double iCoefficient = 0.0;
    double pCoefficient = 0.0;
    calculateCoefficents(reference, &iCoefficient, &pCoefficient);
    SARN_ASSERT_AT(iCoefficient != 0, "i_frame_coefficent != 0", kGopFile, __LINE__);
    SARN_ASSERT_AT(pCoefficient != 0, "p_frame_coefficent != 0", kGopFile, __LINE__);

    const double threshold = thresholdFor(reference, averageISize);
    Classification result;
    for (const PesSample& frame : sorted) {
        const auto size = static_cast<double>(frame.i_pes_bytes);
        if (size * iCoefficient > threshold) {
            ++result.iCount;
            result.sumOfISizes += frame.i_pes_bytes;
        } else if (size * pCoefficient > threshold) {
            ++result.pCount;
            result.sumOfPSizes += frame.i_pes_bytes;
        }
    }
    return result;
}

uint8_t* newRing() {
    return static_cast<uint8_t*>(std::calloc(kGopRingSize, sizeof(uint8_t)));
}

// Sum of the ring's entries before the one at `index`.
uint64_t sumBefore(const uint8_t* ring, uint8_t index) {
    uint64_t sum = 0;
    for (uint8_t i = 0; i < index; ++i) {
        sum += ring[i];
    }
    return sum;
}

uint8_t averageOver(uint64_t sum, uint8_t entries) {
    return entries == 0 ? uint8_t{0} : static_cast<uint8_t>(sum / entries);
}

// Returns the sum of the earlier entries, which the length average goes on from.
uint64_t foldBFrames(Gop& gop, uint8_t bFrames) {
    if (gop.bFrameRing == nullptr) {
        gop.bFrameRing = newRing();
        gop.bFrameIndex = 0;
        gop.bFrameRing[0] = gop.b_frames;
        gop.bFrameAverageValid = 0;
        return 0;
    }
    gop.bFrameAverageValid = 1;
    ++gop.bFrameIndex;
    gop.bFrameRing[gop.bFrameIndex] = bFrames;
    const uint64_t sum = sumBefore(gop.bFrameRing, gop.bFrameIndex);
    gop.b_frames = averageOver(sum, gop.bFrameIndex);
    return sum;
}

// The average contains the sum of the B-frame entries as well; readers of the records rely on that figure.
void foldLength(Gop& gop, uint8_t length, uint8_t bFrames, uint64_t sumOfBFrames) {
    if (gop.lengthRing == nullptr) {
        gop.lengthRing = newRing();
        gop.lengthIndex = 0;
        gop.length = length;
        gop.b_frames = bFrames;
        gop.lengthAverageValid = 0;
        return;
    }
    gop.lengthAverageValid = 1;
    ++gop.lengthIndex;
    gop.lengthRing[gop.lengthIndex] = length;
    gop.length = averageOver(sumOfBFrames + sumBefore(gop.lengthRing, gop.lengthIndex), gop.lengthIndex);
}

}  // namespace

void calculateGOP(const PesSample* frames, int32_t count, Gop* gop, uint64_t /*frameCounter*/, uint16_t pid) {
    const Classification result = classify(sortedBySize(frames, count), gop->averageISize);
    std::printf("przed calculateGOP %d\n", pid);
    printGOPs(gop, result.iCount, result.pCount);
    saveGOP(gop, 0, result.sumOfISizes, result.sumOfPSizes, result.iCount, result.pCount, count);
    printGOPs(gop, result.iCount, result.pCount);
    std::printf("po calculateGOP %d\n", pid);
}

void calculateCoefficents(uint64_t reference, double* iCoefficient, double* pCoefficient) {
    const auto* band = std::find_if(kCoefficientBands.begin(), kCoefficientBands.end(),
                                    [reference](const CoefficientBand& b) { return reference > b.above; });
    const CoefficientBand& chosen = band != kCoefficientBands.end() ? *band : kSmallestBand;
    *iCoefficient = chosen.iCoefficient;
    *pCoefficient = chosen.iCoefficient * chosen.pFactor;
}

int compareMyTypeStruct(const void* a, const void* b) {
    const uint64_t first = static_cast<const PesSample*>(a)->i_pes_bytes;
    const uint64_t second = static_cast<const PesSample*>(b)->i_pes_bytes;
    if (first < second) {
        return -1;
    }
    return first > second ? 1 : 0;
}

int saveGOP(Gop* gop, uint32_t /*ignored*/, uint64_t sumOfISizes, uint64_t /*sumOfPSizes*/, uint16_t iCount,
            uint16_t pCount, int32_t frameCount) {
    if (iCount == 0) {
        return -1;
    }
    gop->averageISize = sumOfISizes / iCount;
    const auto length = static_cast<uint8_t>(frameCount / iCount);
    const auto anchorsPerI = static_cast<uint8_t>(pCount / iCount);
    if (anchorsPerI == 0) {
        return -1;
    }
    const auto bFrames = static_cast<uint8_t>((length - 1 - anchorsPerI) / anchorsPerI);
    const uint64_t sumOfBFrames = foldBFrames(*gop, bFrames);
    foldLength(*gop, length, bFrames, sumOfBFrames);
    SARN_ASSERT_AT(gop->length == 0 || gop->b_frames == 0 || gop->length != gop->b_frames,
                   "(*gop).length != (*gop).b_frames", kGopFile, kLengthEqualsBFramesLine);
    return 0;
}

void getGOP(GopResult* result, Gop gop) {
    if (result == nullptr) {
        return;
    }
    if (gop.bFrameAverageValid != 0) {
        result->b_frames = gop.b_frames;
    }
    if (gop.lengthAverageValid != 0 && gop.length != 0) {
        result->length = gop.length;
        result->maximum = std::max(result->maximum, gop.length);
        result->minimum = std::min(result->minimum, gop.length);
    }
}

void printGOPs(const Gop* gop, uint16_t iCount, uint16_t pCount) {
    std::puts("GOP ");
    std::printf("i_frame_number %d\n", iCount);
    std::printf("p_frame_number/i_frame_number %d\n", iCount != 0 ? pCount / iCount : 0);
    std::printf("Average I Size %d\n", static_cast<int>(gop->averageISize));
    std::printf("B Frames %d Current Length %d \n", gop->b_frames, gop->length);
}

void freeGopRings(Gop* gop) {
    std::free(gop->bFrameRing);
    std::free(gop->lengthRing);
    gop->bFrameRing = nullptr;
    gop->lengthRing = nullptr;
}
