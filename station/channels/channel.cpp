#include "channels/channel.h"

#include <array>

#include "basics/address.h"

namespace station {

std::optional<Group> Group::parse(std::string_view text) {
    const std::optional<uint32_t> address = basics::parseDotted(text);
    return address && basics::isMulticastAddress(*address) ? std::optional(Group(*address)) : std::nullopt;
}

std::string Group::text() const {
    return basics::dotted(address_);
}

std::string_view originName(Origin origin) {
    constexpr std::array<std::string_view, 3> kNames = {"runtime", "config", "playlist"};
    return kNames[static_cast<std::size_t>(origin)];
}

std::string Place::text() const {
    return line == 0 ? file : file + ":" + std::to_string(line);
}

std::optional<uint32_t> sourceAddress(std::string_view text) {
    constexpr uint32_t kFirst = 0x01000000;
    constexpr uint32_t kBeyond = 0xE0000000;
    const std::optional<uint32_t> address = basics::parseDotted(text);
    return address && *address >= kFirst && *address < kBeyond ? address : std::nullopt;
}

}  // namespace station
