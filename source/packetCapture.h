// Live capture: the device, the capture thread and the capture's statistics.
#pragma once

#include <pcap/pcap.h>

#include <cstdint>
#include <memory>

struct T_interface;

// What every capture uses, recorded ones included. Compiled with optimisation.
inline constexpr const char* kCaptureFilter = "!ip6 and udp and !igmp and ip multicast";
inline constexpr int kCaptureSnapshotLength = 1514;
inline constexpr bpf_u_int32 kCaptureNetmask = 0x00FFFFFF;  // 255.255.255.0 in network byte order

inline constexpr uint64_t kTicksPerMicrosecond = 54;

// Arrival of a frame from its capture stamp: ms since the epoch, and the count used for bit rates.
constexpr uint64_t arrivalMs(uint64_t seconds, uint64_t microseconds) {
    return seconds * 1000 + microseconds / 1000;
}
constexpr uint64_t arrivalTicks(uint64_t seconds, uint64_t microseconds) {
    return (seconds * 1'000'000 + microseconds) * kTicksPerMicrosecond;
}

// Exit codes of what captures: thread results, and the channel scan's.
enum CaptureResult : int {
    kCaptureDone = 0,
    kCaptureDeviceError = -1,
    kCaptureBadFilter = -3,
    kCaptureFilterNotSet = -4
};

// Closes the handle and, where it is still the process-wide one, forgets it.
struct CaptureCloser {
    void operator()(pcap_t* handle) const;
};
using CaptureHandle = std::unique_ptr<pcap_t, CaptureCloser>;

// Opens the first device whose name contains "eth0", with the filter set, and makes it the process-wide
// handle that the statistics below read. readTimeoutMs: how long libpcap may hold back frames it has. Says
// on standard output what it does and what fails; `result` tells why there is no handle.
CaptureHandle openCapture(int readTimeoutMs, CaptureResult& result);

// Ends a capture after pcap_next_ex's result `lastRead`: a read error is printed and leaves the handle open.
CaptureResult endCapture(CaptureHandle handle, int lastRead);

// Sorts one captured frame into the monitor's streams and analyses it; takes streamsLock for writing.
void processFrame(T_interface* device, const uint8_t* frame, uint32_t capturedLength, uint64_t seconds,
                  uint64_t microseconds);

// Starts the capture thread, which runs for the life of the process or until the device fails; returns 0.
int pcapStartAnalyzing(T_interface* device);
// Its body: the T_interface as argument, a CaptureResult as the thread's result.
void* MyPacketCaptureThreadFunction(void* argument);

// Frames dropped by the kernel since the process-wide handle was opened, reported on standard output when
// there are any; -1 without a handle, 0 when the counts cannot be had.
int LostPacketsInPcapCount(T_interface* device);
// Fills the record from the process-wide handle; returns pcap_stats' result, -1 without a handle.
int pcapGetStatistics(pcap_stat* statistics);
// Size of that record in bytes.
int pcapGetSizeOfStats();

// Prints every stream's interval metrics to standard output, in table order. Takes no lock: for use while
// nothing captures.
void showStatistic(T_interface* device);
