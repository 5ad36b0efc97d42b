#include "eventDesk.h"

#include <algorithm>

#include "common/log.h"

namespace station {

namespace {

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

std::string whatChanged(const Channel& before, const Channel& after) {
    std::string text;
    const auto say = [&](const char* what, bool differs) {
        if (differs) {
            text += (text.empty() ? "" : ", ") + std::string(what);
        }
    };
    say("name", before.name != after.name);
    say("labels", before.labels != after.labels);
    say("profile", before.profile != after.profile);
    say(after.enabled ? "enabled" : "disabled", before.enabled != after.enabled);
    say("origin", before.origin != after.origin);
    say("details", before.source != after.source || before.port != after.port ||
                       before.number != after.number || before.logo != after.logo);
    return text;
}

}  // namespace

EventDesk::EventDesk(EventStore& store, Delivery& delivery)
    : store_(store),
      delivery_(delivery),
      lastId_(store.initial().lastId),
      maintenance_(store.initial().maintenance) {
    if (!store.initial().problem.empty()) {
        log(LogLevel::kError, store.initial().problem);
    }
}

void EventDesk::restore(const std::vector<Alarm>& active, const ChannelMap& channels, const Now& now) {
    std::vector<ActiveNotification> raised;
    for (const Alarm& alarm : active) {
        const bool silenced = inMaintenance(alarm.group, now);
        if (silenced) {
            silenced_.insert(alarm.id);
        }
        raised.push_back({notification(alarm, AlarmChange::What::kRaised, {},
                                       findChannel(alarm.group, channels, nullptr), now),
                          silenced});
    }
    delivery_.resume(std::move(raised));
}

int64_t EventDesk::record(Event event, const Now& now) {
    event.id = ++lastId_;
    event.time = now.wall;
    store_.record(std::move(event));
    return lastId_;
}

void EventDesk::record(const ChannelDifference& difference, const Now& now) {
    const auto say = [&](EventKind kind, const Channel& channel, std::string text) {
        record({.kind = kind, .group = channel.group, .channel = channel.name, .text = std::move(text)}, now);
    };
    for (const Channel& channel : difference.added) {
        say(EventKind::kChannelAdded, channel, "added by " + std::string(originName(channel.origin)));
    }
    for (const Channel& channel : difference.removed) {
        say(EventKind::kChannelRemoved, channel, "removed");
    }
    for (const auto& [before, after] : difference.changed) {
        say(EventKind::kChannelChanged, after, "changed: " + whatChanged(before, after));
    }
}

void EventDesk::record(const AlarmChange& change, AlarmEngine& engine, const ChannelMap& channels,
                       const ChannelDifference* removed, const Now& now) {
    using What = AlarmChange::What;
    const AlarmType& type = alarmTypes()[change.alarm.type];
    const Channel* channel = findChannel(change.alarm.group, channels, removed);
    Event event;
    // What has a kind of its own is one event, not one of the probe and one of the alarm.
    event.kind = type.name == "probe_restarted" ? EventKind::kProbeRestarted : kindOf(change.what);
    event.group = change.alarm.group;
    event.channel = channel != nullptr ? channel->name : std::string();
    event.alarm = type.name;
    event.severity = change.alarm.severity;
    event.text = change.text;
    event.value = change.alarm.value;
    event.silenced = inMaintenance(change.alarm.group, now);
    Alarm alarm = change.alarm;
    if (change.what == What::kRaised || change.what == What::kHappened) {
        alarm.id = lastId_ + 1;
    }
    if (change.what == What::kCleared) {
        event.peak = alarm.peak;
        event.duration = change.duration;
    }
    if (change.what == What::kAcknowledged && alarm.acknowledged) {
        event.by = alarm.acknowledged->by;
        event.text = alarm.acknowledged->remark;
    }
    event.alarmId = alarm.id;
    const bool silenced = event.silenced;
    record(std::move(event), now);
    if (change.what == What::kRaised) {
        engine.setId(alarm.type, alarm.group, alarm.id);
    }
    if (change.what == What::kRaised && silenced) {
        silenced_.insert(alarm.id);
    } else if (change.what != What::kAcknowledged && !(change.what == What::kHappened && silenced)) {
        deliver(alarm, change.what, change.text, channel, now);
    }
    const std::string group = alarm.group ? alarm.group->text() : std::string();
    const std::string name =
        channel != nullptr && channel->name != group ? channel->name + " (" + group + ")" : group;
    log(logLevel(change.what, alarm.severity),
        std::string(type.name) + " " + std::string(eventKindName(kindOf(change.what))) +
            (name.empty() ? "" : ": " + name) + (change.text.empty() ? "" : ": " + change.text),
        {{"KESTOR_CHANNEL", name.empty() ? "probe" : group},
         {"KESTOR_ALARM", type.name},
         {"KESTOR_SEVERITY", severityName(alarm.severity)}});
}

void EventDesk::deliver(const Alarm& alarm, AlarmChange::What what, const std::string& text,
                        const Channel* channel, const Now& now) {
    if (what == AlarmChange::What::kCleared) {
        silenced_.erase(alarm.id);
    }
    delivery_.notify(notification(alarm, what, text, channel, now));
}

Notification EventDesk::notification(const Alarm& alarm, AlarmChange::What what, const std::string& text,
                                     const Channel* channel, const Now& now) {
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
    notification.group = alarm.group ? alarm.group->text() : std::string();
    if (channel != nullptr) {
        notification.channel = channel->name;
        notification.labels = channel->labels;
    }
    notification.text = text;
    notification.value = alarm.value;
    return notification;
}

bool EventDesk::tick(const std::vector<Alarm>& active, const ChannelMap& channels, const Now& now) {
    bool ended = false;
    std::erase_if(maintenance_, [&](const Maintenance& window) {
        if (window.until > now.wall) {
            return false;
        }
        store_.removeMaintenance(window.id);
        record({.kind = EventKind::kMaintenanceEnded,
                .group = window.group,
                .text = "the window's time is over"},
               now);
        ended = true;
        return true;
    });
    if (delivery_.wantsActive()) {
        restore(active, channels, now);
    }
    if (silenced_.empty()) {
        return ended;
    }
    for (const Alarm& alarm : active) {
        if (silenced_.contains(alarm.id) && !inMaintenance(alarm.group, now)) {
            silenced_.erase(alarm.id);
            deliver(alarm, AlarmChange::What::kRaised, "still raised behind a maintenance window",
                    findChannel(alarm.group, channels, nullptr), now);
        }
    }
    return ended;
}

int64_t EventDesk::setMaintenance(const SetMaintenance& action, const ChannelMap& channels, const Now& now) {
    const Channel* channel = findChannel(action.group, channels, nullptr);
    Maintenance window{.id = 0,
                       .from = action.from,
                       .until = action.until,
                       .group = action.group,
                       .remark = action.remark,
                       .by = action.by};
    window.id = record({.kind = EventKind::kMaintenanceSet,
                        .group = action.group,
                        .channel = channel != nullptr ? channel->name : std::string(),
                        .text = action.remark,
                        .by = action.by},
                       now);
    maintenance_.push_back(window);
    store_.putMaintenance(window);
    return window.id;
}

bool EventDesk::endMaintenance(int64_t id, const Now& now) {
    const auto window = std::ranges::find(maintenance_, id, &Maintenance::id);
    if (window == maintenance_.end()) {
        return false;
    }
    store_.removeMaintenance(id);
    record({.kind = EventKind::kMaintenanceEnded, .group = window->group, .text = "ended on demand"}, now);
    maintenance_.erase(window);
    return true;
}

bool EventDesk::inMaintenance(const std::optional<Group>& group, const Now& now) const {
    return std::ranges::any_of(maintenance_, [&](const Maintenance& window) {
        return window.from <= now.wall && now.wall < window.until && (!window.group || window.group == group);
    });
}

}  // namespace station
