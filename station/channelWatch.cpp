#include "channelWatch.h"

#include <utility>

namespace station {

namespace {

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

void ChannelWatch::setChannels(const ChannelDifference& difference) {
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

void ChannelWatch::observe(WatchedChannel& channel, const ChannelSample& sample, const Now& now,
                           std::vector<AlarmChange>& changes) {
    channel.observed[sample.source].add(sample, now);
    // A picture was taken of packets that came seconds ago.
    if (sample.signal && sample.source != Source::kPicture) {
        channel.lastSeen = now.wall;
    }
    if (!channel.channel.enabled) {
        return;
    }
    const Group& group = channel.channel.group;
    engine_.observe(group, sample, now, changes);
    const bool judges = sample.source == engine_.judgeOf(group);
    channel.history.add(sample, judges ? stripCell(sample, engine_.status(group)) : StripCell::kNoData, now,
                        judges);
}

std::vector<ChannelMinutes> ChannelWatch::takeMinutes(const Now& now) {
    std::vector<ChannelMinutes> all;
    for (auto& [group, channel] : watched_) {
        ChannelMinutes one{group, {}};
        channel.history.takeMinutes(one.minutes, now);
        if (!one.minutes.empty()) {
            all.push_back(std::move(one));
        }
    }
    return all;
}

void ChannelWatch::restore(const std::vector<ChannelMinutes>& minutes, const Now& now) {
    for (const ChannelMinutes& one : minutes) {
        if (const auto channel = watched_.find(one.group); channel != watched_.end()) {
            channel->second.history.restore(one.minutes, now);
        }
    }
}

}  // namespace station
