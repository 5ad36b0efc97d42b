// A transport packet's fields beyond its header (ISO/IEC 13818-1 2.4.3), over bounded views.
#pragma once

#include <optional>

#include "fields/bytes.h"
#include "fields/moment.h"
#include "sarn/packetBits.h"

namespace meter {

inline constexpr std::size_t kPacketSize = kTsPacketSize;
inline constexpr uint8_t kPcrFieldAt = 6;
inline constexpr uint8_t kAdaptationLengthWithPcr = 1 + kPcrFieldSize;

// What the analysis reads of an adaptation field; nothing of it where the field is missing, empty or leads
// out of the packet.
struct Adaptation {
    bool discontinuity = false;
    bool randomAccess = false;
    std::optional<Ticks> pcr;
};

// REQUIRES: the header's hasAdaptationField().
inline Adaptation adaptationOf(TsPacket packet) {
    constexpr uint8_t kLongest = kTsPacketSize - kTsHeaderSize - 1;
    Adaptation field;
    const uint8_t length = tsAdaptationFieldLength(packet);
    if (length == 0 || length > kLongest) {
        return field;
    }
    const AdaptationFlags flags = tsAdaptationFlags(packet);
    field.discontinuity = flags.discontinuity;
    field.randomAccess = flags.randomAccess;
    if (flags.pcr && length >= kAdaptationLengthWithPcr) {
        const Bytes bytes(packet);
        const Ticks base = static_cast<Ticks>(u32At(bytes, kPcrFieldAt)) << 1 | packet[kPcrFieldAt + 4] >> 7;
        const Ticks extension = u16At(bytes, kPcrFieldAt + 4) & 0x01FF;
        field.pcr = (base * kTicksPer90kHz + extension) % kPcrModulus;
    }
    return field;
}

// The bytes behind header and adaptation field; none where the field leads out of the packet.
// REQUIRES: the header's hasPayload().
inline Bytes payloadOf(TsPacket packet, TsHeader header) {
    const std::size_t offset =
        kTsHeaderSize + (header.hasAdaptationField() ? 1U + tsAdaptationFieldLength(packet) : 0U);
    return bytesAt(packet, offset);
}

inline constexpr uint64_t kTimeStampModulus = uint64_t{1} << 33;  // PTS and DTS, 90 kHz

// The beginning of a PES packet (2.4.3.6), in the payload of the packet that it starts in.
struct PesStart {
    std::optional<Ticks> pts;  // 90 kHz
    std::optional<Ticks> dts;
    Bytes payload;
};

// Nothing where no start code prefix stands in front.
inline std::optional<PesStart> pesStartOf(Bytes bytes) {
    constexpr std::size_t kFlagsAt = 7;
    constexpr std::size_t kHeaderLengthAt = 8;
    constexpr std::size_t kPtsAt = 9;
    constexpr std::size_t kTimeStampSize = 5;
    if (bytes.size() < kPtsAt || u24At(bytes, 0) != 1) {
        return std::nullopt;
    }
    PesStart start;
    if (!pesHasOptionalHeader(bytes[3])) {
        start.payload = bytesAt(bytes, 6);
        return start;
    }
    const auto timeStamp = [&](std::size_t at) {
        return static_cast<Ticks>(bytes[at] >> 1 & 0x07) << 30 |
               static_cast<Ticks>(u16At(bytes, at + 1) >> 1) << 15 | u16At(bytes, at + 3) >> 1;
    };
    const uint8_t length = bytes[kHeaderLengthAt];
    const uint8_t flags = bytes[kFlagsAt] >> 6;
    if (flags >= 2 && length >= kTimeStampSize && bytes.size() >= kPtsAt + kTimeStampSize) {
        start.pts = timeStamp(kPtsAt);
        if (flags == 3 && length >= 2 * kTimeStampSize && bytes.size() >= kPtsAt + 2 * kTimeStampSize) {
            start.dts = timeStamp(kPtsAt + kTimeStampSize);
        }
    }
    start.payload = bytesAt(bytes, kPtsAt + length);
    return start;
}

}  // namespace meter
