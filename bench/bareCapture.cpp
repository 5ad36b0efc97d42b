// The least that a capture with the daemon's settings costs: a loop of pcap_next_ex that only counts.
// Ends with the stated number of frames or at SIGTERM; prints frames, kernel drops and its CPU seconds.
#include <pcap/pcap.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>

#include "packetCapture.h"

namespace {

constexpr int kReadTimeoutMs = 1000;

pcap_t* looping = nullptr;  // for the signal

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Counts captured frames"};
    uint64_t count = 0;
    app.add_option("--count", count, "stop after this many frames, or at SIGTERM")->required();
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
    looping = handle;
    std::signal(SIGTERM, [](int) { pcap_breakloop(looping); });
    puts("ready");
    fflush(stdout);

    uint64_t frames = 0;
    pcap_pkthdr* header = nullptr;
    const u_char* frame = nullptr;
    int result = 0;
    while (frames < count && (result = pcap_next_ex(handle, &header, &frame)) >= 0) {
        frames += static_cast<uint64_t>(result);  // 0: nothing came for a while
    }
    pcap_stat statistics{};
    pcap_stats(handle, &statistics);
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto cpu = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                     static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    printf("%llu %u %.3f\n", static_cast<unsigned long long>(frames), statistics.ps_drop, cpu);
    pcap_close(handle);
    return 0;
}
