// What the results writer costs: snapshots of 1000 streams of 20 PIDs, two of them video, into a file in
// memory, the latch included; and how long one stream's snapshot holds the stream table lock.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <algorithm>
#include <chrono>

#include "configuration.h"
#include "kestor.h"
#include "resultsWriter.h"
#include "support/streamBuilder.h"
#include "workload.h"

namespace {

constexpr uint32_t kStreams = 1000;
constexpr uint16_t kPmtPid = 0x100;
constexpr uint16_t kFirstElementaryPid = 0x101;
constexpr uint16_t kElementaryPids = 18;
// Fills the jitter ring of 4096 datagrams and both frame size buffers of a video PID.
constexpr int kWarmUpRounds = 1400;
constexpr std::size_t kFileSize = 32 << 20;

using Clock = std::chrono::steady_clock;

// The lock whose holds are timed.
const pthread_rwlock_t* watchedLock = nullptr;
Clock::time_point heldSince;
std::vector<double> holdsUs;

template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// The writer's own calls arrive here before the C library's.
extern "C" int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept {
    static const auto real = next<int (*)(pthread_rwlock_t*)>("pthread_rwlock_rdlock");
    const int result = real(lock);
    if (lock == watchedLock) {
        heldSince = Clock::now();
    }
    return result;
}

extern "C" int pthread_rwlock_unlock(pthread_rwlock_t* lock) noexcept {
    static const auto real = next<int (*)(pthread_rwlock_t*)>("pthread_rwlock_unlock");
    if (lock == watchedLock) {
        holdsUs.push_back(std::chrono::duration<double, std::micro>(Clock::now() - heldSince).count());
    }
    return real(lock);
}

namespace {

// PAT, PMT with two video and sixteen audio streams, and a packet of each.
std::vector<test::Bytes> tables() {
    std::vector<psi::ElementaryStream> streams;
    for (uint16_t i = 0; i < kElementaryPids; ++i) {
        const auto pid = static_cast<uint16_t>(kFirstElementaryPid + i);
        streams.push_back(
            {static_cast<uint8_t>(i < 2 ? 0x1B : 0x04), pid, psi::descriptor(0x0A, {'p', 'o', 'l', 0})});
    }
    test::TsStream packets;
    packets.pat({{1, kPmtPid}}).pmt(1, kPmtPid, kFirstElementaryPid, streams);
    return packets.takeDatagrams();
}

std::vector<test::Bytes> pictures(test::TsStream& packets) {
    for (uint16_t i = 0; i < kElementaryPids; ++i) {
        packets.pes(static_cast<uint16_t>(kFirstElementaryPid + i));
    }
    return packets.takeDatagrams();
}

class Monitor {
  public:
    Monitor() : device_(MODE_MONITOR) {
        for (uint32_t i = 0; i < kStreams; ++i) {
            sarnUdpStreams_addStream(device_.udpStreams, bench::groupAddress(i), 0, 0, "bench",
                                     &device_.streamsLock);
            addIpStreamToInternalList(&device_, bench::groupAddress(i));
        }
        feed(tables());
        for (int i = 0; i < kWarmUpRounds; ++i) {
            feed(pictures(packets_));
        }
    }
    void play() {
        feed(pictures(packets_));
    }
    T_interface* device() {
        return &device_;
    }

  private:
    void feed(const std::vector<test::Bytes>& datagrams) {
        now_ += 40;
        for (const test::Bytes& datagram : datagrams) {
            // A shorter last datagram travels in a frame filled up with null packets.
            std::vector<uint8_t> frame(bench::kFrameSize, 0xFF);
            for (std::size_t i = bench::kHeadersSize; i < frame.size(); i += kTsPacketSize) {
                frame[i] = 0x47;
                frame[i + 1] = 0x1F;
                frame[i + 3] = 0x10;
            }
            std::copy(datagram.begin(), datagram.end(), frame.begin() + bench::kHeadersSize);
            for (uint32_t i = 0; i < kStreams; ++i) {
                bench::writeHeaders(frame.data(), bench::groupAddress(i));
                sarnUdpStreams_processIpPacket(device_.udpStreams, frame.data(), bench::kFrameSize, now_,
                                               now_ * 54000, &device_.streamsLock);
            }
        }
    }

    T_interface device_;
    test::TsStream packets_;
    uint64_t now_ = 1'700'000'000'000;
};

void snapshot(benchmark::State& state) {
    const uint64_t before = bench::residentBytes();
    Monitor monitor;
    std::vector<char> memory(kFileSize);
    watchedLock = &monitor.device()->streamsLock;
    for ([[maybe_unused]] auto _ : state) {
        state.PauseTiming();
        watchedLock = nullptr;
        monitor.play();
        watchedLock = &monitor.device()->streamsLock;
        FILE* file = fmemopen(memory.data(), memory.size(), "w");
        state.ResumeTiming();
        saveStreamsV2(monitor.device(), file);
        state.PauseTiming();
        fclose(file);
        state.ResumeTiming();
    }
    watchedLock = nullptr;
    state.counters["KiB/stream"] =
        static_cast<double>(bench::residentBytes() - before - memory.size()) / 1024 / kStreams;
    std::sort(holdsUs.begin(), holdsUs.end());
    state.counters["us/stream"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * kStreams / 1e6,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["lock_us_median"] = holdsUs[holdsUs.size() / 2];
    state.counters["lock_us_99.9%"] = holdsUs[holdsUs.size() * 999 / 1000];
    state.counters["lock_us_max"] = holdsUs.back();
}
// One run: a second one would find the first one's memory to use again.
BENCHMARK(snapshot)->Iterations(20)->Unit(benchmark::kMillisecond);

}  // namespace
