#include "snapshotIntake.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "common/log.h"
#include "measures/probeSample.h"

namespace station {

namespace {

using namespace std::chrono_literals;

// From the last records of one probe to the first ones of the next that is told what to watch.
constexpr auto kRestartTakes = 10s;

}  // namespace

bool SnapshotIntake::hasSignal(const Group& group, SteadyTime now) const {
    const auto found = watch_.channels().find(group);
    if (found == watch_.channels().end()) {
        return false;
    }
    const Observed& observed = found->second.observed[Source::kProbe];
    return observed.sample && observed.sample->signal && probe_.fresh(observed.time, now);
}

std::optional<SnapshotIntake::Result> SnapshotIntake::apply(RawSnapshot&& raw) {
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
    Result result;
    if (beganAnew(*snapshot, raw.began.steady)) {
        probe_.restarted();
        log(LogLevel::kWarning, "the probe was restarted");
        engine_.probeRestarted(now, result.restart);
        result.restarted = true;
    }
    Groups shown = observe(snapshot, now, result.changes);
    observeMissing(shown, now, result.changes);
    if (!shown_.empty() &&
        std::ranges::none_of(shown_, [&](const Group& group) { return shown.contains(group); })) {
        recordsGone_ = now.steady;
    }
    shown_ = std::move(shown);
    records_ = snapshot;
    return result;
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
    for (const auto& [group, channel] : watch_.channels()) {
        const auto& sample = channel.observed[Source::kProbe].sample;
        const uint64_t before = sample ? sample->received : 0;
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
            if (const auto channel = watch_.channels().find(*group); channel != watch_.channels().end()) {
                observeChannel(channel->second, *records.stream, records.pids, snapshot, now, changes);
            }
        }
    }
    return shown;
}

void SnapshotIntake::observeChannel(WatchedChannel& channel, const Record& stream,
                                    std::span<const Record> pids, const std::shared_ptr<const void>& snapshot,
                                    const Now& now, std::vector<AlarmChange>& changes) {
    const Observed& observed = channel.observed[Source::kProbe];
    const ChannelSample sample =
        makeSample(stream, pids, observed.sample ? &*observed.sample : nullptr, now.steady - observed.time);
    if (!observed.sample) {
        channel.countsSince = now.wall;
    }
    channel.stream = &stream;
    channel.pids = pids;
    channel.snapshot = snapshot;
    watch_.observe(channel, sample, now, changes);
}

void SnapshotIntake::observeMissing(const Groups& shown, const Now& now, std::vector<AlarmChange>& changes) {
    for (auto& [group, channel] : watch_.channels()) {
        if (shown.contains(group)) {
            continue;
        }
        if (channel.channel.enabled) {
            engine_.observeMissing(group, now, changes);
        }
        if (!probe_.fresh(channel.observed[Source::kProbe].time, now.steady)) {
            channel.forgetRecords();
        }
    }
}

}  // namespace station
