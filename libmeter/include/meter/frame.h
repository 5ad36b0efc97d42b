// From a captured frame to the datagram in it.
#pragma once

#include <cstdint>
#include <span>

#include "meter/datagram.h"

namespace meter {

// What a frame begins with, as captures name it.
enum class LinkLayer : uint8_t {
    kEthernet,
    kCooked,         // Linux "any" captures, 16 bytes
    kCooked2,        // the same, version 2, 20 bytes
    kInternetAlone,  // IPv4 from the first byte on
};

enum class FrameContent : uint8_t {
    kOther,     // nothing for the meter: no IPv4, no UDP, no multicast destination, or too short to tell
    kDatagram,  // UDP to a multicast group
    kFragment,  // a part of such a datagram
};

// Reads Ethernet with up to kVlanTagsLimit tags (IEEE 802.1Q and 802.1ad), IPv4 with options, UDP. Sets
// everything of `datagram` but its times, unless the frame is other; `datagram.payload` points into `frame`,
// and is as long as UDP's and IPv4's lengths and the bytes captured allow.
FrameContent readFrame(LinkLayer link, std::span<const uint8_t> frame, Datagram& datagram);

}  // namespace meter
