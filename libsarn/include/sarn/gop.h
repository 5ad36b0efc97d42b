// Estimate of a video PID's group-of-pictures structure from the sizes of its coded frames alone.
#pragma once

#include <cstdint>

inline constexpr int kGopFrames = 500;         // frames that one calculation looks at
inline constexpr uint32_t kGopRingSize = 500;  // slots of the rings; the 8-bit index uses the first 256

// One coded frame: what lies between two PES starts of the PID.
struct PesSample {
    uint64_t i_pes_bytes;    // frame size
    uint32_t i_pes_packets;  // transport packets in that span
    uint32_t i_pes_lost;     // of them lost
};

// Running estimate of one PID; starts zero-filled. The rings are owned by it and released with freeGopRings.
struct Gop {
    uint8_t* bFrameRing;         // B frames per anchor of each calculation; null before the first
    uint8_t bFrameIndex;         // last slot written
    uint8_t* lengthRing;         // GOP length of each calculation; null before the first
    uint8_t lengthIndex;         // last slot written
    uint8_t b_frames;            // running average of B frames per anchor frame
    uint64_t averageISize;       // bytes, of the frames classified I in the last calculation
    uint8_t length;              // running average GOP length, frames
    uint8_t bFrameAverageValid;  // set from the second calculation on
    uint8_t lengthAverageValid;  // set from the second calculation on
};

// What getGOP reports. Starts zero-filled with minimum 255 and maximum 1.
struct GopResult {
    uint8_t length;
    uint8_t minimum;
    uint8_t maximum;
    uint8_t b_frames;
    uint8_t unused[2];
};

// Classifies `count` frames (500 in this system, at least 2) as I, P or B by size and folds the result into
// `gop`. The frames are left as they are. Prints the estimate before and after to standard output. Aborts
// when length and B frames come out equal and not 0. frameCounter, the PID's running number of frames, is not
// used.
void calculateGOP(const PesSample* frames, int32_t count, Gop* gop, uint64_t frameCounter, uint16_t pid);

// The I and P coefficients for a reference size in bytes.
void calculateCoefficents(uint64_t reference, double* iCoefficient, double* pCoefficient);

// qsort order of PesSample records: ascending by size.
int compareMyTypeStruct(const void* a, const void* b);

// Folds one calculation into the running averages. Returns 0; -1 when there are no I frames, or (with the
// average I size already stored) fewer P than I frames.
int saveGOP(Gop* gop, uint32_t ignored, uint64_t sumOfISizes, uint64_t sumOfPSizes, uint16_t iCount,
            uint16_t pCount, int32_t frameCount);

// Copies the averages that are valid into *result; nothing when it is null.
void getGOP(GopResult* result, Gop gop);

// Prints the estimate to standard output.
void printGOPs(const Gop* gop, uint16_t iCount, uint16_t pCount);

// Releases the two rings and clears the pointers.
void freeGopRings(Gop* gop);
