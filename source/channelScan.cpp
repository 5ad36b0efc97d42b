#include "channelScan.h"

#include <poll.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "captureFrame.h"
#include "configuration.h"
#include "kestor.h"

namespace {

constexpr std::size_t kDestinationOffset = 14 + 16;  // of the IPv4 address in an Ethernet frame

// A count of attempts; the product wraps.
int32_t attemptLimit(const T_interface& device) {
    return static_cast<int32_t>(static_cast<uint32_t>(device.igmpLatency.load()) *
                                static_cast<uint32_t>(device.igmpLatencyFactor.load()));
}

// The destination address, network byte order; 0 in a frame that is too short to have one.
uint32_t destinationAddress(const CapturedFrame& frame) {
    uint32_t address = 0;
    if (frame.length >= kDestinationOffset + sizeof address) {
        memcpy(&address, frame.data + kDestinationOffset, sizeof address);
    }
    return address;
}

// One attempt to read a frame, with pcap_next_ex's results; 0 once timeoutMs have passed without one.
// libpcap does not come back from a blocking read while nothing passes the filter, so the handle is
// non-blocking and the wait happens here. Frames that libpcap has ready are taken without a wait.
int readFrame(pcap_t* handle, int timeoutMs, CapturedFrame& frame) {
    const int result = readCapturedFrame(handle, frame);
    if (result != 0) {
        return result;
    }
    pollfd readable{pcap_get_selectable_fd(handle), POLLIN, 0};
    if (poll(&readable, 1, std::max(timeoutMs, 0)) <= 0) {
        return 0;
    }
    return readCapturedFrame(handle, frame);
}

struct ScanOutcome {
    std::optional<uint8_t> verdict;
    int lastRead;
};

// Reads until there is a verdict or the capture fails. A frame of another group counts twice, so that
// foreign traffic does not stretch the scan.
ScanOutcome awaitGroup(pcap_t* handle, uint32_t group, int32_t limit, int timeoutMs) {
    int64_t counter = 0;
    for (;;) {
        CapturedFrame frame;
        const int lastRead = readFrame(handle, timeoutMs, frame);
        if (lastRead < 0) {
            return {std::nullopt, lastRead};
        }
        ++counter;
        if (lastRead == 1) {
            const uint32_t destination = destinationAddress(frame);
            printf("Packet read without problem %s %d\n", dottedAddress(destination).c_str(), limit);
            if (destination == group) {
                return {1, lastRead};
            }
        } else {
            printf("Packet read problem %d %d\n", static_cast<int>(counter), limit);
        }
        if (limit < counter) {
            return {0, lastRead};
        }
        if (lastRead == 1) {
            ++counter;
        }
    }
}

}  // namespace

CaptureResult MyChannelScanThreadFunction(const ChannelScanArgument* argument) {
    T_interface* device = argument->device;
    const int timeoutMs = device->igmpLatency;
    CaptureResult result;
    CaptureHandle handle = openCapture(timeoutMs, result);
    if (!handle) {
        return result;
    }
    char error[PCAP_ERRBUF_SIZE];
    pcap_setnonblock(handle.get(), 1, error);

    const std::string group = dottedAddress(argument->group);
    printf("Zaczynam watek dla strumienia %s\n", group.c_str());
    const ScanOutcome outcome = awaitGroup(handle.get(), argument->group, attemptLimit(*device), timeoutMs);
    ChannelRecord* channel = findChannel(device, argument->group);
    if (outcome.verdict && channel) {
        channel->status = *outcome.verdict;
    }
    printf("Koncze watek dla strumienia %s\n", group.c_str());
    return endCapture(std::move(handle), outcome.lastRead);
}
