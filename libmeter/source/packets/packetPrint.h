// What is kept of a packet to know it again.
#pragma once

#include <cstring>

#include "fields/packet.h"

namespace meter {

inline bool hasPcr(const uint8_t* packet) {
    return TsHeader(packet).hasAdaptationField() && adaptationOf(TsPacket(packet, kPacketSize)).pcr;
}

// Whether both are one packet sent twice, which may differ in its PCR alone.
inline bool isRepetition(const uint8_t* packet, const uint8_t* before) {
    constexpr std::size_t kBehindPcr = kPcrFieldAt + kPcrFieldSize;
    if (!hasPcr(packet)) {
        return memcmp(packet, before, kPacketSize) == 0;
    }
    return memcmp(packet, before, kPcrFieldAt) == 0 &&
           memcmp(packet + kBehindPcr, before + kBehindPcr, kPacketSize - kBehindPcr) == 0;
}

// Sums over all of a packet but its PCR, which weigh each place differently: of two packets that are not
// equal they do not agree by chance. With a thousand channels, keeping the packets themselves would cost
// three lines of the cache more for each packet kept.
struct PacketPrint {
    uint64_t sum = 0;
    uint64_t weighed = 0;

    bool operator==(const PacketPrint&) const = default;
};

inline PacketPrint printOf(const uint8_t* packet) {
    using Lanes = uint64_t __attribute__((vector_size(16)));
    constexpr std::size_t kLastAt = kPacketSize - sizeof(Lanes);  // over the end of those before
    constexpr uint64_t kFactor = 0x9E3779B97F4A7C15;              // odd: loses nothing
    uint8_t clean[kPacketSize];
    if (hasPcr(packet)) {
        memcpy(clean, packet, kPacketSize);
        memset(clean + kPcrFieldAt, 0, kPcrFieldSize);
        packet = clean;
    }
    Lanes sum{};
    Lanes weighed{};
    Lanes lanes;
#pragma GCC unroll 16
    for (std::size_t at = 0; at < kLastAt; at += sizeof(Lanes)) {
        memcpy(&lanes, packet + at, sizeof lanes);
        sum += lanes;
        weighed += sum;
    }
    memcpy(&lanes, packet + kLastAt, sizeof lanes);
    sum += lanes;
    weighed += sum;
    return {sum[0] * kFactor + sum[1], weighed[0] * kFactor + weighed[1]};
}

}  // namespace meter
