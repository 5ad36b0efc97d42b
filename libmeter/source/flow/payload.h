// What a datagram's payload is.
#pragma once

#include <algorithm>

#include "fields/packet.h"
#include "fields/rtp.h"

namespace meter {

enum class Encapsulation : uint8_t { kUnknown, kUdp, kRtp };

struct Payload {
    Encapsulation encapsulation = Encapsulation::kUnknown;  // kUnknown: neither
    bool malformed = false;
    Bytes packets;  // a multiple of kPacketSize
    RtpPacket rtp;
};

// Whether it is transport packets and nothing else: what most payloads are.
inline bool isPlain(Bytes bytes) {
    return !bytes.empty() && bytes[0] == kSyncByte && bytes.size() % kPacketSize == 0;
}

// `flow`: what the flow was found to be.
inline Payload classify(Bytes bytes, Encapsulation flow) {
    Payload payload;
    const std::size_t whole = bytes.size() / kPacketSize * kPacketSize;
    const bool exact = whole == bytes.size() && whole > 0;
    if (whole > 0 && bytes[0] == kSyncByte) {
        payload.encapsulation = Encapsulation::kUdp;
        payload.packets = bytes.first(whole);
        payload.malformed = !exact;
        return payload;
    }
    if (flow == Encapsulation::kUdp && exact) {
        for (std::size_t at = 0; at < whole; at += kPacketSize) {
            if (bytes[at] == kSyncByte) {
                payload.encapsulation = Encapsulation::kUdp;
                payload.packets = bytes;
                return payload;
            }
        }
    }
    if (const std::optional<RtpPacket> rtp = rtpPacketOf(bytes);
        rtp && rtp->payload.size() % kPacketSize == 0) {
        payload.encapsulation = Encapsulation::kRtp;
        payload.rtp = *rtp;
        payload.packets = rtp->payload;
        return payload;
    }
    payload.malformed = true;
    return payload;
}

}  // namespace meter
