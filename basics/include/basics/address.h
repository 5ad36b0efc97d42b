// IPv4 addresses as people write them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace basics {

// A dotted quad. `address` in host byte order.
std::string dotted(uint32_t address);
// In host byte order; nothing unless the text is four decimal numbers without leading zeros.
std::optional<uint32_t> parseDotted(std::string_view text);
// An address as the probe's records have it: network order, read as a little-endian number.
std::string dottedRecordAddress(int64_t column);

// Of 224.0.0.0/4 (RFC 5771).
constexpr bool isMulticastAddress(uint32_t address) {
    return address >> 28 == 0xE;
}

}  // namespace basics
