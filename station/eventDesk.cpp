#include "eventDesk.h"

#include <algorithm>
#include <array>

#include "channels/channelAttributes.h"
#include "common/log.h"

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
      lastId_(store.initial().lastId),
      maintenance_(store.initial().maintenance) {
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
        const bool silenced = inMaintenance(alarm.group, now);
        if (silenced) {
            silenced_.insert(alarm.id);
        }
        const Channel* const channel = findChannel(alarm.group, channels, nullptr);
        const bool unknown = alarm.group && channel == nullptr;
        raised.push_back(
            {notification(alarm, AlarmChange::What::kRaised, alarm.text, channel, now), silenced || unknown});
    }
    delivery_.resume(std::move(raised));
}

// Where no more ids are reserved the time has to tell them from all that were given.
int64_t EventDesk::takeId(const Now& now) {
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
    event.alarmId = alarm.id;
    const bool silenced = event.silenced;
    record(std::move(event), now, std::move(stored));
    if (change.what == What::kRaised) {
        engine.setRaise(alarm.type, alarm.group, alarm.id, change.text);
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

bool EventDesk::takeLate(AlarmEngine& engine, const ChannelMap& channels, std::vector<Alarm>* unknown,
                         const Now& now) {
    const std::optional<StoredState> late = store_.late();
    if (!late) {
        return false;
    }
    loaded_ = true;
    lastId_ = std::max(lastId_, late->lastId);
    maintenance_.insert(maintenance_.end(), late->maintenance.begin(), late->maintenance.end());
    const std::vector<Alarm> raised = engine.active();
    std::vector<Alarm> others;
    for (const Alarm& alarm : late->active) {
        if (unknown != nullptr && alarm.group && !channels.contains(*alarm.group)) {
            unknown->push_back(alarm);
            continue;
        }
        const auto again = std::ranges::find_if(raised, [&alarm](const Alarm& one) {
            return one.type == alarm.type && one.group == alarm.group;
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
    if (loaded_ && delivery_.wantsActive()) {
        restore(active, channels, now);
    }
    if (silenced_.empty()) {
        return ended;
    }
    for (const Alarm& alarm : active) {
        const Channel* const channel = findChannel(alarm.group, channels, nullptr);
        const bool known = !alarm.group || channel != nullptr;
        if (silenced_.contains(alarm.id) && known && !inMaintenance(alarm.group, now)) {
            silenced_.erase(alarm.id);
            deliver(alarm, AlarmChange::What::kRaised,
                    alarm.text + "; raised during maintenance, which is over", channel, now);
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

bool EventDesk::endMaintenance(int64_t id, const Now& now) {
    const auto window = std::ranges::find(maintenance_, id, &Maintenance::id);
    if (window == maintenance_.end()) {
        return false;
    }
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
