// What snapshots say of channels and of the probe.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "alarms/alarmEngine.h"
#include "channelWatch.h"
#include "probe/pipeReader.h"
#include "probe/probeLink.h"
#include "probeWatch.h"
#include "recordParser.h"

namespace station {

// Takes snapshots in: makes samples of them, keeps the last one's records, and tells whether the probe began
// anew. One thread, no input or output but the log.
class SnapshotIntake {
  public:
    // All have to outlive it.
    SnapshotIntake(ChannelWatch& watch, AlarmEngine& engine, ProbeWatch& probe)
        : watch_(watch), engine_(engine), probe_(probe) {}

    // Another asker took the last one's place: whether the probe was restarted, a later snapshot tells.
    void askerReplaced(SteadyTime time) {
        replaced_ = time;
    }

    struct Result {
        bool restarted = false;            // it is the first of a probe that was started anew
        std::vector<AlarmChange> restart;  // what the engine makes of that, before all others
        std::vector<AlarmChange> changes;  // of channels
    };
    // Nothing for one that shows nothing because it comes from an asker that is told nothing.
    std::optional<Result> apply(RawSnapshot&& raw);

    // The last one's records; null before the first.
    const std::shared_ptr<const records::Snapshot>& records() const {
        return records_;
    }
    // The groups that it has records of.
    const Groups& shown() const {
        return shown_;
    }

    // Whether the probe's last snapshot showed a signal there; false when that is too old to tell.
    bool hasSignal(const Group& group, SteadyTime now) const;

  private:
    bool beganAnew(const records::Snapshot& snapshot, SteadyTime began);
    bool numbersBeganAnew(const records::Snapshot& snapshot) const;
    Groups observe(const std::shared_ptr<const records::Snapshot>& snapshot, const Now& now,
                   std::vector<AlarmChange>& changes);
    void observeChannel(WatchedChannel& channel, const Record& stream, std::span<const Record> pids,
                        const std::shared_ptr<const void>& snapshot, const Now& now,
                        std::vector<AlarmChange>& changes);
    void observeMissing(const Groups& shown, const Now& now, std::vector<AlarmChange>& changes);

    ChannelWatch& watch_;
    AlarmEngine& engine_;
    ProbeWatch& probe_;
    std::shared_ptr<const records::Snapshot> records_;
    Groups shown_;
    std::optional<SteadyTime> replaced_;  // when another asker took the last one's place, until it is judged
    std::optional<SteadyTime> recordsGone_;  // when a snapshot had nothing of what the one before it showed
};

}  // namespace station
