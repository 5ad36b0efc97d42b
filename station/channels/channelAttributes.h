// What can be set of a channel beside its group: one description an attribute, which reading, checking,
// storing and telling of changes go by.
#pragma once

#include <climits>
#include <cstdint>
#include <string>
#include <string_view>
#include <tuple>

#include "channels/channel.h"

namespace station {

inline constexpr std::size_t kLogoLimit = 1024;  // bytes

template <typename Type>
struct ChannelAttribute {
    using Value = Type;

    const char* name;  // the member in requests and in channels.json; the key in the configuration, if any
    Type Channel::*member;
    bool ofPlaylist;        // an imported playlist says it, also by saying nothing; else it stays as it was
    std::string_view told;  // what a change of it is called; several may share a word
    std::string_view toldUnset{};    // booleans: when it became false
    std::size_t limit = kNameLimit;  // texts: bytes
    int64_t highest = 0;             // numbers, which are at least 0
    int64_t highestAsked = highest;  // what a request may set
};

// In the order in which requests are checked and changes told.
inline constexpr std::tuple kChannelAttributes{
    ChannelAttribute<std::string>{"name", &Channel::name, true, "name"},
    ChannelAttribute<Labels>{"labels", &Channel::labels, true, "labels"},
    ChannelAttribute<std::string>{"profile", &Channel::profile, false, "profile"},
    ChannelAttribute<bool>{"enabled", &Channel::enabled, false, "enabled", "disabled"},
    ChannelAttribute<std::string>{"source", &Channel::source, true, "details"},
    ChannelAttribute<uint16_t>{.name = "port",
                               .member = &Channel::port,
                               .ofPlaylist = true,
                               .told = "details",
                               .highest = UINT16_MAX},
    ChannelAttribute<int>{.name = "number",
                          .member = &Channel::number,
                          .ofPlaylist = true,
                          .told = "details",
                          .highest = INT_MAX,
                          .highestAsked = 999'999'999},
    ChannelAttribute<std::string>{
        .name = "logo", .member = &Channel::logo, .ofPlaylist = true, .told = "details", .limit = kLogoLimit},
};

// Calls `visit(attribute)` for each.
template <typename Visit>
void forEachChannelAttribute(Visit visit) {
    std::apply([&](const auto&... attributes) { (visit(attributes), ...); }, kChannelAttributes);
}

// Why a text cannot be a name, a label or the like ("is longer than 256 bytes"), or empty. REQUIRES: UTF-8.
std::string textProblem(const std::string& text, std::size_t limit);

// What differs, in words: "name, details". The origin counts as well.
std::string whatChanged(const Channel& before, const Channel& after);

}  // namespace station
