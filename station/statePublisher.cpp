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
    next->pictures = std::move(surroundings.pictures);
    next->machine = sources_.machine.state();
    next->snapshot = sources_.intake.records();
    next->channels.reserve(sources_.watch.channels().size());
    auto brief = surroundings.briefs.begin();  // in the order of groups, as channels are
    for (auto& [group, channel] : sources_.watch.channels()) {
        while (brief != surroundings.briefs.end() && brief->first < group.hostOrder()) {
            ++brief;
        }
        const bool hasBrief = brief != surroundings.briefs.end() && brief->first == group.hostOrder();
        const auto picture = surroundings.pictureBriefs.find(group.hostOrder());
        next->channels.push_back(channelState(
            channel, hasBrief ? std::move(brief->second) : MeterBrief{},
            picture != surroundings.pictureBriefs.end() ? std::move(picture->second) : PictureBrief{}, now));
    }
    next->alarms = sources_.engine.active();
    sources_.desk.decorate(next->alarms);
    next->maintenance = sources_.desk.maintenance();
    next->shelved = sources_.desk.shelf().all();
    next->incidents = sources_.desk.incidents().all();
    next->passed = sources_.desk.passed().all();
    next->passedVersion = sources_.desk.passed().version();
    next->configuration = std::move(surroundings.configuration);
    next->notes = std::move(surroundings.notes);
    next->passive = surroundings.passive;
    next->use = std::move(surroundings.use);
    next->channelsVersion = channelsVersion_;
    next->alarmsVersion = alarmsVersion_;
    const std::lock_guard lock(publishedMutex_);
    return published_ = std::move(next);
}

std::shared_ptr<const ChannelState> StatePublisher::channelState(WatchedChannel& channel, MeterBrief&& brief,
                                                                 PictureBrief&& picture,
                                                                 const Now& now) const {
    const Group group = channel.channel.group;
    auto state = std::make_shared<ChannelState>(ChannelState{channel.channel});
    state->alarms = sources_.engine.activeOf(group);
    sources_.desk.decorate(state->alarms);
    for (std::size_t i = 0; i < kSources; ++i) {
        Observed& observed = channel.observed.values[i];
        Measured& measured = state->measured.values[i];
        measured.shown = observed.sample && sources_.presence.values[i]->fresh(observed.time, now.steady);
        if (observed.sample) {
            measured.sample = *observed.sample;
        }
        measured.lastError = observed.lastError;
        measured.lastMinute = observed.minute.sums(now.steady);
    }
    state->stream = channel.stream;
    state->pids = channel.pids;
    state->snapshot = channel.snapshot;
    state->status = sources_.engine.status(group);
    state->judgedBy = sources_.engine.judgeOf(group);
    state->lastSeen = channel.lastSeen;
    state->countsSince = channel.countsSince;
    state->maintenance = sources_.desk.inMaintenance(group, now);
    state->note = sources_.machine.note(group);
    state->meter = std::move(brief);
    state->picture = std::move(picture);
    return state;
}

}  // namespace station
