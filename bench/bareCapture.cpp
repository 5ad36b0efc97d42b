// The least that a capture with the daemon's settings costs: a loop of pcap_next_ex that only counts.
// Ends with the stated number of frames, drops included; prints frames, kernel drops and its CPU seconds.
#include <pcap/pcap.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>

#include "packetCapture.h"

namespace {

constexpr int kReadTimeoutMs = 1000;

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Counts captured frames"};
    uint64_t count = 0;
    double seconds = 60;
    app.add_option("--count", count, "stop after this many frames")->required();
    app.add_option("--seconds", seconds, "stop after this time at the latest");
    CLI11_PARSE(app, argc, argv);

    char error[PCAP_ERRBUF_SIZE];
    pcap_t* handle = pcap_open_live("eth0", kCaptureSnapshotLength, 0, kReadTimeoutMs, error);
    bpf_program program{};
    if (handle == nullptr || pcap_compile(handle, &program, kCaptureFilter, 1, kCaptureNetmask) < 0 ||
        pcap_setfilter(handle, &program) < 0) {
        fprintf(stderr, "bareCapture: %s\n", handle != nullptr ? pcap_geterr(handle) : error);
        return 1;
    }
    pcap_freecode(&program);
    puts("ready");
    fflush(stdout);

    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    uint64_t frames = 0;
    pcap_stat statistics{};
    pcap_pkthdr* header = nullptr;
    const u_char* frame = nullptr;
    while (frames + statistics.ps_drop < count && pcap_next_ex(handle, &header, &frame) >= 0) {
        ++frames;
        if (frames % 4096 == 0) {
            pcap_stats(handle, &statistics);
            if (std::chrono::steady_clock::now() > end) {
                break;
            }
        }
    }
    pcap_stats(handle, &statistics);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                     static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    printf("%llu %u %.3f\n", static_cast<unsigned long long>(frames), statistics.ps_drop, cpu);
    pcap_close(handle);
    return 0;
}
