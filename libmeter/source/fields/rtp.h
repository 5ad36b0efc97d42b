// The RTP header (RFC 3550, 5.1) over a bounded view.
#pragma once

#include <optional>

#include "fields/bytes.h"

namespace meter {

inline constexpr uint32_t kRtpClock = 90'000;  // of MPEG-2 transport streams (RFC 2250, 2)

struct RtpPacket {
    uint8_t payloadType = 0;
    uint16_t sequence = 0;
    uint32_t timestamp = 0;
    uint32_t ssrc = 0;
    Bytes payload;  // without padding
};

constexpr bool isRtpVersion(Bytes bytes) {
    return u8At(bytes, 0) >> 6 == 2;
}

// Nothing where the version is another one or header, extension or padding lead out of the bytes.
inline std::optional<RtpPacket> rtpPacketOf(Bytes bytes) {
    constexpr std::size_t kFixedSize = 12;
    constexpr std::size_t kWord = 4;
    if (bytes.size() < kFixedSize || !isRtpVersion(bytes)) {
        return std::nullopt;
    }
    const bool padding = (bytes[0] & 0x20) != 0;
    const bool extension = (bytes[0] & 0x10) != 0;
    std::size_t header = kFixedSize + kWord * (bytes[0] & 0x0F);
    if (extension) {
        header += kWord + kWord * u16At(bytes, header + 2);
    }
    const std::size_t padded = padding ? bytes.back() : 0;
    if (header + padded > bytes.size() || (padding && padded == 0)) {
        return std::nullopt;
    }
    return RtpPacket{static_cast<uint8_t>(bytes[1] & 0x7F), u16At(bytes, 2), u32At(bytes, 4), u32At(bytes, 8),
                     bytes.subspan(header, bytes.size() - header - padded)};
}

}  // namespace meter
