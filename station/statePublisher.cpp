#include "statePublisher.h"

#include <utility>

namespace station {

StatePointer StatePublisher::latest() const {
    const std::lock_guard lock(publishedMutex_);
    return published_;
}

StatePointer StatePublisher::publish(Surroundings&& surroundings, const Now& now) {
    auto next = std::make_shared<StationState>();
    next->number = ++number_;
    next->now = now;
    next->started = started_;
    next->probe = std::move(surroundings.probe);
    next->meter = std::move(surroundings.meter);
    next->machine = sources_.machine.state();
    next->snapshot = sources_.intake.records();
    next->channels.reserve(sources_.intake.channels().size());
    for (auto& [group, channel] : sources_.intake.channels()) {
        next->channels.push_back(channelState(channel, now));
    }
    next->alarms = sources_.engine.active();
    next->maintenance = sources_.desk.maintenance();
    next->configuration = std::move(surroundings.configuration);
    next->notes = std::move(surroundings.notes);
    next->passive = surroundings.passive;
    next->use = std::move(surroundings.use);
    next->channelsVersion = channelsVersion_;
    next->alarmsVersion = alarmsVersion_;
    const std::lock_guard lock(publishedMutex_);
    return published_ = std::move(next);
}

std::shared_ptr<const ChannelState> StatePublisher::channelState(WatchedChannel& channel,
                                                                 const Now& now) const {
    const Group group = channel.channel.group;
    auto state = std::make_shared<ChannelState>(ChannelState{channel.channel});
    state->alarms = sources_.engine.activeOf(group);
    state->shown = channel.sample && sources_.probe.fresh(channel.sampleTime, now.steady);
    if (channel.sample) {
        state->sample = *channel.sample;
        state->stream = channel.stream;
        state->pids = channel.pids;
        state->snapshot = channel.snapshot;
    }
    state->status = sources_.engine.status(group);
    state->lastSeen = channel.lastSeen;
    state->countsSince = channel.countsSince;
    state->maintenance = sources_.desk.inMaintenance(group, now);
    state->note = sources_.machine.note(group);
    state->lastError = channel.lastError;
    state->lastMinute = channel.minute.sums(now.steady);
    return state;
}

}  // namespace station
