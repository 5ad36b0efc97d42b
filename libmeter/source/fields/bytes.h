// Bounded reading of big-endian bytes. What lies outside reads as 0; nothing ever reads beyond a view.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace meter {

using Bytes = std::span<const uint8_t>;

constexpr uint8_t u8At(Bytes bytes, std::size_t offset) {
    return offset < bytes.size() ? bytes[offset] : uint8_t{0};
}
constexpr uint16_t u16At(Bytes bytes, std::size_t offset) {
    return static_cast<uint16_t>(u8At(bytes, offset) << 8 | u8At(bytes, offset + 1));
}
constexpr uint32_t u24At(Bytes bytes, std::size_t offset) {
    return static_cast<uint32_t>(u16At(bytes, offset)) << 8 | u8At(bytes, offset + 2);
}
constexpr uint32_t u32At(Bytes bytes, std::size_t offset) {
    return static_cast<uint32_t>(u16At(bytes, offset)) << 16 | u16At(bytes, offset + 2);
}

// The bytes from `offset` on, at most `count`; less where the view ends before.
constexpr Bytes bytesAt(Bytes bytes, std::size_t offset, std::size_t count = std::dynamic_extent) {
    if (offset >= bytes.size()) {
        return {};
    }
    const Bytes rest = bytes.subspan(offset);
    return count < rest.size() ? rest.first(count) : rest;
}

}  // namespace meter
