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
    std::vector<std::string>
        notes;  // "239.1.1.1 stands in station.toml and in channels.m3u:12; station.toml holds"
};

// Precedence: run time, configuration, playlists in their order. Beyond kChannelsLimit channels are left out,
// which is noted.
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
    explicit RuntimeChannelFile(std::filesystem::path stateDirectory);
    // What the file holds; a damaged file is put aside (".damaged") and reported in `problem`.
    RuntimeChannels load(std::string& problem) const;
    // Empty when all is on the disk, else what went wrong (the old file is whole then).
    std::string save(const RuntimeChannels& channels) const;

  private:
    std::filesystem::path file_;
};

}  // namespace station
