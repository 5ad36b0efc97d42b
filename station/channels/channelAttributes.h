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
    bool ofPlaylist;          // an imported playlist says it, also by saying nothing; else it stays as it was
    std::string_view change;  // what a change of it is called; several may share a word
    std::string_view changeUnset{};  // booleans: when it became false
    std::size_t limit = kNameLimit;  // texts: bytes
    int64_t highest = 0;             // numbers, which are at least 0
    int64_t highestAsked = highest;  // what a request may set
    // As a key of the configuration: what is said of it there (empty: it is none), whether an empty text is a
    // mistake, and what holds without it where that is no value.
    std::string_view meaning{};
    bool filled = false;
    bool isAddress = false;  // a text has to be one
    std::string_view unset{};
    // Whether what is told of a channel has it under its name; null while it is not set.
    bool shown = false;
    // What the page calls it in its form; empty: it is not there. It may choose from a list of /api/v1/meta.
    std::string_view label{};
    std::string_view choices{};
};

// In the order in which requests are checked and changes told.
inline constexpr std::tuple kChannelAttributes{
    ChannelAttribute<std::string>{.name = "name",
                                  .member = &Channel::name,
                                  .ofPlaylist = true,
                                  .change = "name",
                                  .meaning = "Name to display",
                                  .unset = "the group",
                                  .label = "Name"},
    ChannelAttribute<Labels>{.name = "labels",
                             .member = &Channel::labels,
                             .ofPlaylist = true,
                             .change = "labels",
                             .meaning = "Labels of your own, for filters and notifications",
                             .label = "Labels"},
    ChannelAttribute<std::string>{.name = "profile",
                                  .member = &Channel::profile,
                                  .ofPlaylist = false,
                                  .change = "profile",
                                  .meaning = "Alarm profile",
                                  .filled = true,
                                  .label = "Profile",
                                  .choices = "profiles"},
    ChannelAttribute<std::string>{
        .name = "source",
        .member = &Channel::source,
        .ofPlaylist = true,
        .change = "details",
        .meaning = "Its sender's IPv4 address: kestor-meter joins the group for it alone",
        .isAddress = true,
        .unset = "any"},
    ChannelAttribute<bool>{.name = "enabled",
                           .member = &Channel::enabled,
                           .ofPlaylist = false,
                           .change = "enabled",
                           .changeUnset = "disabled",
                           .meaning = "Whether the channel is watched"},
    ChannelAttribute<uint16_t>{.name = "port",
                               .member = &Channel::port,
                               .ofPlaylist = true,
                               .change = "details",
                               .highest = UINT16_MAX},
    ChannelAttribute<int>{.name = "number",
                          .member = &Channel::number,
                          .ofPlaylist = true,
                          .change = "details",
                          .highest = INT_MAX,
                          .highestAsked = 999'999'999,
                          .shown = true,
                          .label = "Number"},
    ChannelAttribute<std::string>{.name = "logo",
                                  .member = &Channel::logo,
                                  .ofPlaylist = true,
                                  .change = "details",
                                  .limit = kLogoLimit,
                                  .shown = true},
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
