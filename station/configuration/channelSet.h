// The one set of channels, made of what was added at run time, of the configuration and of the playlists.
#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "channels/channel.h"
#include "channels/playlist.h"
#include "configuration/configuration.h"

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
// One thread.
class RuntimeChannelFile {
  public:
    static constexpr int kAside = 10;  // files put aside for one reason that are kept, none written over

    explicit RuntimeChannelFile(const std::filesystem::path& stateDirectory);
    // What the file holds; an empty set when there is none. Of a damaged file, which is put aside
    // (".damaged",
    // ".damaged.1" and so on), what could be read. Waits for the disk.
    LoadedRuntime load();
    // Empty when all is on the disk, else what went wrong (the old file is whole then). A file that somebody
    // else put there, or changed, since it was read or written last is put aside first (".replaced",
    // ".replaced.1" and so on). Waits for the disk.
    std::string save(const RuntimeChannels& channels);

  private:
    // What tells one state of the file from another; all zero without one.
    struct Identity {
        uint64_t device = 0, inode = 0;
        int64_t size = 0, seconds = 0, nanoseconds = 0;
        bool operator==(const Identity&) const = default;
    };
    Identity identity() const;
    // Empty when the file was renamed to `aside`.
    std::string putAside(const std::string& why, std::filesystem::path& aside) const;

    const std::filesystem::path file_;
    Identity known_;  // as it was read or written last
};

}  // namespace station
