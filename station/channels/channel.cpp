#include "channels/channel.h"

#include <array>
#include <charconv>

namespace station {

namespace {

constexpr uint32_t kMulticastPrefix = 0xE;  // 224.0.0.0/4: the upper four bits

}  // namespace

std::optional<Group> Group::parse(std::string_view text) {
    uint32_t address = 0;
    const char* next = text.data();
    const char* const end = text.data() + text.size();
    for (int part = 0; part < 4; ++part) {
        if (part > 0) {
            if (next == end || *next != '.') {
                return std::nullopt;
            }
            ++next;
        }
        // Leading zeros mean octal numbers to some programs.
        if (end - next >= 2 && next[0] == '0' && next[1] >= '0' && next[1] <= '9') {
            return std::nullopt;
        }
        uint8_t byte = 0;
        const auto [stop, error] = std::from_chars(next, end, byte);
        if (error != std::errc{}) {
            return std::nullopt;
        }
        address = address << 8 | byte;
        next = stop;
    }
    if (next != end || address >> 28 != kMulticastPrefix) {
        return std::nullopt;
    }
    return Group(address);
}

std::string Group::text() const {
    std::array<char, 16> buffer{};
    char* next = buffer.data();
    for (int shift = 24; shift >= 0; shift -= 8) {
        next = std::to_chars(next, buffer.data() + buffer.size(), address_ >> shift & 0xFF).ptr;
        if (shift > 0) {
            *next++ = '.';
        }
    }
    return {buffer.data(), next};
}

std::string_view originName(Origin origin) {
    constexpr std::array<std::string_view, 3> kNames = {"runtime", "config", "playlist"};
    return kNames[static_cast<std::size_t>(origin)];
}

std::string Place::text() const {
    return line == 0 ? file : file + ":" + std::to_string(line);
}

}  // namespace station
