// The event desk's incidents: which alarms are told together, and what passed while nobody looked.
#include <algorithm>
#include <utility>

#include "eventDesk.h"

namespace station {

bool EventDesk::findIncidents(const Now& now) {
    if (fresh_.empty()) {
        return false;
    }
    std::vector<IncidentChange> changes = incidents_.raise(fresh_, now);
    fresh_.clear();
    const bool any = !changes.empty();
    for (IncidentChange& change : changes) {
        const std::set<int64_t> joined(change.joined.begin(), change.joined.end());
        for (const PassedAlarm& alarm : passed_.join(joined, change.incident.id)) {
            store_.putPassed(alarm);
        }
        put(std::move(change));
    }
    return any;
}

void EventDesk::put(IncidentChange change) {
    storedIncidents_.insert(change.incident.id);
    incidentsEnded_ = incidentsEnded_ || change.incident.over;
    store_.putIncident(std::move(change));
}

std::set<int64_t> EventDesk::wantedIncidents() const {
    std::set<int64_t> wanted;
    for (const PassedAlarm& alarm : passed_.all()) {
        wanted.insert(alarm.incident);
    }
    for (const Shelving& shelving : shelf_.all()) {
        wanted.insert(shelving.incident);
    }
    return wanted;
}

void EventDesk::forgetIncidents() {
    const std::pair seen(passed_.version(), shelf_.version());
    if (seen == wantedBy_ && !incidentsEnded_) {
        return;
    }
    wantedBy_ = seen;
    incidentsEnded_ = false;
    const std::set<int64_t> wanted = wantedIncidents();
    incidents_.forgetOver(wanted);
    std::erase_if(storedIncidents_, [&](int64_t id) {
        const Incident* const incident = incidents_.find(id);
        if (wanted.contains(id) || (incident != nullptr && !incident->over)) {
            return false;
        }
        store_.removeIncident(id);
        return true;
    });
}

void EventDesk::restoreIncidents(const std::vector<Incident>& stored, const std::vector<Alarm>& raised,
                                 const Now& now) {
    for (const Incident& incident : stored) {
        storedIncidents_.insert(incident.id);
    }
    for (const int64_t over : incidents_.restore(stored, raised, wantedIncidents(), now)) {
        storedIncidents_.erase(over);
        store_.removeIncident(over);
    }
}

int64_t EventDesk::leaveIncident(int64_t alarm, const Now& now) {
    if (std::ranges::find(fresh_, alarm, &Alarm::id) != fresh_.end()) {
        findIncidents(now);
    }
    const auto change = incidents_.clear(alarm, now);
    if (!change) {
        return 0;
    }
    if (change->incident.over) {
        put(*change);
    }
    return change->incident.id;
}

// What somebody acknowledged was looked at, and of what is silent nobody wants to be told.
void EventDesk::notePassed(const Alarm& alarm, int64_t incident, const ChannelMap& channels, const Now& now) {
    const auto group = alarm.about.group();
    const auto channel = group ? channels.find(*group) : channels.end();
    const bool watched = !group || (channel != channels.end() && channel->second.enabled);
    if (alarm.acknowledged || !watched || isSilent(alarm.about, alarm.type, now)) {
        return;
    }
    PassedAlarm passed{.id = alarm.id,
                       .type = alarm.type,
                       .about = alarm.about,
                       .severity = alarm.severity,
                       .raised = alarm.raised,
                       .cleared = now.wall,
                       .text = alarm.text,
                       .incident = incident};
    const std::vector<int64_t> gone = passed_.put(passed);
    store_.putPassed(passed);
    for (const int64_t id : gone) {
        store_.removePassed(id);
    }
}

bool EventDesk::see(const PassedAlarm& alarm, const HandleAlarms& action, const ChannelMap& channels,
                    const Now& now) {
    if (!passed_.take(alarm)) {
        return false;
    }
    Event event{.kind = EventKind::kAcknowledged,
                .group = alarm.about.group(),
                .alarm = std::string(alarmTypes()[alarm.type].name),
                .alarmId = alarm.id,
                .severity = alarm.severity,
                .text = action.remark,
                .by = action.by};
    if (event.group) {
        const auto channel = channels.find(*event.group);
        event.channel = channel != channels.end() ? channel->second.name : std::string();
    }
    record(std::move(event), now);
    store_.removePassed(alarm.id);
    return true;
}

void EventDesk::tellHeld(int64_t alarm, const Channel* channel, const Now& now) {
    if (const auto held = held_.extract(alarm)) {
        deliver(held.mapped().alarm, AlarmChange::What::kRaised, held.mapped().text, channel, now);
    }
}

void EventDesk::tellRaised(const ChannelMap& channels, const Now& now) {
    std::vector<int64_t> due;
    for (const auto& [id, held] : held_) {
        if (now.steady - held.since >= kTellAfter) {
            due.push_back(id);
        }
    }
    std::vector<Notification> together;
    for (const int64_t id : due) {
        const Alarm& alarm = held_.at(id).alarm;
        if (isSilent(alarm.about, alarm.type, now)) {  // meanwhile
            silenced_.insert(id);
            held_.erase(id);
            continue;
        }
        const auto group = alarm.about.group();
        const auto channel = group ? channels.find(*group) : channels.end();
        const auto held = held_.extract(id);
        together.push_back(notification(held.mapped().alarm, AlarmChange::What::kRaised, held.mapped().text,
                                        channel == channels.end() ? nullptr : &channel->second, now));
    }
    if (!together.empty()) {
        delivery_.notify(std::move(together));
    }
}

}  // namespace station
