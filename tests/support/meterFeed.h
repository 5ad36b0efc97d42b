// What kestor-meter is given in its tests: datagrams at their pace, and groups to watch.
#pragma once

#include <optional>
#include <vector>

#include "meter.pb.h"
#include "meter/datagram.h"
#include "support/meterStream.h"

namespace test {

inline constexpr int64_t kMs = 1'000'000;
inline constexpr int64_t kSecond = 1000 * kMs;
inline constexpr uint32_t kGroup = 0xEF010101;

// Seven packets a datagram at their pace.
struct Feed {
    std::vector<TsPacket> packets = MeterStream({.seconds = 3}).packets();
    std::size_t at = 0;
    int64_t arrival = 10 * kSecond;
    std::vector<uint8_t> bytes;

    std::optional<meter::Datagram> next(uint32_t group = kGroup) {
        if (at + 7 > packets.size()) {
            return std::nullopt;
        }
        bytes.clear();
        for (int i = 0; i < 7; ++i) {
            bytes.insert(bytes.end(), packets[at].begin(), packets[at].end());
            ++at;
        }
        meter::Datagram datagram;
        datagram.arrival = datagram.wall = arrival;
        arrival += static_cast<int64_t>(7 * MeterStream::kPacketMs * 1e6);
        datagram.source = 0x0A000001;
        datagram.sourcePort = 1000;
        datagram.destination = group;
        datagram.destinationPort = 5000;
        datagram.payload = bytes;
        return datagram;
    }
};

inline metering::Group groupMessage(uint32_t group) {
    metering::Group message;
    message.set_group(group);
    return message;
}

}  // namespace test
