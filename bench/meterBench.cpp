// What the measuring library costs: a packet of one channel and of a thousand, a report, and memory.
#include <benchmark/benchmark.h>

#include <time.h>

#include "meter/channelAnalyser.h"
#include "meterWorkload.h"
#include "workload.h"

namespace {

// Of this thread: other work on the machine then shows in its caches alone.
double cpuSeconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

void meterPackets(benchmark::State& state) {
    const auto channels = static_cast<uint32_t>(state.range(0));
    const bench::Recording recording(1);
    const uint64_t before = bench::residentBytes();
    bench::MeterChannels meters(recording, channels);
    meters.warmUp();
    for ([[maybe_unused]] auto _ : state) {
        meters.layOut();
        const double begin = cpuSeconds();
        meters.feed();
        state.SetIterationTime(cpuSeconds() - begin);
    }
    const auto packets =
        static_cast<double>(state.iterations() * bench::MeterChannels::kBlock) * bench::kPacketsPerFrame;
    state.counters["packets"] = benchmark::Counter(packets, benchmark::Counter::kIsRate);
    state.counters["KiB/channel"] = static_cast<double>(bench::residentBytes() - before) / 1024 / channels;
}
// Fixed, since to find a number out the channels would be warmed up again and again.
BENCHMARK(meterPackets)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->UseManualTime()->Iterations(2000);

void meterReport(benchmark::State& state) {
    const bench::Recording recording(1);
    bench::MeterChannels meters(recording, 1);
    meters.warmUp();
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(meters.channel(0).report());
    }
}
BENCHMARK(meterReport)->Unit(benchmark::kMicrosecond);

void meterReportAsJson(benchmark::State& state) {
    const bench::Recording recording(1);
    bench::MeterChannels meters(recording, 1);
    meters.warmUp();
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(meter::toJson(meters.channel(0).report()));
    }
}
BENCHMARK(meterReportAsJson)->Unit(benchmark::kMicrosecond);

}  // namespace
