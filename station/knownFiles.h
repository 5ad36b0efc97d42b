// What is known of configuration and playlists.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/log.h"
#include "mailbox.h"

namespace station {

struct KnownPlaylist {
    std::optional<Playlist> good;  // as it was last read, or its copy
    std::string refusal;           // why it cannot be read; empty when it can
    bool tried = false;
    bool waits = false;  // it is being written
    LogOnChange trouble;
    LogOnChange copyTrouble;
    std::optional<std::string> toCopy;  // its bytes, until the copy holds them

    // "; its last good list of 3 channels stays in force"
    std::string whatStays() const;
};

// "playlist channels.m3u: read, 3 channels, 1 line skipped; line 7: ..."
std::string whatWasRead(const std::filesystem::path& file, const Playlist& playlist);

// The files as they were last read, and what there is to say of them. Does no input or output.
struct KnownFiles {
    static constexpr std::size_t kNotes =
        100;  // of all playlists; each one's count of skipped lines goes first

    std::filesystem::path configurationFile;
    std::shared_ptr<const Configuration> configuration;  // the last good one
    std::vector<std::string> mistakes;                   // of the file as it is
    std::optional<WallTime> copyOf;   // when the copy was written that holds in the place of the file
    bool configurationWaits = false;  // it is being written
    std::map<std::filesystem::path, KnownPlaylist> lists;

    // "; the last good configuration stays in force"
    std::string whatStays() const;
    // Each that the configuration names, once.
    std::vector<std::filesystem::path> playlistFiles() const;
    ReadResult result() const;
    LoadedFiles collect() const;
};

}  // namespace station
