#include "basics/address.h"

#include <arpa/inet.h>

#include <array>
#include <charconv>
#include <cstring>

namespace basics {

std::string dotted(uint32_t address) {
    std::array<char, 16> buffer{};
    char* next = buffer.data();
    for (int shift = 24; shift >= 0; shift -= 8) {
        next = std::to_chars(next, buffer.data() + buffer.size(), address >> shift & 0xFF).ptr;
        if (shift > 0) {
            *next++ = '.';
        }
    }
    return {buffer.data(), next};
}

std::optional<uint32_t> parseDotted(std::string_view text) {
    std::array<char, INET_ADDRSTRLEN> terminated{};
    if (text.size() >= terminated.size() || text.find('\0') != std::string_view::npos) {
        return std::nullopt;
    }
    std::memcpy(terminated.data(), text.data(), text.size());
    in_addr network{};
    return inet_pton(AF_INET, terminated.data(), &network) == 1 ? std::optional(ntohl(network.s_addr))
                                                                : std::nullopt;
}

std::string dottedRecordAddress(int64_t column) {
    const auto little = static_cast<uint32_t>(column);
    return dotted(little << 24 | (little & 0xFF00) << 8 | (little >> 8 & 0xFF00) | little >> 24);
}

}  // namespace basics
