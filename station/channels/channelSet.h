// The one set of channels, made of what was added at run time, of the configuration and of the playlists.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "channels/channel.h"
#include "channels/configuration.h"
#include "channels/playlist.h"

namespace station {

// A change at run time: an addition or override of a channel, or its removal although a file names it.
struct RuntimeChannel {
    Channel channel;       // origin kRuntime
    bool removed = false;  // the group is not to be watched, whatever the files say
    bool operator==(const RuntimeChannel&) const = default;
};
using RuntimeChannels = std::map<Group, RuntimeChannel>;

struct MergedChannels {
    ChannelMap channels;
    // "239.1.1.1 stands in station.toml:3 and in channels.m3u:12; station.toml:3 holds". The first
    // kNotesLimit.
    std::vector<std::string> notes;
    static constexpr std::size_t kNotesLimit = 100;
};

// Precedence: run time, configuration, playlists in their order. Beyond kChannelsLimit channels are left out,
// and a channel whose profile is not defined gets the default one; both are noted. What the playlists
// themselves noted is not repeated.
MergedChannels mergeChannels(const RuntimeChannels& runtime, const Configuration& configuration,
                             const std::vector<std::pair<PlaylistSource, Playlist>>& playlists);

struct ChannelDifference {
    std::vector<Channel> added;
    std::vector<Channel> removed;
    std::vector<std::pair<Channel, Channel>> changed;  // before, after
};
ChannelDifference compareChannels(const ChannelMap& before, const ChannelMap& after);

// Bounds of the run-time part, for writing as for reading: additions and overrides, removals, bytes on the
// disk.
inline constexpr std::size_t kAdditionsLimit = kChannelsLimit;
inline constexpr std::size_t kRemovalsLimit = 10'000;
inline constexpr std::size_t kRuntimeFileLimit = std::size_t{64} << 20;

// Which of these bounds the channels pass, as a sentence for an operator; empty for none. What passes none
// can be written and read again.
std::string beyondRuntimeLimits(const RuntimeChannels& channels);

// What a start finds of the run-time part.
struct LoadedRuntime {
    // Nothing when it could not be taken up: what is on the disk must not be written over.
    std::optional<RuntimeChannels> channels;
    std::string problem;   // empty when all is well
    bool unsaved = false;  // the file no longer holds `channels`
};

// The run-time part, kept in `channels.json` of the state directory: written to a new file, synced, renamed.
class RuntimeChannelFile {
  public:
    static constexpr int kAside = 10;  // damaged files that are kept, none written over

    explicit RuntimeChannelFile(const std::filesystem::path& stateDirectory);
    // What the file holds; an empty set when there is none. Of a damaged file, which is put aside
    // (".damaged",
    // ".damaged.1" and so on), what could be read. Waits for the disk.
    LoadedRuntime load() const;
    // Empty when all is on the disk, else what went wrong (the old file is whole then). Waits for the disk.
    std::string save(const RuntimeChannels& channels) const;

  private:
    // Empty when the file was renamed to `aside`.
    std::string putAside(std::filesystem::path& aside) const;

    std::filesystem::path file_;
};

}  // namespace station
