// What the station is told to watch.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace station {

// An IPv4 multicast group (224.0.0.0/4, RFC 5771): the key of a channel.
class Group {
  public:
    // Nothing unless the text is a dotted quad of four decimal numbers without leading zeros, in that range.
    static std::optional<Group> parse(std::string_view text);

    // Dotted quad, as the records have it.
    std::string text() const;
    uint32_t hostOrder() const {
        return address_;
    }
    // The check takes the 0 that the comparison's result is compared with for a pointer.
    auto operator<=>(const Group&) const = default;  // NOLINT(modernize-use-nullptr)

  private:
    explicit Group(uint32_t address) : address_(address) {}
    uint32_t address_;  // host byte order
};

enum class Origin : uint8_t { kRuntime, kConfig, kPlaylist };  // in order of precedence
std::string_view originName(Origin origin);                    // "runtime", "config", "playlist"

// Bounds on what a channel carries, wherever it comes from. Longer texts are cut (playlists) or refused
// (configuration, API).
inline constexpr std::size_t kNameLimit = 256;  // bytes of UTF-8, for names, label names and label values
inline constexpr std::size_t kLabelsLimit = 32;
inline constexpr std::size_t kChannelsLimit = 10'000;
inline constexpr std::string_view kDefaultProfile = "default";

using Labels = std::map<std::string, std::string>;

// Where something was read. It says nothing of what was read there, so any two places are equal, and things
// that carry one compare by the rest.
struct Place {
    std::string file;   // empty where it was no file
    uint32_t line = 0;  // from 1; 0 when the whole file is meant

    // "channels.m3u:12"
    std::string text() const;
    friend bool operator==(const Place& /*left*/, const Place& /*right*/) {
        return true;
    }
};

struct Channel {
    Group group;
    std::string name{};  // UTF-8 without control characters; the group's text when nothing gave a name
    Labels labels{};
    std::string profile{kDefaultProfile};
    Origin origin = Origin::kConfig;
    bool enabled = true;
    // What kestor-meter goes by beside the group; the probe does not.
    std::string source{};  // of SRC@G:P, else empty; see sourceAddress()
    uint16_t port = 0;     // 0 when none was named
    // What a playlist said: shown, not acted on.
    int number = 0;      // tvg-chno; 0 when there is none
    std::string logo{};  // tvg-logo
    Place place{};       // nothing for a channel that was added at run time

    bool operator==(const Channel&) const = default;
};

// The IPv4 address of a sender (host byte order) that a dotted quad names; nothing for other text and for
// addresses that nobody sends from (0.0.0.0/8, 224.0.0.0/3).
std::optional<uint32_t> sourceAddress(std::string_view text);

// All channels, each group once, in the order of groups.
using ChannelMap = std::map<Group, Channel>;

}  // namespace station
