// Control messages through parsing and dispatch, in monitor and scan mode, and the requests between them.
// Calls that would reach the network come here instead.
#include <pcap/pcap.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>

#include <memory>
#include <zmq.hpp>

#include "fuzz/fuzzing.h"
#include "kestor.h"
#include "liveData.h"
#include "streamjoiner.h"
#include "support/frameBuilder.h"
#include "support/harness.h"

namespace {

constexpr int kNoDescriptor = 1 << 20;
int networkCalls = 0;
volatile bool ended = false;  // what would have ended the probe: no good answer to a monitor does

std::string group(int number) {
    return "239.1.1." + std::to_string(number % 8);
}

// Every fourth call fails.
int networkResult() {
    return ++networkCalls % 4 == 0 ? -1 : 0;
}

}  // namespace

extern "C" {

int __wrap_socket(int, int, int) {
    return kNoDescriptor;
}
int __wrap_bind(int, const sockaddr*, socklen_t) {
    return 0;
}
int __wrap_setsockopt(int, int, int option, const void*, socklen_t) {
    return option == SO_REUSEADDR ? 0 : networkResult();
}
int __wrap_ioctl(int, unsigned long, ...) {
    return networkResult();
}
int __wrap_pcap_findalldevs(pcap_if_t** devices, char*) {
    static char name[] = "eth0";
    static pcap_if_t device{nullptr, name, nullptr, nullptr, 0};
    *devices = &device;
    return 0;
}
void __wrap_pcap_freealldevs(pcap_if_t*) {}

// A capture of one datagram to 239.1.1.1.
pcap_t* __wrap_pcap_open_live(const char*, int, int, int, char* error) {
    static const std::string path = "/proc/self/fd/" + std::to_string(memfd_create("capture", MFD_CLOEXEC));
    test::PcapWriter(path).write(0, test::UdpFlow{}.frame(test::Bytes(188, 0x47)));
    return pcap_open_offline(path.c_str(), error);
}

}  // extern "C"

// The input: one byte for the mode, then messages of a type, a length byte and so many bytes each. Type 0 is
// the message as it comes; others say in few bytes what a controller would.
int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    fuzzing::silenceOutput();
    signal(SIGTERM, [](int) { ended = true; });
    if (size == 0)
        return 0;
    T_interface device(data[0] % 2 == 0 ? MODE_MONITOR : MODE_CHANNEL_SCAN);
    device.streamJoiner = std::make_unique<StreamJoiner>();
    int sequenceNumber = 0;
    for (std::size_t at = 1; at + 2 <= size;) {
        const std::size_t length = std::min<std::size_t>(data[at + 1], size - at - 2);
        std::string bytes(reinterpret_cast<const char*>(data + at + 2), length);
        test::Envelope envelope;
        switch (data[at] % 4) {
            case 1:
                envelope = test::response({group(data[at] / 4), group(data[at + 1])}, {group(data[at] / 32)});
                break;
            case 2:
                envelope = test::clearAll(length % 2 == 0);
                break;
            case 3:
                envelope = test::response({group(data[at] / 4)});
                envelope.mutable_response()->set_passive_monitoring(length % 2 == 0);
                envelope.mutable_response()->set_igmp_latency(static_cast<int>(length) - 100);
                break;
        }
        if (data[at] % 4 != 0)
            bytes = envelope.SerializeAsString();
        zmq::message_t frame(bytes.data(), bytes.size());
        ended = false;
        analyzeMessage(&device, &frame);
        if (ended && data[at] % 4 != 0 && device.applicationType == MODE_MONITOR)
            __builtin_trap();
        test::Envelope request;
        create_message(&device, &request, ++sequenceNumber);
        if (!request.ParseFromString(request.SerializeAsString()))
            __builtin_trap();
        at += 2 + length;
    }
    device.packetCaptureThreadShouldStop = true;
    if (device.packetCaptureThreadId != 0 && device.applicationType == MODE_CHANNEL_SCAN)
        pthread_join(device.packetCaptureThreadId, nullptr);
    return 0;
}
