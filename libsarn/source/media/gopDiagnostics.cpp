#include "sarn/gopDiagnostics.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

constexpr int kFirstPeriod = 4;
constexpr int kLastPeriod = 19;
constexpr int kStructureValues = 10;

struct CloseFile {
    void operator()(std::FILE* file) const {
        std::fclose(file);
    }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

void writeSummary(std::FILE* file, int32_t iCount, int32_t pCount) {
    std::fprintf(file, "I %u. P %u. B %u \n", static_cast<unsigned>(iCount), static_cast<unsigned>(pCount),
                 static_cast<unsigned>(kGopFrames - (iCount + pCount)));
}

char frameLetter(int index, int32_t iCount, int32_t pCount) {
    if (index > kGopFrames - 1 - iCount) {
        return 'I';
    }
    return index > kGopFrames - 1 - (iCount + pCount) ? 'P' : 'B';
}

}  // namespace

void calculateGOP_LJ(const PesSample* frames, int32_t count, int32_t /*ignored*/) {
    for (int period = kFirstPeriod; period <= kLastPeriod; ++period) {
        std::vector<uint64_t> sums(static_cast<std::size_t>(period));
        for (int i = 0; i < kGopFrames; ++i) {
            sums[static_cast<std::size_t>(i % period)] += frames[i].i_pes_bytes;
        }
        const double framesPerSlot = static_cast<double>(count) / period;
        std::printf("Step %d", period);
        for (int slot = 0; slot < period; ++slot) {
            const uint64_t sum = sums[static_cast<std::size_t>(slot)];
            std::printf("%d %f %" PRIu64 "\n", slot, static_cast<double>(sum) / framesPerSlot, sum);
        }
        std::puts("\n\n");
    }
}

void printNALs(const PesSample* frames, int32_t count, uint64_t frameCounter) {
    for (int32_t i = 0; i < count; ++i) {
        const uint64_t number = frameCounter + static_cast<uint64_t>(i) - uint64_t{kGopFrames};
        std::printf("%d;%" PRIu64 ";%" PRIu64 ";%d;%d\n", i, number, frames[i].i_pes_bytes,
                    static_cast<int>(frames[i].i_pes_packets), static_cast<int>(frames[i].i_pes_lost));
    }
}

uint16_t gop_structure(const uint8_t* values, int32_t /*ignored*/) {
    std::array<int, 256> frequency{};
    for (int i = 0; i < kStructureValues; ++i) {
        ++frequency[values[i]];
    }
    return *std::max_element(values, values + kStructureValues,
                             [&frequency](uint8_t a, uint8_t b) { return frequency[a] < frequency[b]; });
}

void saveToFileInCorrectStructure(const PesSample* frames, int32_t iCount, int32_t pCount) {
    std::array<char, 64> name{};
    std::snprintf(name.data(), name.size(), "%d_%d_%d_results.txt", iCount, pCount, kGopFrames - pCount);
    const File results(std::fopen(name.data(), "a+"));
    const File summary(std::fopen("results_all.txt", "a+"));
    if (!results) {
        std::fprintf(stderr, "Problem opening file %s for reading\n", name.data());
        return;
    }
    writeSummary(results.get(), iCount, pCount);
    for (int i = kGopFrames - 1; i >= 0; --i) {
        std::fprintf(results.get(), "%c %d; %" PRIu64 "\n", frameLetter(i, iCount, pCount), i,
                     frames[i].i_pes_bytes);
    }
    if (summary) {
        writeSummary(summary.get(), iCount, pCount);
    }
}

int compareMyType(const void* a, const void* b) {
    const uint64_t first = *static_cast<const uint64_t*>(a);
    const uint64_t second = *static_cast<const uint64_t*>(b);
    if (first < second) {
        return -1;
    }
    return first > second ? 1 : 0;
}
