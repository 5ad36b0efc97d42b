// The owner's end of kestor-picture: of which channels it takes pictures, and what these say.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "alarms/alarmEngine.h"
#include "channelWatch.h"
#include "measures/presence.h"
#include "pictures/pictureBook.h"
#include "pictures/picturePort.h"

namespace station {

// What a turn found, as a sample. What it could not see is not known.
ChannelSample sampleOf(const PictureFigures& figures);

// One thread, but for find() and look(). Nothing here waits.
class PictureDesk : public Presence {
  public:
    // One that is to be there, since its socket is named or its service enabled, is given so long to come
    // after the station's start.
    static constexpr std::chrono::seconds kFirst{20};
    // Alarms that were raised by pictures are given up after this time without any, or three rounds.
    static constexpr std::chrono::minutes kLastHope{10};
    // A picture is of now for three rounds, and for this time at least.
    static constexpr std::chrono::seconds kFresh{90};

    // The port listens from here on until stop(). `ready` is called on its thread when there is something for
    // apply().
    void start(const Configuration& configuration, std::string_view version, std::function<void()> ready);
    void stop() {
        port_.reset();
    }

    // What pictures are to be taken of from here on. Nothing before start(). About once a second.
    void tell(const ChannelMap& channels, const AlarmEngine& engine, double cores, const Now& now);
    // What turns found since the last call.
    std::vector<AlarmChange> apply(ChannelWatch& watch, AlarmEngine& engine, const Now& now);
    // What one of them found. Alarms of a channel of which no turn had a picture, or sound, for kLastHope are
    // given up.
    void take(const PictureFigures& figures, WatchedChannel& channel, ChannelWatch& watch,
              AlarmEngine& engine, const Now& now, std::vector<AlarmChange>& changes);
    // What the engine makes of whether pictures are taken. About once a second.
    std::vector<AlarmChange> judgePresence(AlarmEngine& engine, const Configuration::Pictures& settings,
                                           const Now& now);
    // As of the last judgePresence().
    bool fresh(SteadyTime sample, SteadyTime now) const override;

    PictureState state(const Now& now) const {
        return book_.state(now.steady);
    }
    PictureBriefs briefs() const {
        return book_.briefs();
    }
    PicturePointer find(const Group& group) const {  // any thread
        return book_.find(group);
    }
    void look(const Group& group) {  // any thread
        book_.look(group, std::chrono::steady_clock::now());
    }

  private:
    // When a turn of the channel had something last; at first, when its first turn ended.
    struct Had {
        SteadyTime picture;
        SteadyTime sound;
    };

    PictureBook book_;
    std::map<Group, Had> had_;  // of channels that are watched
    std::unique_ptr<PicturePort> port_;
    bool enabled_ = false;  // its service, on this machine
    bool there_ = false;    // and takes pictures
    bool seen_ = false;     // it connected since the station's start
    std::chrono::steady_clock::duration holds_ = kFresh;
    std::optional<SteadyTime> began_;  // the first look
    std::optional<SteadyTime> silentSince_;
};

}  // namespace station
