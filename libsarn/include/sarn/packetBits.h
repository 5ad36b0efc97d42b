// Every bit field of the transport packet header, the adaptation field (ISO/IEC 13818-1 2.4.3) and the PES
// header (2.4.3.6) that the analysis reads. Nobody else shifts and masks. Plain functions over bytes: any
// thread may call them, and nothing else of the library is needed for them.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <span>

inline constexpr int32_t kTsPacketSize = 188;
inline constexpr uint32_t kPidCount = 8192;
inline constexpr uint16_t kNullPid = 8191;

using TsPacket = std::span<const uint8_t, kTsPacketSize>;

inline constexpr uint8_t kSyncByte = 0x47;
inline constexpr uint32_t kTsHeaderSize = 4;
inline constexpr uint32_t kAdaptationFlags = 5;  // offset of the adaptation field's flags byte
inline constexpr uint32_t kPcrFieldSize = 6;     // bytes of a PCR or OPCR

// The packet's byte at `offset`; a field whose stated length leads out of the packet reads as 0 there.
inline uint8_t tsByteAt(TsPacket packet, uint32_t offset) {
    return offset < static_cast<uint32_t>(kTsPacketSize) ? packet[offset] : uint8_t{0};
}

// The four bytes of a packet's header as one number, read once. The bytes need not stay.
class TsHeader {
  public:
    // `packet`: 4 bytes or more.
    explicit TsHeader(const uint8_t* packet) {
        memcpy(&word_, packet, sizeof word_);
        if constexpr (std::endian::native == std::endian::little) {
            word_ = __builtin_bswap32(word_);
        }
    }
    bool transportErrorIndicator() const {
        return (word_ & 0x800000) != 0;
    }
    bool payloadUnitStart() const {
        return (word_ & 0x400000) != 0;
    }
    bool transportPriority() const {
        return (word_ & kTransportPriority) != 0;
    }
    uint16_t pid() const {
        return word_ >> 8 & 0x1FFF;
    }
    uint8_t scramblingControl() const {
        return word_ >> 6 & 0x03;
    }
    bool hasAdaptationField() const {
        return (word_ & 0x20) != 0;
    }
    bool hasPayload() const {
        return (word_ & 0x10) != 0;
    }
    uint8_t continuityCounter() const {
        return word_ & 0x0F;
    }
    // No error indicated, not scrambled, no adaptation field, but payload.
    bool isClearPayloadOnly() const {
        return (word_ & 0x8000F0) == 0x10;
    }
    // A null packet with its sync byte and no error indicated.
    bool isNull() const {
        return (word_ & 0xFF9FFF00) == 0x471FFF00;
    }
    // All four bytes, transport_priority as 0.
    uint32_t withoutPriority() const {
        return word_ & ~kTransportPriority;
    }
    // withoutPriority() of a packet with its sync byte that begins no unit of payload: no error indicated,
    // not scrambled, no adaptation field, but payload.
    static constexpr uint32_t clearContinuation(uint16_t pid, unsigned counter) {
        return 0x47000010U | uint32_t{pid} << 8 | (counter & 0x0FU);
    }
    static constexpr uint32_t kTransportPriority = 0x200000;

  private:
    uint32_t word_;
};

// REQUIRES: the header's hasAdaptationField().
inline uint8_t tsAdaptationFieldLength(TsPacket packet) {
    return packet[kTsHeaderSize];
}

// Bytes between header and payload, of a packet that starts with `header` and the byte `behind` it: those of
// the adaptation field where there is one in front of a payload, modulo 256, else 0.
inline uint8_t tsPayloadOffset(TsHeader header, uint8_t behind) {
    return static_cast<uint8_t>(header.hasAdaptationField() && header.hasPayload() ? behind + 1 : 0);
}

// The flags byte of a non-empty adaptation field.
struct AdaptationFlags {
    bool discontinuity;
    bool randomAccess;
    bool esPriority;
    bool pcr;
    bool opcr;
    bool splicingPoint;
    bool privateData;
    bool extension;
};
inline AdaptationFlags tsAdaptationFlags(TsPacket packet) {
    const uint8_t flags = packet[kAdaptationFlags];
    return {(flags & 0x80) != 0, (flags & 0x40) != 0, (flags & 0x20) != 0, (flags & 0x10) != 0,
            (flags & 0x08) != 0, (flags & 0x04) != 0, (flags & 0x02) != 0, (flags & 0x01) != 0};
}

// The PCR in nanoseconds (90 kHz base and 27 MHz extension, each truncated). REQUIRES: the PCR flag.
inline int64_t tsPcrNanoseconds(TsPacket packet) {
    const int64_t base = static_cast<int64_t>(packet[6]) << 25 | packet[7] << 17 | packet[8] << 9 |
                         packet[9] << 1 | packet[10] >> 7;
    const int64_t extension = (packet[10] & 0x01) << 8 | packet[11];
    return base * 100000 / 9 + extension * 1000 / 27;
}

// Flags of an adaptation field extension, from its byte.
inline bool afeLtw(uint8_t flags) {
    return (flags & 0x80) != 0;
}
inline bool afePiecewiseRate(uint8_t flags) {
    return (flags & 0x40) != 0;
}
inline bool afeSeamlessSplice(uint8_t flags) {
    return (flags & 0x20) != 0;
}

// Whether a PES packet start code prefix stands at `offset`, wholly inside the packet.
inline bool pesStartsAt(TsPacket packet, uint32_t offset) {
    return offset + 3 <= static_cast<uint32_t>(kTsPacketSize) && packet[offset] == 0 &&
           packet[offset + 1] == 0 && packet[offset + 2] == 1;
}

// Fields of the PES header that starts at `offset`; 0 where they lie outside the packet.
inline uint8_t pesStreamId(TsPacket packet, uint32_t offset) {
    return tsByteAt(packet, offset + 3);
}
inline bool pesHasPts(TsPacket packet, uint32_t offset) {
    return (tsByteAt(packet, offset + 7) & 0x80) != 0;
}
inline uint8_t pesHeaderDataLength(TsPacket packet, uint32_t offset) {
    return tsByteAt(packet, offset + 8);
}

// Whether PES packets with this stream_id have the optional header with flags (table 2-21).
constexpr bool pesHasOptionalHeader(uint8_t streamId) {
    constexpr uint8_t kProgramStreamMap = 0xBC;
    constexpr uint8_t kPaddingStream = 0xBE;
    constexpr uint8_t kPrivateStream2 = 0xBF;
    constexpr uint8_t kEcmStream = 0xF0;
    constexpr uint8_t kEmmStream = 0xF1;
    constexpr uint8_t kDsmccStream = 0xF2;
    constexpr uint8_t kH222TypeE = 0xF8;
    constexpr uint8_t kProgramStreamDirectory = 0xFF;
    switch (streamId) {
        case kProgramStreamMap:
        case kPaddingStream:
        case kPrivateStream2:
        case kEcmStream:
        case kEmmStream:
        case kDsmccStream:
        case kH222TypeE:
        case kProgramStreamDirectory:
            return false;
        default:
            return true;
    }
}

// stream_type values (table 2-34) whose PES packets are coded video frames.
constexpr bool isVideoStreamType(uint8_t streamType) {
    constexpr uint8_t kMpeg1Video = 0x01;
    constexpr uint8_t kMpeg2Video = 0x02;
    constexpr uint8_t kMpeg4Visual = 0x10;
    constexpr uint8_t kAvcVideo = 0x1B;
    return streamType == kMpeg1Video || streamType == kMpeg2Video || streamType == kMpeg4Visual ||
           streamType == kAvcVideo;
}
