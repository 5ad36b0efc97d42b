#include "meter/frame.h"

#include <algorithm>

namespace meter {

namespace {

constexpr uint16_t kEtherTypeIpv4 = 0x0800;
constexpr uint16_t kEtherTypeVlan = 0x8100;         // IEEE 802.1Q
constexpr uint16_t kEtherTypeServiceVlan = 0x88A8;  // IEEE 802.1ad
constexpr uint16_t kEtherTypeOldQinQ = 0x9100;
constexpr uint8_t kProtocolUdp = 17;
constexpr size_t kMacAddresses = 12;
constexpr size_t kIpv4Header = 20;  // without options
constexpr size_t kUdpHeader = 8;
constexpr uint16_t kMoreFragments = 0x2000;
constexpr uint16_t kFragmentOffset = 0x1FFF;

// REQUIRES: two (four) bytes at `at`. Network byte order.
uint16_t read16(std::span<const uint8_t> bytes, size_t at) {
    return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

uint32_t read32(std::span<const uint8_t> bytes, size_t at) {
    return uint32_t{read16(bytes, at)} << 16 | read16(bytes, at + 2);
}

bool isVlan(uint16_t etherType) {
    return etherType == kEtherTypeVlan || etherType == kEtherTypeServiceVlan ||
           etherType == kEtherTypeOldQinQ;
}

// What is behind the link layer's header, when that is IPv4; else empty.
std::span<const uint8_t> internetPart(LinkLayer link, std::span<const uint8_t> frame, Datagram& datagram) {
    // Where the header has its protocol, and where it ends.
    size_t protocolAt = 0;
    size_t end = 0;
    switch (link) {
        case LinkLayer::kEthernet:
            protocolAt = kMacAddresses;
            end = kMacAddresses + 2;
            break;
        case LinkLayer::kCooked:
            protocolAt = 14;
            end = 16;
            break;
        case LinkLayer::kCooked2:
            protocolAt = 0;
            end = 20;
            break;
        case LinkLayer::kInternetAlone:
            return frame;
    }
    if (frame.size() < end) {
        return {};
    }
    uint16_t protocol = read16(frame, protocolAt);
    while (isVlan(protocol)) {
        if (datagram.vlanCount == kVlanTagsLimit || frame.size() < end + 4) {
            return {};
        }
        datagram.vlan[datagram.vlanCount++] = read16(frame, end) & 0x0FFF;
        protocol = read16(frame, end + 2);
        end += 4;
    }
    return protocol == kEtherTypeIpv4 ? frame.subspan(end) : std::span<const uint8_t>{};
}

}  // namespace

FrameContent readFrame(LinkLayer link, std::span<const uint8_t> frame, Datagram& datagram) {
    datagram.vlanCount = 0;
    const std::span<const uint8_t> packet = internetPart(link, frame, datagram);
    if (packet.size() < kIpv4Header || packet[0] >> 4 != 4) {
        return FrameContent::kOther;
    }
    const size_t header = size_t{packet[0] & 0x0FU} * 4;
    datagram.destination = read32(packet, 16);
    const bool multicast = datagram.destination >> 28 == 0xE;
    if (header < kIpv4Header || header > packet.size() || packet[9] != kProtocolUdp || !multicast) {
        return FrameContent::kOther;
    }
    datagram.source = read32(packet, 12);
    datagram.ttl = packet[8];
    datagram.dscp = packet[1] >> 2;
    const uint16_t fragment = read16(packet, 6);
    datagram.fragment = (fragment & (kMoreFragments | kFragmentOffset)) != 0;
    if (datagram.fragment) {
        datagram.sourcePort = datagram.destinationPort = 0;
        datagram.payload = {};
        return FrameContent::kFragment;
    }
    // A length of 0 is that of a packet which the sending card was to cut; what was captured holds then.
    const size_t total =
        read16(packet, 2) == 0 ? packet.size() : std::min<size_t>(read16(packet, 2), packet.size());
    if (total < header + kUdpHeader) {
        return FrameContent::kOther;
    }
    const std::span<const uint8_t> udp = packet.subspan(header, total - header);
    datagram.sourcePort = read16(udp, 0);
    datagram.destinationPort = read16(udp, 2);
    const size_t length = read16(udp, 4);
    datagram.payload = udp.subspan(kUdpHeader);
    if (length >= kUdpHeader) {
        datagram.payload = datagram.payload.first(std::min(length - kUdpHeader, datagram.payload.size()));
    }
    return FrameContent::kDatagram;
}

}  // namespace meter
