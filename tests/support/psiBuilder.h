// Builds PSI/SI sections and the transport packets that carry them (ISO/IEC 13818-1 2.4.4, ETSI EN 300 468).
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <utility>
#include <vector>

namespace psi {

using Bytes = std::vector<uint8_t>;
using TsPacket = std::array<uint8_t, 188>;

inline uint8_t low8(std::size_t value) {
    return static_cast<uint8_t>(value & 0xFF);
}

inline Bytes u16(std::size_t value) {
    return {low8(value >> 8), low8(value)};
}

inline Bytes u32(std::size_t value) {
    return {low8(value >> 24), low8(value >> 16), low8(value >> 8), low8(value)};
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

// CRC-32/MPEG-2: polynomial 0x04C11DB7, preset to ones, not reflected; 0 over a section with its CRC_32.
inline uint32_t crc32Mpeg(std::span<const uint8_t> bytes) {
    uint32_t crc = 0xFFFFFFFF;
    for (uint8_t byte : bytes) {
        crc ^= static_cast<uint32_t>(byte) << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc << 1) ^ ((crc & 0x80000000) != 0 ? 0x04C11DB7 : 0);
    }
    return crc;
}

inline Bytes withCrc(const Bytes& bytes) {
    return concat({bytes, u32(crc32Mpeg(bytes))});
}

inline Bytes descriptor(uint8_t tag, const Bytes& content) {
    return concat({{tag, low8(content.size())}, content});
}

// Bytes behind their 12-bit length; `flags` are the four bits in front of the length.
inline Bytes loop12(const Bytes& content, uint8_t flags = 0xF) {
    return concat({u16(static_cast<std::size_t>(flags) << 12 | content.size()), content});
}

// A section in long form (section_syntax_indicator 1) with its CRC_32.
inline Bytes section(uint8_t tableId, uint16_t extension, uint8_t version, const Bytes& payload,
                     uint8_t number = 0, uint8_t lastNumber = 0) {
    return withCrc(concat({{tableId},
                           u16(0xB000 | (payload.size() + 9)),
                           u16(extension),
                           {low8(0xC1U | version << 1), number, lastNumber},
                           payload}));
}

// A section in short form (section_syntax_indicator 0): TDT without, TOT and splice_info_section with CRC_32.
inline Bytes shortSection(uint8_t tableId, const Bytes& payload, bool crc) {
    const Bytes bytes = concat({{tableId}, u16(0x7000 | (payload.size() + (crc ? 4 : 0))), payload});
    return crc ? withCrc(bytes) : bytes;
}

struct ElementaryStream {
    uint8_t type;
    uint16_t pid;
    Bytes descriptors = {};
};

// ISO/IEC 13818-1 table 2-33.
inline Bytes pmtSection(uint16_t program, uint8_t version, uint16_t pcrPid,
                        const std::vector<ElementaryStream>& streams) {
    Bytes payload = concat({u16(0xE000U | pcrPid), loop12({})});
    for (const ElementaryStream& stream : streams)
        payload = concat({payload, {stream.type}, u16(0xE000U | stream.pid), loop12(stream.descriptors)});
    return section(0x02, program, version, payload);
}

}  // namespace psi
