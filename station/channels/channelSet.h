// The one set of channels, made of what was added at run time, of the configuration and of the playlists.
#pragma once

#include <filesystem>
#include <map>
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

// The run-time part, kept in `channels.json` of the state directory: written to a new file, synced, renamed.
class RuntimeChannelFile {
  public:
    explicit RuntimeChannelFile(const std::filesystem::path& stateDirectory);
    // What the file holds; nothing when there is none. Of a damaged file, which is put aside (".damaged") and
    // reported in `problem`, what could be read.
    RuntimeChannels load(std::string& problem) const;
    // Empty when all is on the disk, else what went wrong (the old file is whole then). Waits for the disk.
    std::string save(const RuntimeChannels& channels) const;

  private:
    std::filesystem::path file_;
};

}  // namespace station
