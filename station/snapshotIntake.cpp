#include "snapshotIntake.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "common/log.h"

namespace station {

namespace {

using namespace std::chrono_literals;

// From the last records of one probe to the first ones of the next that is told what to watch.
constexpr auto kRestartTakes = 10s;

// A channel that nothing is known of is not without signal: only an alarm says so.
StripCell stripCell(const ChannelSample& sample, ChannelStatus status) {
    switch (status) {
        case ChannelStatus::kOk:
            return StripCell::kOk;
        case ChannelStatus::kAlarm:
            return sample.signal ? StripCell::kAlarm : StripCell::kNoSignal;
        case ChannelStatus::kWaiting:
        case ChannelStatus::kDisabled:
            break;
    }
    return StripCell::kNoData;
}

}  // namespace

void SnapshotIntake::setChannels(const ChannelDifference& difference) {
    for (const Channel& channel : difference.removed) {
        watched_.erase(channel.group);
    }
    for (const Channel& channel : difference.added) {
        watched_.try_emplace(channel.group, channel);
    }
    for (const auto& [before, after] : difference.changed) {
        watched_.at(after.group).channel = after;
    }
    const std::size_t minutes = minutesKept(watched_.size());
    if (std::exchange(historyMinutes_, minutes) != minutes || !difference.added.empty()) {
        for (auto& [group, channel] : watched_) {
            channel.history.keepMinutes(minutes);
        }
    }
}

std::optional<SnapshotIntake::Taken> SnapshotIntake::take(RawSnapshot&& raw) {
    if (raw.text.empty() && probe_.secondAsker() && records_ && !records_->empty()) {
        return std::nullopt;
    }
    probe_.snapshot(raw);
    const Now now = raw.ended;
    const auto snapshot = std::make_shared<const records::Snapshot>(
        records::parseSnapshot(std::move(raw.text), [&](std::size_t line, const std::string& problem) {
            probe_.droppedLine();
            if (probe_.state().droppedLines == 1) {
                log(LogLevel::kWarning,
                    "a line of the snapshot is no record and dropped, as all like it will be: line " +
                        std::to_string(line) + ": " + problem);
            }
        }));
    Taken taken;
    if (beganAnew(*snapshot, raw.began.steady)) {
        probe_.restarted();
        log(LogLevel::kWarning, "the probe was restarted");
        engine_.probeRestarted(now, taken.restart);
        taken.restarted = true;
    }
    Groups shown = observe(snapshot, now, taken.changes);
    observeMissing(shown, now, taken.changes);
    if (!shown_.empty() &&
        std::ranges::none_of(shown_, [&](const Group& group) { return shown.contains(group); })) {
        recordsGone_ = now.steady;
    }
    shown_ = std::move(shown);
    records_ = snapshot;
    return taken;
}

// After another asker took the place of the last one: a restart is one if the numbers began anew. Requests
// alone say nothing, since anybody on this machine can make some.
bool SnapshotIntake::beganAnew(const records::Snapshot& snapshot, SteadyTime began) {
    if (!replaced_ || began < *replaced_) {
        return false;
    }
    replaced_.reset();
    const bool listLost = recordsGone_ && began - *recordsGone_ < kRestartTakes;
    return listLost || numbersBeganAnew(snapshot);
}

// Whether more channels lost their packets than kept them; true when there is nothing to compare.
bool SnapshotIntake::numbersBeganAnew(const records::Snapshot& snapshot) const {
    std::map<Group, uint64_t> received;
    for (const Record& record : snapshot) {
        if (record.kind() == records::Kind::kStream) {
            if (const auto group = Group::parse(record.text("group"))) {
                received[*group] = static_cast<uint64_t>(record.integer("packetsReceived"));
            }
        }
    }
    std::size_t anew = 0;
    std::size_t kept = 0;
    for (const auto& [group, channel] : watched_) {
        const uint64_t before = channel.sample ? channel.sample->totals[kPacketsReceivedCounter] : 0;
        if (before > 0) {
            const auto now = received.find(group);
            ++(now == received.end() || now->second < before ? anew : kept);
        }
    }
    return anew > 0 ? anew >= kept : kept == 0;
}

Groups SnapshotIntake::observe(const std::shared_ptr<const records::Snapshot>& snapshot, const Now& now,
                               std::vector<AlarmChange>& changes) {
    Groups shown;
    for (const records::GroupRecords& records : records::groupsOf(*snapshot)) {
        const auto group = Group::parse(records.stream->text("group"));
        if (group && shown.insert(*group).second) {
            if (const auto channel = watched_.find(*group); channel != watched_.end()) {
                observeChannel(channel->second, *records.stream, records.pids, snapshot, now, changes);
            }
        }
    }
    return shown;
}

void SnapshotIntake::observeChannel(WatchedChannel& channel, const Record& stream,
                                    std::span<const Record> pids, const std::shared_ptr<const void>& snapshot,
                                    const Now& now, std::vector<AlarmChange>& changes) {
    const Group group = channel.channel.group;
    const ChannelSample sample = makeSample(stream, pids, channel.sample ? &*channel.sample : nullptr,
                                            now.steady - channel.sampleTime);
    if (!channel.sample) {
        channel.countsSince = now.wall;
    }
    channel.sample = sample;
    channel.sampleTime = now.steady;
    channel.stream = &stream;
    channel.pids = pids;
    channel.snapshot = snapshot;
    if (sample.signal) {
        channel.lastSeen = now.wall;
    }
    channel.minute.add(sample, now.steady);
    for (std::size_t i = 0; i < kSampleCounters; ++i) {
        if (sample.increments[i] > 0) {
            channel.lastError[i] = now.wall;
        }
    }
    if (!channel.channel.enabled) {
        return;
    }
    engine_.observe(group, sample, now, changes);
    channel.history.add(sample, stripCell(sample, engine_.status(group)), now);
}

void SnapshotIntake::observeMissing(const Groups& shown, const Now& now, std::vector<AlarmChange>& changes) {
    for (auto& [group, channel] : watched_) {
        if (shown.contains(group)) {
            continue;
        }
        if (channel.channel.enabled) {
            engine_.observeMissing(group, now, changes);
        }
        if (!probe_.fresh(channel.sampleTime, now.steady)) {
            channel.forgetRecords();
        }
    }
}

}  // namespace station
