// The owner's channel set: what the files say and what was changed at run time.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "configuration/channelSet.h"
#include "state/commands.h"
#include "streamNameKeeper.h"

namespace station {

// One thread. Nothing here waits for a disk.
class ChannelBook {
  public:
    // Takes up what was changed at run time before. As long as that could not be read, every change is
    // refused: saving it would write over what is on the disk.
    void setRuntime(LoadedRuntime&& loaded);
    // What was wrong with it, or empty.
    const std::string& problem() const {
        return problem_;
    }
    // Whether it could be read, so that a channel that is not here is not watched.
    bool known() const {
        return known_;
    }

    void setFiles(const Configuration& configuration,
                  std::vector<std::pair<PlaylistSource, Playlist>> playlists);

    // Changes at run time; nothing is changed when they are refused. A channel that a file names and that the
    // change leaves as it is stays the file's, and one that was removed comes back as the file has it.
    std::optional<Refusal> put(const PutChannel& action, const Configuration& configuration);
    std::optional<Refusal> remove(Group group);  // by value: the caller's may be one of those that go
    // Adds what the playlist names, or overrides it; fills the counts and notes of `answer`.
    std::optional<Refusal> import(const std::string& text, Answer& answer);

    // What the streams call the services of channels, to which groups without a name go by. What is not in
    // `names` keeps the name that was told before. True when channels() is another one.
    bool takeStreamNames(StreamNames&& names);
    const StreamNames& streamNames() const {
        return streamNames_;
    }
    // Grows when they are others.
    uint64_t streamNamesVersion() const {
        return streamNamesVersion_;
    }
    // That channels are called otherwise in their streams: kNameNotes of them, and the number of the others.
    static constexpr std::size_t kNameNotes = 3;
    const std::vector<std::string>& nameNotes() const {
        return nameNotes_;
    }

    const ChannelMap& channels() const {
        return shown_;
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
    void show();
    void noteNames();
    const std::string* streamName(const Group& group) const;
    std::optional<Refusal> refuseUnknown() const;
    std::optional<Refusal> assignChannel(const PutChannel& action);
    // Takes these for the run-time part, unless they pass a bound.
    std::optional<Refusal> takeRuntime(RuntimeChannels&& channels, const char* field);

    Configuration configuration_;
    std::vector<std::pair<PlaylistSource, Playlist>> playlists_;
    std::string problem_;
    bool known_ = false;  // the run-time part was read
    RuntimeChannels runtime_;
    MergedChannels merged_;
    StreamNames streamNames_;  // of channels that there are
    uint64_t streamNamesVersion_ = 0;
    ChannelMap shown_;  // the merged ones, with the streams' names
    std::vector<std::string> nameNotes_;
    ChannelMap taken_;
};

}  // namespace station
