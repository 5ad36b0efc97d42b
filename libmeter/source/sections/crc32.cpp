#include "sections/crc32.h"

#include <array>
#include <cstddef>

namespace meter {
namespace {

constexpr uint32_t kPolynomial = 0x04C11DB7;
constexpr std::size_t kSlices = 8;

using Slice = std::array<uint32_t, 256>;

// slices[n][byte]: what a byte does to the register n bytes later.
constexpr std::array<Slice, kSlices> makeSlices() {
    std::array<Slice, kSlices> slices{};
    for (uint32_t byte = 0; byte < 256; ++byte) {
        uint32_t crc = byte << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc << 1) ^ ((crc >> 31) * kPolynomial);
        slices[0][byte] = crc;
    }
    for (std::size_t n = 1; n < kSlices; ++n)
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const uint32_t before = slices[n - 1][byte];
            slices[n][byte] = (before << 8) ^ slices[0][before >> 24];
        }
    return slices;
}

constexpr std::array<Slice, kSlices> kSlice = makeSlices();

uint32_t read32(const uint8_t* bytes) {
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

}  // namespace

uint32_t crc32(std::span<const uint8_t> bytes) {
    uint32_t crc = 0xFFFFFFFF;
    for (; bytes.size() >= kSlices; bytes = bytes.subspan(kSlices)) {
        const uint32_t high = crc ^ read32(bytes.data());
        const uint32_t low = read32(bytes.data() + 4);
        crc = kSlice[7][high >> 24] ^ kSlice[6][high >> 16 & 0xFF] ^ kSlice[5][high >> 8 & 0xFF] ^
              kSlice[4][high & 0xFF] ^ kSlice[3][low >> 24] ^ kSlice[2][low >> 16 & 0xFF] ^
              kSlice[1][low >> 8 & 0xFF] ^ kSlice[0][low & 0xFF];
    }
    for (const uint8_t byte : bytes)
        crc = (crc << 8) ^ kSlice[0][(crc >> 24) ^ byte];
    return crc;
}

}  // namespace meter
