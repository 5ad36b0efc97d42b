// Analysis of one stream in the steady state beside the floor of reading headers only, the same spread over
// many streams, and one tick of the silence timer.
#include <benchmark/benchmark.h>

#include <algorithm>

#include "sarn/sarnDvbPsi.h"
#include "workload.h"

namespace {

// The bit rate is known from packet 140000 on; the delivery index runs from there.
constexpr std::size_t kWarmUpPackets = 150'000;
// With many streams the warm-up only has to touch what each stream uses.
constexpr std::size_t kWarmUpFramesPerStream = 200;

void reportPerPacket(benchmark::State& state) {
    const auto packets = static_cast<double>(state.iterations()) * bench::kPacketsPerFrame;
    state.counters["ns/packet"] =
        benchmark::Counter(packets / 1e9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void floorOfHeaders(benchmark::State& state) {
    const bench::Recording recording(static_cast<uint32_t>(state.range(0)));
    std::vector<uint64_t> perPid(kPidCount);
    std::size_t index = 0;
    for ([[maybe_unused]] auto _ : state) {
        bench::countHeaders({recording.frame(index++), bench::kFrameSize}, perPid);
    }
    benchmark::DoNotOptimize(perPid.data());
    reportPerPacket(state);
}
BENCHMARK(floorOfHeaders)->Arg(1);

void analysis(benchmark::State& state) {
    const auto streams = static_cast<uint32_t>(state.range(0));
    const bench::Recording recording(streams);
    const uint64_t before = bench::residentBytes();
    bench::Table table(recording);
    const std::size_t warmUp =
        std::max(kWarmUpPackets / bench::kPacketsPerFrame + 1, kWarmUpFramesPerStream * streams);
    for (std::size_t i = 0; i < warmUp; ++i) {
        table.feed();
    }
    for ([[maybe_unused]] auto _ : state) {
        table.feed();
    }
    state.counters["KiB/stream"] = static_cast<double>(bench::residentBytes() - before) / 1024 / streams;
    reportPerPacket(state);
}
BENCHMARK(analysis)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);

void timerTick(benchmark::State& state) {
    const bench::Recording recording(1000);
    bench::Table table(recording);
    for (std::size_t i = 0; i < 1000 * kWarmUpFramesPerStream; ++i) {
        table.feed();
    }
    const int64_t nowSeconds = 1'700'000'100;
    for ([[maybe_unused]] auto _ : state) {
        sarnDvbPsi_timerTick(nowSeconds);
    }
}
BENCHMARK(timerTick)->Unit(benchmark::kMillisecond);

}  // namespace
