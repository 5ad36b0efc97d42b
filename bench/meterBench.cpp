// What the measuring library costs: a packet of one channel and of a thousand, a report, and memory.
#include <benchmark/benchmark.h>

#include <memory>

#include "meter/channelAnalyser.h"
#include "meterWorkload.h"
#include "workload.h"

namespace {

// Rates of the latest 10 s, medians and the line through arrivals are in the steady state then.
constexpr std::size_t kWarmUpFrames = 120'000 / bench::kPacketsPerFrame;

void meterPackets(benchmark::State& state) {
    const auto channels = static_cast<uint32_t>(state.range(0));
    const bench::Recording recording(channels);
    const uint64_t before = bench::residentBytes();
    bench::MeterChannels meters(recording);
    const std::size_t rounds = recording.frames() / channels;
    for (std::size_t i = 0; i < std::min(kWarmUpFrames, rounds) * channels; ++i) {
        meters.feed();
    }
    for ([[maybe_unused]] auto _ : state) {
        meters.feed();
    }
    const auto packets = static_cast<double>(state.iterations()) * bench::kPacketsPerFrame;
    state.counters["ns/packet"] =
        benchmark::Counter(packets / 1e9, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["KiB/channel"] = static_cast<double>(bench::residentBytes() - before) / 1024 / channels;
}
BENCHMARK(meterPackets)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);

void meterReport(benchmark::State& state) {
    const bench::Recording recording(1);
    bench::MeterChannels meters(recording);
    for (std::size_t i = 0; i < kWarmUpFrames; ++i) {
        meters.feed();
    }
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(meters.channel(0).report());
    }
}
BENCHMARK(meterReport)->Unit(benchmark::kMicrosecond);

void meterReportAsJson(benchmark::State& state) {
    const bench::Recording recording(1);
    bench::MeterChannels meters(recording);
    for (std::size_t i = 0; i < kWarmUpFrames; ++i) {
        meters.feed();
    }
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(meter::toJson(meters.channel(0).report()));
    }
}
BENCHMARK(meterReportAsJson)->Unit(benchmark::kMicrosecond);

}  // namespace
