// M3U playlists as they are in the field.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "channels/channel.h"

namespace station {

inline constexpr std::size_t kPlaylistLimit = std::size_t{16} << 20;  // bytes; longer files are refused

struct PlaylistNote {
    uint32_t line;     // from 1
    std::string text;  // `no multicast group in "http://..."; line skipped`
};

struct Playlist {
    std::vector<Channel> channels;    // in the file's order; a group named twice stands where it came first
    std::vector<PlaylistNote> notes;  // the first kNotesLimit of what was skipped or changed
    std::size_t skipped = 0;          // lines that name something that is no multicast group
    static constexpr std::size_t kNotesLimit = 100;
};

// Takes any bytes. group-title and #EXTGRP become the label "group", tvg-id the label "tvg-id".
Playlist parsePlaylist(std::string_view bytes);

// A playlist that parsePlaylist reads back: #EXTM3U, then for each channel #EXTINF with its attributes and
// udp://@GROUP:PORT (port 5000 where none is known). Quotes and line ends in texts are replaced.
std::string writePlaylist(const ChannelMap& channels);

}  // namespace station
