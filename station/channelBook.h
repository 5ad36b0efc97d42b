// The owner's channel set: what the files say and what was changed at run time.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "channels/channelSet.h"
#include "commands.h"

namespace station {

// One thread. Nothing here waits for a disk but the constructor.
class ChannelBook {
  public:
    // Reads what was added at run time before.
    explicit ChannelBook(const std::filesystem::path& stateDirectory);
    // What was wrong with that, or empty.
    const std::string& problem() const {
        return problem_;
    }

    void setFiles(const Configuration& configuration,
                  std::vector<std::pair<PlaylistSource, Playlist>> playlists);

    // Changes at run time; nothing is changed when they are refused. A channel that a file names and that the
    // change leaves as it is stays the file's, and one that was removed comes back as the file has it.
    std::optional<Refusal> put(const PutChannel& action, const Configuration& configuration);
    bool remove(const Group& group);  // false: no such channel
    // Adds what the playlist names, or overrides it; fills the counts and notes of `answer`.
    std::optional<Refusal> import(const std::string& text, Answer& answer);

    const ChannelMap& channels() const {
        return merged_.channels;
    }
    const std::vector<std::string>& notes() const {
        return merged_.notes;
    }
    const RuntimeChannels& runtime() const {
        return runtime_;
    }
    // What has changed since the last call.
    ChannelDifference takeDifference();

  private:
    void merge();

    Configuration configuration_;
    std::vector<std::pair<PlaylistSource, Playlist>> playlists_;
    std::string problem_;  // in front of what is loaded with it
    RuntimeChannels runtime_;
    MergedChannels merged_;
    ChannelMap taken_;
};

}  // namespace station
