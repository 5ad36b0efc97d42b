// Tools for looking into the GOP estimate by hand. Nothing in the system calls them.
#pragma once

#include <cstdint>

#include "sarn/gop.h"

// Tries the periods 4 to 19 on the frame sizes: prints, for each slot of a period, the mean and the sum of
// the sizes that fall on it to standard output. frames: kGopFrames entries; count: what the mean is taken
// over.
void calculateGOP_LJ(const PesSample* frames, int32_t count, int32_t ignored);

// Prints one line an entry to standard output: index, running number, bytes, packets, lost packets.
// frameCounter is the running number behind the last of kGopFrames entries.
void printNALs(const PesSample* frames, int32_t count, uint64_t frameCounter);

// Returns the most frequent of the first 10 values; of equally frequent ones, the first met.
uint16_t gop_structure(const uint8_t* values, int32_t ignored);

// Appends the classification of kGopFrames frames, sorted ascending by size, to a file named after the counts
// and a summary line to "results_all.txt", both in the working directory. The iCount largest frames are
// listed as I, the next pCount as P, the rest as B. Writes a line to standard error and nothing else when the
// first file cannot be opened.
void saveToFileInCorrectStructure(const PesSample* frames, int32_t iCount, int32_t pCount);

// qsort order of plain 64-bit sizes, ascending.
int compareMyType(const void* a, const void* b);
