#include "processUse.h"

#include <unistd.h>

#include <cstdio>
#include <ctime>

namespace station {

namespace {

constexpr std::chrono::seconds kPause{5};

// Processor time of the calling thread.
double threadCpuMs() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

// Of all threads.
double processCpuSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// 0 where the kernel does not tell.
uint64_t residentBytes() {
    unsigned long long total = 0;
    unsigned long long resident = 0;
    FILE* file = fopen("/proc/self/statm", "re");
    if (file == nullptr) {
        return 0;
    }
    if (fscanf(file, "%llu %llu", &total, &resident) != 2) {
        resident = 0;
    }
    fclose(file);
    return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace

void UseMeter::measure(SteadyTime now) {
    if (now - measured_ > kPause) {
        measured_ = now;
        use_.cpuSeconds = processCpuSeconds();
        use_.residentBytes = residentBytes();
    }
}

UseMeter::Snapshot::Snapshot(UseMeter& meter) : meter_(meter), before_(threadCpuMs()) {}

UseMeter::Snapshot::~Snapshot() {
    meter_.use_.lastSnapshotCpuMs = threadCpuMs() - before_;
}

}  // namespace station
