// CRC_32 of sections (ISO/IEC 13818-1 annex A): polynomial 0x04C11DB7, preset to ones, not reflected.
#pragma once

#include <cstdint>
#include <span>

namespace meter {

// Over a section with its CRC_32: 0 when it is right. Any thread.
uint32_t crc32(std::span<const uint8_t> bytes);

}  // namespace meter
