// Runs a fixed number of frames through the analysis, or through the floor, for callgrind to count.
//
//     instructionCount analysis|meter|floor FRAMES
//
// The warm-up brings the stream into the steady state: bit rate known, delivery index running. Counting two
// runs of different length and taking the difference leaves it out (bench/run.sh).
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "meterWorkload.h"
#include "workload.h"

namespace {

constexpr std::size_t kWarmUpFrames = 150'000 / bench::kPacketsPerFrame + 1;

}  // namespace

// A name for callgrind to collect in, so kept out of line.
extern "C" __attribute__((noinline)) void measuredFloor(const bench::Recording& recording,
                                                        std::vector<uint64_t>& perPid, std::size_t frames) {
    for (std::size_t i = 0; i < frames; ++i) {
        bench::countHeaders({recording.frame(i), bench::kFrameSize}, perPid);
    }
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: instructionCount analysis|meter|floor FRAMES\n");
        return 2;
    }
    const auto frames = static_cast<std::size_t>(strtoull(argv[2], nullptr, 10));
    const bench::Recording recording(1);
    if (strcmp(argv[1], "analysis") == 0) {
        bench::Table table(recording);
        for (std::size_t i = 0; i < kWarmUpFrames + frames; ++i) {
            table.feed();
        }
    } else if (strcmp(argv[1], "meter") == 0) {
        bench::MeterChannels meters(recording, 1);
        for (std::size_t i = 0; i < kWarmUpFrames + frames; ++i) {
            meters.feedOne();
        }
    } else {
        std::vector<uint64_t> perPid(kPidCount);
        measuredFloor(recording, perPid, frames);
        printf("%llu null packets\n", static_cast<unsigned long long>(perPid[kNullPid]));
    }
    return 0;
}
