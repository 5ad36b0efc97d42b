// The owner's end of the meter: what it is to measure, and who joins channels that name a source.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "alarms/alarmEngine.h"
#include "common/log.h"
#include "meter/meterBook.h"
#include "meter/meterPort.h"
#include "meter/sourceJoins.h"
#include "meterWatch.h"

namespace station {

// One thread, but for find(). Nothing here waits.
class MeterDesk {
  public:
    // The port listens from here on until stop(). `ready` is called on its thread when there is mail.
    void start(const Configuration& configuration, std::string_view version, std::function<void()> ready);
    void stop() {
        port_.reset();
    }

    // What the meter is to measure from here on, before joins() is asked of it. Nothing before start().
    void watch(const ChannelMap& channels, const Configuration& configuration, bool passive);
    // Says what has changed for channels that name a source. True when somebody else joins them now. About
    // once a second.
    bool judge(const ChannelMap& channels, bool passive, const Now& now);
    // What the engine makes of whether the meter is there and what it drops. About once a second.
    std::vector<AlarmChange> judgePresence(AlarmEngine& engine, const Now& now);
    // Says of what was just raised by the meter's figures on which PIDs it is, where reports tell.
    void explain(std::vector<AlarmChange>& changes) const;
    MeterMail::Batch drainMail() {
        return book_.mail().drain();
    }
    // A meter is to be there.
    void expect() {
        watch_.expect();
    }
    // One measured since the station's start.
    bool measured() const {
        return watch_.seen();
    }
    const Presence& presence() const {
        return watch_;
    }
    // Whether the meter joins the channel's group, for its source alone.
    bool joins(const Channel& channel) const {
        return sourceJoins_.byMeter() && joined_.contains(channel.group.hostOrder());
    }

    MeterState state(const ChannelMap& channels, bool passive, const Now& now) const;
    // The meter's packet sockets, by inode.
    std::set<uint64_t> sockets(const Now& now) const {
        return book_.state(now.steady).sockets;
    }
    // The newest report of a group. Any thread.
    std::optional<MeterReport> find(const Group& group) const {
        return book_.find(group);
    }
    MeterReports reports() const {  // likewise, of all groups
        return book_.all();
    }
    std::vector<MeterCue> cues(const Group& group) const {  // any thread
        return book_.cues(group);
    }
    MeterBriefs briefs(const Now& now) const {
        return book_.briefs(now.steady);
    }

  private:
    std::string sourcesNote(const ChannelMap& channels, bool passive) const;

    MeterBook book_;
    MeterWatch watch_;
    SourceJoins sourceJoins_;
    std::set<uint32_t> joined_;  // groups that the meter is told to join
    LogOnChange sourcesNoted_;
    std::unique_ptr<MeterPort> port_;
};

}  // namespace station
