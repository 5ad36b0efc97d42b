// What everybody else sees of the owner: a state after each change.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "alarms/alarmEngine.h"
#include "channelWatch.h"
#include "eventDesk.h"
#include "machineWatch.h"
#include "measures/presence.h"
#include "snapshotIntake.h"
#include "state/state.h"

namespace station {

// Composes states, numbers them and shows the newest.
class StatePublisher {
  public:
    // What a state is composed of; all of it is the owner's.
    struct Sources {
        ChannelWatch& watch;
        const SnapshotIntake& intake;
        const AlarmEngine& engine;
        const EventDesk& desk;
        BySource<const Presence*> presence;
        const MachineWatch& machine;
    };
    // What others say of themselves at that time.
    struct Surroundings {
        ProbeState probe;
        MeterState meter;
        MeterBriefs briefs;
        PictureState pictures;
        PictureBriefs pictureBriefs;
        std::shared_ptr<const Configuration> configuration;
        std::vector<std::string> notes;
        bool passive = false;
        StationUse use;
    };

    explicit StatePublisher(const Sources& sources, WallTime started)
        : sources_(sources), started_(started) {}

    // The newest; never null. Any thread.
    StatePointer latest() const;

    // The rest: the owner's thread alone.
    void channelsChanged() {
        ++channelsVersion_;
    }
    void alarmsChanged() {
        ++alarmsVersion_;
    }
    StatePointer publish(Surroundings&& surroundings, const Now& now);

  private:
    std::shared_ptr<const ChannelState> channelState(WatchedChannel& channel, MeterBrief&& brief,
                                                     PictureBrief&& picture, const Now& now) const;

    const Sources sources_;
    const WallTime started_;
    uint64_t number_ = 0;
    uint64_t channelsVersion_ = 1;
    uint64_t alarmsVersion_ = 1;
    mutable std::mutex publishedMutex_;  // guards `published_`; held for a copy of the pointer
    StatePointer published_ = std::make_shared<const StationState>();
};

}  // namespace station
