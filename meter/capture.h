// Where datagrams come from: an interface, a capture file, a test.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "meter/frame.h"

namespace meterd {

// What was lost on this machine, since the capture was opened. Each only grows.
struct CaptureCounts {
    uint64_t frames = 0;
    uint64_t kernelDrops = 0;  // the ring had no place
    // By the card or its driver, of all traffic, also what nobody asked for; none: they do not tell.
    std::optional<uint64_t> cardDrops{};
    uint64_t cut = 0;  // frames that the kernel handed over in part: they are not measured
};

// Takes a frame's datagram or fragment; the payload lives for the call.
using DatagramSink = std::function<void(const meter::Datagram&)>;

// One thread uses it. A live one that failed stays so: another is made in its place.
class Capture {
  public:
    virtual ~Capture() = default;

    // To wait on by poll() until frames may be there, or -1: they are always there.
    virtual int descriptor() const = 0;
    // Hands over what is there, at most about `limit` frames, and returns how many frames it looked at: 0
    // when nothing is there. Throws std::runtime_error, with the reason for people, when the capture failed.
    virtual std::size_t read(std::size_t limit, const DatagramSink& sink) = 0;
    // No more will come: a file's end.
    virtual bool ended() const {
        return false;
    }
    virtual CaptureCounts counts() = 0;
    virtual std::string interface() const = 0;  // its name
    // Inode of the packet socket; 0: there is none.
    virtual uint64_t socket() const {
        return 0;
    }
    // What keeps frames from coming for the moment, for people; empty: nothing. Throws as read() does.
    virtual std::string trouble() {
        return "";
    }
};

// Which share of the groups a capture takes: by the last byte of the group.
struct Share {
    unsigned index = 0;
    unsigned of = 1;

    bool takes(uint32_t group) const {
        return group % 256 % of == index;
    }
};

struct LiveOptions {
    std::string interface;
    std::size_t ringMib = 64;
    Share share;
};

// Multicast UDP over IPv4 that arrives on the interface, also in VLANs, by libpcap: a ring of its own in the
// kernel, time stamps in ns by the kernel. Frames that this machine sends are left out. Needs CAP_NET_RAW
// while it is made. Throws std::runtime_error with what is wrong and what to do.
std::unique_ptr<Capture> openLive(const LiveOptions& options);

// A recording (pcap, pcapng), at the pace at which it was recorded: its first frame comes at once, and each
// arrival is as far from the first one as in the recording, unless its times leap by an hour. Throws
// std::runtime_error with path and reason.
std::unique_ptr<Capture> openFile(const std::string& path, Share share);

// The interface that the probe captures on: the first of libpcap's whose name contains "eth0"; empty: none.
std::string defaultInterface();

}  // namespace meterd
