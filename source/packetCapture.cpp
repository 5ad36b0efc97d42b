#include "packetCapture.h"

#include <pthread.h>

#include <atomic>
#include <bit>
#include <cstdio>
#include <cstring>
#include <utility>

#include "captureFrame.h"
#include "kestor.h"
#include "sarn/metrics.h"

namespace {

constexpr const char* kInterfaceName = "eth0";
constexpr int kNotPromiscuous = 0;
constexpr int kOptimiseFilter = 1;
constexpr int kCaptureReadTimeoutMs = 1000;

// The handle that the statistics read: the one opened last, by whichever monitor of the process.
std::atomic<pcap_t*> adhandle{nullptr};

using DeviceList = std::unique_ptr<pcap_if_t, decltype(&pcap_freealldevs)>;

const pcap_if_t* findInterface(const pcap_if_t* device) {
    for (; device; device = device->next) {
        printf("pcap dev name %s\n", device->name);
        if (strstr(device->name, kInterfaceName)) {
            return device;
        }
    }
    return nullptr;
}

CaptureHandle openDevice(int readTimeoutMs) {
    char error[PCAP_ERRBUF_SIZE];
    pcap_if_t* head = nullptr;
    if (pcap_findalldevs(&head, error) == -1) {
        printf("Error in pcap_findalldevs: %s\n", error);
        return nullptr;
    }
    const DeviceList devices(head, &pcap_freealldevs);
    const pcap_if_t* device = findInterface(head);
    if (!device) {
        puts("No interface found! Make sure WinPcap is installed.");
        return nullptr;
    }
    CaptureHandle handle(
        pcap_open_live(device->name, kCaptureSnapshotLength, kNotPromiscuous, readTimeoutMs, error));
    adhandle = handle.get();
    if (!handle) {
        puts("Unable to open the adapter. Is not supported by WinPcap");
        return nullptr;
    }
    printf("\nlistening on %s...\n", device->description ? device->description : "(null)");
    return handle;
}

CaptureResult setFilter(pcap_t* handle) {
    bpf_program program;
    if (pcap_compile(handle, &program, kCaptureFilter, kOptimiseFilter, kCaptureNetmask) < 0) {
        puts("Error compiling filter: wrong syntax.");
        return kCaptureBadFilter;
    }
    const int result = pcap_setfilter(handle, &program);
    pcap_freecode(&program);
    if (result < 0) {
        puts("Error setting the filter");
        return kCaptureFilterNotSet;
    }
    return kCaptureDone;
}

CaptureResult captureFrames(T_interface* device) {
    CaptureResult result;
    CaptureHandle handle = openCapture(kCaptureReadTimeoutMs, result);
    if (!handle) {
        return result;
    }
    int lastRead;
    CapturedFrame frame;
    while ((lastRead = readCapturedFrame(handle.get(), frame)) >= 0) {
        if (lastRead == 1) {
            processFrame(device, frame.data, frame.length, frame.seconds, frame.microseconds);
        }
    }
    return endCapture(std::move(handle), lastRead);
}

}  // namespace

void CaptureCloser::operator()(pcap_t* handle) const {
    pcap_t* expected = handle;
    adhandle.compare_exchange_strong(expected, nullptr);
    pcap_close(handle);
}

CaptureHandle openCapture(int readTimeoutMs, CaptureResult& result) {
    CaptureHandle handle = openDevice(readTimeoutMs);
    if (!handle) {
        result = kCaptureDeviceError;
        return nullptr;
    }
    result = setFilter(handle.get());
    return result == kCaptureDone ? std::move(handle) : nullptr;
}

CaptureResult endCapture(CaptureHandle handle, int lastRead) {
    if (lastRead != PCAP_ERROR) {
        return kCaptureDone;
    }
    printf("Error reading the packets: %s", pcap_geterr(handle.get()));
    fflush(stdout);  // no line's end does it, and nothing else may be printed for long
    // Left open on purpose: its counts stay available to the statistics.
    static_cast<void>(handle.release());
    return kCaptureDeviceError;
}

void processFrame(T_interface* device, const uint8_t* frame, uint32_t capturedLength, uint64_t seconds,
                  uint64_t microseconds) {
    sarnUdpStreams_processIpPacket(device->udpStreams, frame, capturedLength,
                                   arrivalMs(seconds, microseconds), arrivalTicks(seconds, microseconds),
                                   &device->streamsLock);
}

int pcapStartAnalyzing(T_interface* device) {
    pthread_create(&device->packetCaptureThreadId, nullptr, MyPacketCaptureThreadFunction, device);
    return 0;
}

void* MyPacketCaptureThreadFunction(void* argument) {
    const intptr_t result = captureFrames(static_cast<T_interface*>(argument));
    return std::bit_cast<void*>(result);
}

int LostPacketsInPcapCount(T_interface*) {
    if (!adhandle) {
        puts("adhandle == NULL");
        return -1;
    }
    pcap_stat statistics{};
    if (pcapGetStatistics(&statistics) < 0) {
        puts("pcap_stats error");
        return 0;
    }
    const auto dropped = static_cast<int>(statistics.ps_drop);
    const auto droppedByInterface = static_cast<int>(statistics.ps_ifdrop);
    if (dropped == 0 && droppedByInterface == 0) {
        return 0;
    }
    printf("INFO: lost %d packets in pcap and on intf %d\n", dropped, droppedByInterface);
    return dropped;
}

int pcapGetStatistics(pcap_stat* statistics) {
    pcap_t* handle = adhandle;
    return handle ? pcap_stats(handle, statistics) : -1;
}

int pcapGetSizeOfStats() {
    static_assert(sizeof(pcap_stat) == 12, "received, dropped, dropped by the interface");
    return sizeof(pcap_stat);
}

void showStatistic(T_interface* device) {
    const UdpStream* stream = sarnUdpStreams_getUdpStreamsList(device->udpStreams);
    while (stream) {
        TsMetrics* metrics = sarnDvbPsi_getTsMetricsInterval(stream->tsStream, 0);
        sarnDvbPsi_printTsMetricsCumulative(metrics);
        sarnDvbPsi_freeTsMetricsCumulative(metrics);
        stream = static_cast<const UdpStream*>(stream->hh.next);
    }
}
