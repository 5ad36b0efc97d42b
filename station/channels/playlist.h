// M3U playlists as they are in the field.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
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
    // In the file's order, with the lines that name them; a group named twice stands where it came first.
    std::vector<Channel> channels;
    std::vector<PlaylistNote> notes;  // the first kNotesLimit of what was skipped or changed
    // Lines that name something that is no multicast group, a group that stands there already, or one too
    // many.
    std::size_t skipped = 0;
    bool header = false;  // there is an #EXTM3U
    static constexpr std::size_t kNotesLimit = 100;
};

// Takes any bytes. group-title becomes the label "group", as does #EXTGRP for all entries up to the next that
// have no group-title; tvg-id becomes the label "tvg-id". Lines that are not UTF-8 are read as Latin-1.
Playlist parsePlaylist(std::string_view bytes);

// A file's playlist, with the file in the places of its channels. Nothing, and `problem` says why, when the
// file cannot be read, is too large or holds no channel (an #EXTM3U with nothing below it is an empty
// playlist): what was read before is to be kept then.
std::optional<Playlist> readPlaylist(const std::filesystem::path& file, std::string& problem);
// The same of the bytes that were read of a file.
std::optional<Playlist> playlistOf(std::string_view bytes, const std::filesystem::path& file,
                                   std::string& problem);

// A playlist that parsePlaylist reads back: #EXTM3U, then for each channel #EXTINF with its attributes and
// udp://@GROUP:PORT (port 5000 where none is known). Quotes and line ends in texts are replaced.
std::string writePlaylist(const ChannelMap& channels);
// What comes back of a channel that was written so: two that are equal then are the same to a playlist.
Channel asInPlaylist(const Channel& channel);

}  // namespace station
