// What a capture hands to the meter: a UDP datagram to the channel's group, with what its headers said.
#pragma once

#include <array>
#include <cstdint>
#include <span>

namespace meter {

inline constexpr std::size_t kVlanTagsLimit = 2;

// Addresses and ports are in host byte order. The bytes need to live for the call alone that takes them.
struct Datagram {
    int64_t arrival = 0;  // ns, by a clock that is never set; a value before the last one counts as the last
    int64_t wall = 0;     // the same moment, ns since 1970; not known: 0 and below, and after 2116
    uint32_t source = 0;
    uint32_t destination = 0;
    uint16_t sourcePort = 0;
    uint16_t destinationPort = 0;
    uint8_t ttl = 0;
    uint8_t dscp = 0;
    uint8_t vlanCount = 0;                        // at most kVlanTagsLimit
    std::array<uint16_t, kVlanTagsLimit> vlan{};  // identifiers, outer first
    bool fragment = false;                        // a part of an IP datagram: ports and payload mean nothing
    std::span<const uint8_t> payload;
};

}  // namespace meter
