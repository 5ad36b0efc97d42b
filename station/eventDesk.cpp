#include "eventDesk.h"

#include <algorithm>
#include <array>

#include "alarmSelection.h"
#include "channels/channelAttributes.h"
#include "common/log.h"
#include "common/text.h"

namespace station {

namespace {

// By Origin.
constexpr std::array<std::string_view, 3> kAddedBy = {"at run time", "by the configuration", "by a playlist"};

const Channel* findChannel(const std::optional<Group>& group, const ChannelMap& channels,
                           const ChannelDifference* difference) {
    if (!group) {
        return nullptr;
    }
    if (const auto channel = channels.find(*group); channel != channels.end()) {
        return &channel->second;
    }
    if (difference != nullptr) {
        const auto gone = std::ranges::find(difference->removed, *group, &Channel::group);
        return gone == difference->removed.end() ? nullptr : &*gone;
    }
    return nullptr;
}

EventKind kindOf(AlarmChange::What what) {
    switch (what) {
        case AlarmChange::What::kRaised:
            return EventKind::kRaised;
        case AlarmChange::What::kCleared:
            return EventKind::kCleared;
        case AlarmChange::What::kAcknowledged:
            return EventKind::kAcknowledged;
        case AlarmChange::What::kUnacknowledged:
            return EventKind::kUnacknowledged;
        default:
            return EventKind::kHappened;
    }
}

LogLevel logLevel(AlarmChange::What what, Severity severity) {
    if (what != AlarmChange::What::kRaised) {
        return LogLevel::kNotice;
    }
    return severity == Severity::kCritical || severity == Severity::kMajor ? LogLevel::kError
                                                                           : LogLevel::kWarning;
}

}  // namespace

EventDesk::EventDesk(EventStore& store, Delivery& delivery)
    : store_(store),
      delivery_(delivery),
      loaded_(store.initial().loaded),
      meterKnown_(store.initial().meterKnown),
      lastId_(store.initial().lastId),
      maintenance_(store.initial().maintenance) {
    for (const Shelving& shelving : store.initial().shelved) {
        shelf_.put(shelving);
    }
    for (PassedAlarm alarm : store.initial().passed) {
        passed_.put(alarm);
    }
    if (!store.initial().problem.empty()) {
        log(LogLevel::kError, store.initial().problem);
    }
}

void EventDesk::restore(const std::vector<Alarm>& active, const ChannelMap& channels, const Now& now) {
    if (!loaded_) {
        return;  // receivers would be told that all is over which is not known yet
    }
    std::vector<ActiveNotification> raised;
    for (const Alarm& alarm : active) {
        const bool silenced = isSilent(alarm.about, alarm.type, now);
        if (silenced) {
            silenced_.insert(alarm.id);
        }
        const Channel* const channel = findChannel(alarm.about.group(), channels, nullptr);
        const bool unknown = alarm.about.group() && channel == nullptr;
        raised.push_back(
            {notification(alarm, AlarmChange::What::kRaised, alarm.text, channel, now), silenced || unknown});
    }
    delivery_.resume(std::move(raised));
}

// Where no more ids are reserved the time has to tell them from all that were given.
int64_t EventDesk::takeId(const Now& now) {
    lastId_ = std::max(lastId_, store_.givenTo());
    if (lastId_ >= store_.reservedTo()) {
        lastId_ = std::max(lastId_, idByTime(now.wall));
    }
    return ++lastId_;
}

int64_t EventDesk::record(Event event, const Now& now, EventStore::Stored stored) {
    if (event.id == 0) {
        event.id = takeId(now);
    }
    event.time = now.wall;
    const int64_t id = event.id;
    store_.record(std::move(event), std::move(stored));
    return id;
}

void EventDesk::record(const ChannelDifference& difference, const Now& now) {
    const auto say = [&](EventKind kind, const Channel& channel, std::string text) {
        record({.kind = kind, .group = channel.group, .channel = channel.name, .text = std::move(text)}, now);
    };
    for (const Channel& channel : difference.added) {
        say(EventKind::kChannelAdded, channel,
            "added " + std::string(kAddedBy.at(static_cast<std::size_t>(channel.origin))));
    }
    for (const Channel& channel : difference.removed) {
        say(EventKind::kChannelRemoved, channel, "removed");
    }
    for (const auto& [before, after] : difference.changed) {
        say(EventKind::kChannelChanged, after, "changed: " + whatChanged(before, after));
    }
}

void EventDesk::record(const AlarmChange& change, AlarmEngine& engine, const ChannelMap& channels,
                       const ChannelDifference* removed, const Now& now, EventStore::Stored stored) {
    using What = AlarmChange::What;
    const AlarmType& type = alarmTypes()[change.alarm.type];
    const Channel* channel = findChannel(change.alarm.about.group(), channels, removed);
    Event event;
    // What has a kind of its own is one event, not one of the probe and one of the alarm.
    event.kind = type.name == "probe_restarted" ? EventKind::kProbeRestarted : kindOf(change.what);
    event.group = change.alarm.about.group();
    event.channel = channel != nullptr ? channel->name : std::string();
    event.alarm = type.name;
    event.severity = change.alarm.severity;
    event.text = change.text;
    event.value = change.alarm.value;
    event.source = change.alarm.source;
    event.silenced = isSilent(change.alarm.about, change.alarm.type, now);
    Alarm alarm = change.alarm;
    if (change.what == What::kRaised || change.what == What::kHappened) {
        alarm.id = event.id = takeId(now);
    }
    if (change.what == What::kCleared) {
        event.peak = alarm.peak;
        event.duration = change.duration;
    }
    if (change.what == What::kAcknowledged && alarm.acknowledged) {
        event.by = alarm.acknowledged->by;
        event.text = alarm.acknowledged->remark;
    }
    if (change.what == What::kUnacknowledged) {
        event.by = change.by;
    }
    event.alarmId = alarm.id;
    const bool silenced = event.silenced;
    record(std::move(event), now, std::move(stored));
    if (change.what == What::kRaised) {
        engine.setRaise(alarm.type, alarm.about, alarm.id, change.text);
    }
    if (change.what == What::kRaised) {
        alarm.setText(change.text);
        fresh_.push_back(alarm);
        if (silenced) {
            silenced_.insert(alarm.id);
        } else {
            held_.insert_or_assign(alarm.id, Held{alarm, change.text, now.steady});
        }
    } else if (change.what == What::kCleared) {
        tellHeld(alarm.id, channel, now);
        deliver(alarm, change.what, change.text, channel, now);
        notePassed(alarm, leaveIncident(alarm.id, now), channels, now);
    } else if (change.what == What::kHappened && !silenced) {
        deliver(alarm, change.what, change.text, channel, now);
    }
    const std::string group = alarm.about.source() ? std::string() : alarm.about.text();
    const std::string name =
        channel != nullptr && channel->name != group ? channel->name + " (" + group + ")" : group;
    log(logLevel(change.what, alarm.severity),
        std::string(type.name) + " " + std::string(eventKindName(kindOf(change.what))) +
            (name.empty() ? "" : ": " + name) + (change.text.empty() ? "" : ": " + change.text),
        {{"KESTOR_CHANNEL", alarm.about.text()},
         {"KESTOR_ALARM", type.name},
         {"KESTOR_SEVERITY", severityName(alarm.severity)}});
}

void EventDesk::recordCue(const Channel& channel, const std::string& text, const Now& now) {
    if (const auto told = cues_.take(channel.group, text, now)) {
        tellCue(channel, *told, now);
    }
}

void EventDesk::tellCue(const Channel& channel, const std::string& text, const Now& now) {
    const bool silenced = inMaintenance(channel.group, now);
    Notification cue;
    cue.alarmId = record({.kind = EventKind::kCue,
                          .group = channel.group,
                          .channel = channel.name,
                          .text = text,
                          .silenced = silenced,
                          .source = Source::kMeter},
                         now);
    if (silenced) {
        return;
    }
    cue.cue = cue.momentary = true;
    cue.time = cue.raisedAt = now.wall;
    cue.meaning = "The stream signals a splice (SCTE 35).";
    cue.group = channel.group.text();
    cue.channel = channel.name;
    cue.labels = channel.labels;
    cue.text = text;
    cue.source = sourceName(Source::kMeter);
    delivery_.notify(std::move(cue));
}

void EventDesk::deliver(const Alarm& alarm, AlarmChange::What what, const std::string& text,
                        const Channel* channel, const Now& now) {
    if (what == AlarmChange::What::kCleared) {
        silenced_.erase(alarm.id);
    }
    delivery_.notify(notification(alarm, what, text, channel, now));
}

Notification EventDesk::notification(const Alarm& alarm, AlarmChange::What what, const std::string& text,
                                     const Channel* channel, const Now& now) const {
    const AlarmType& type = alarmTypes()[alarm.type];
    Notification notification;
    notification.alarmId = alarm.id;
    notification.raised = what != AlarmChange::What::kCleared;
    notification.momentary = what == AlarmChange::What::kHappened;
    notification.time = now.wall;
    notification.raisedAt = alarm.raised;
    notification.alarm = type.name;
    notification.meaning = type.meaning;
    notification.severity = alarm.severity;
    notification.group = alarm.about.source() ? std::string() : alarm.about.text();
    if (channel != nullptr) {
        notification.channel = channel->name;
        notification.labels = channel->labels;
    }
    notification.text = text;
    notification.value = alarm.value;
    notification.source = sourceName(alarm.source);
    const Incident* const incident = incidents_.find(incidents_.incidentOf(alarm.id));
    notification.incident = incident != nullptr ? incident->id : alarm.id;
    notification.shared = incident != nullptr ? std::optional(incident->shared) : std::nullopt;
    return notification;
}

bool EventDesk::takeLate(AlarmEngine& engine, const ChannelMap& channels, std::vector<Alarm>* unknown,
                         const Now& now) {
    const std::optional<StoredState> late = store_.late();
    if (!late) {
        return false;
    }
    loaded_ = true;
    meterKnown_ = meterKnown_ || late->meterKnown;
    lastId_ = std::max(lastId_, late->lastId);
    maintenance_.insert(maintenance_.end(), late->maintenance.begin(), late->maintenance.end());
    for (const Shelving& shelving : late->shelved) {
        if (shelf_.find(shelving.about, shelving.type) == nullptr) {
            shelf_.put(shelving);
        }
    }
    for (PassedAlarm alarm : late->passed) {
        passed_.put(alarm);
    }
    restoreIncidents(late->incidents, late->active, now);
    const std::vector<Alarm> raised = engine.active();
    std::vector<Alarm> others;
    for (const Alarm& alarm : late->active) {
        if (unknown != nullptr && alarm.about.group() && !channels.contains(*alarm.about.group())) {
            unknown->push_back(alarm);
            continue;
        }
        const auto again = std::ranges::find_if(raised, [&alarm](const Alarm& one) {
            return one.type == alarm.type && one.about == alarm.about;
        });
        if (again == raised.end()) {
            others.push_back(alarm);
            continue;
        }
        engine.identify(alarm);
        record(
            {.what = AlarmChange::What::kCleared,
             .alarm = *again,
             .text = "it is the alarm " + std::to_string(alarm.id) + ", raised before the station started"},
            engine, channels, nullptr, now);
    }
    for (const AlarmChange& change : engine.restore(others, now)) {
        record(change, engine, channels, nullptr, now);
    }
    std::vector<Alarm> active = engine.active();
    if (unknown != nullptr) {
        active.insert(active.end(), unknown->begin(), unknown->end());
    }
    restore(active, channels, now);
    return true;
}

std::vector<AlarmChange> EventDesk::judgeDelivery(AlarmEngine& engine, const Now& now) const {
    const Delivery::Health health = delivery_.health();
    const double value = health.failing.value_or(false) ? 1 : 0;
    std::vector<AlarmChange> changes;
    engine.judge(*findAlarmType("delivery_failing"), Source::kProbe, {health.failing, health.since, value},
                 now, changes);
    for (AlarmChange& change : changes) {
        if (change.what == AlarmChange::What::kRaised) {
            change.text += ": " + health.problem;
        }
    }
    return changes;
}

bool EventDesk::tick(const std::vector<Alarm>& active, const ChannelMap& channels, const Now& now) {
    for (const auto& [group, text] : cues_.due(now)) {
        if (const Channel* const channel = findChannel(group, channels, nullptr)) {
            tellCue(*channel, text, now);
        }
    }
    bool ended = findIncidents(now);
    forgetIncidents();
    tellRaised(channels, now);
    std::erase_if(maintenance_, [&](const Maintenance& window) {
        if (window.until > now.wall) {
            return false;
        }
        store_.removeMaintenance(window.id);
        recordEnd(window, "the window's time is over", channels, now);
        ended = true;
        return true;
    });
    const std::size_t shelved = shelf_.size();
    endShelvings(channels, now);
    ended = ended || shelf_.size() != shelved;
    if (loaded_ && delivery_.wantsActive()) {
        restore(active, channels, now);
    }
    if (silenced_.empty()) {
        return ended;
    }
    for (const Alarm& alarm : active) {
        const Channel* const channel = findChannel(alarm.about.group(), channels, nullptr);
        const bool known = alarm.about.source() || channel != nullptr;
        if (silenced_.contains(alarm.id) && known && !isSilent(alarm.about, alarm.type, now)) {
            silenced_.erase(alarm.id);
            deliver(alarm, AlarmChange::What::kRaised,
                    alarm.text + "; raised during maintenance or on the shelf, which is over", channel, now);
        }
    }
    return ended;
}

int64_t EventDesk::setMaintenance(const SetMaintenance& action, const ChannelMap& channels, const Now& now,
                                  const std::set<Group>& chosen) {
    Maintenance window{.id = 0,
                       .from = action.from,
                       .until = action.until,
                       .group = chosen.size() == 1 ? *chosen.begin() : action.group,
                       .remark = action.remark,
                       .by = action.by};
    if (chosen.size() > 1) {
        window.groups.assign(chosen.begin(), chosen.end());
        window.about = printable(chosenText(action.which, chosen.size()), Maintenance::kAboutBytes);
    }
    const Channel* channel = findChannel(window.group, channels, nullptr);
    const bool both = !window.about.empty() && !action.remark.empty();
    window.id = record({.kind = EventKind::kMaintenanceSet,
                        .group = window.group,
                        .channel = channel != nullptr ? channel->name : std::string(),
                        .text = window.about + (both ? ": " : "") + action.remark,
                        .by = action.by,
                        .until = action.until},
                       now);
    maintenance_.push_back(window);
    return window.id;
}

void EventDesk::store(int64_t id, EventStore::Stored stored) {
    const auto window = std::ranges::find(maintenance_, id, &Maintenance::id);
    if (window != maintenance_.end()) {
        store_.putMaintenance(*window, std::move(stored));
    } else {
        store_.removeMaintenance(id, std::move(stored));
    }
}

void EventDesk::recordEnd(const Maintenance& window, const char* why, const ChannelMap& channels,
                          const Now& now) {
    const Channel* const channel = findChannel(window.group, channels, nullptr);
    record({.kind = EventKind::kMaintenanceEnded,
            .group = window.group,
            .channel = channel != nullptr ? channel->name : std::string(),
            .text = (window.about.empty() ? "" : window.about + ": ") + why},
           now);
}

bool EventDesk::endMaintenance(int64_t id, const ChannelMap& channels, const Now& now) {
    const auto window = std::ranges::find(maintenance_, id, &Maintenance::id);
    if (window == maintenance_.end()) {
        return false;
    }
    recordEnd(*window, "ended on demand", channels, now);
    maintenance_.erase(window);
    return true;
}

bool EventDesk::inMaintenance(const Subject& about, const Now& now) const {
    const std::optional<Group> group = about.group();
    return std::ranges::any_of(maintenance_, [&](const Maintenance& window) {
        return window.from <= now.wall && now.wall < window.until && window.covers(group);
    });
}

std::size_t EventDesk::maintenanceGroups() const {
    std::size_t groups = 0;
    for (const Maintenance& window : maintenance_) {
        groups += window.groups.size();
    }
    return groups;
}

bool EventDesk::isSilent(const Subject& about, std::size_t type, const Now& now) const {
    return shelf_.find(about, type) != nullptr || inMaintenance(about, now);
}

}  // namespace station
