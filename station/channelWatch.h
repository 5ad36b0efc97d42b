// What is kept of channels, whoever measures them.
#pragma once

#include <map>
#include <vector>

#include "alarms/alarmEngine.h"
#include "configuration/channelSet.h"
#include "store/minuteStore.h"
#include "watchedChannel.h"

namespace station {

using WatchedChannels = std::map<Group, WatchedChannel>;

// Where samples of all sources go: keeps them with their channel, has them judged, and writes the history.
// One thread, no input or output.
class ChannelWatch {
  public:
    // Has to outlive it.
    explicit ChannelWatch(AlarmEngine& engine) : engine_(engine) {}

    // What is watched from here on.
    void setChannels(const ChannelDifference& difference);

    // What a source says of one of channels() now. `changes` gets what the engine makes of it.
    void observe(WatchedChannel& channel, const ChannelSample& sample, const Now& now,
                 std::vector<AlarmChange>& changes);

    // What is over of the channels' histories and was not taken before, for the disk.
    std::vector<ChannelMinutes> takeMinutes(const Now& now);
    // What the disk had, oldest first.
    void restore(const std::vector<ChannelMinutes>& minutes, const Now& now);

    WatchedChannels& channels() {
        return watched_;
    }
    const WatchedChannels& channels() const {
        return watched_;
    }

  private:
    AlarmEngine& engine_;
    WatchedChannels watched_;
    std::size_t historyMinutes_ = kMinutesKept;
};

}  // namespace station
