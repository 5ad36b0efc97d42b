// What events.db keeps beside events, raised alarms and windows: what is shelved, incidents, and what
// passed unseen.
#include "store/eventDatabase.h"
#include "store/storedTime.h"

namespace station {

namespace {

// Of a type and a group as they are stored; nothing where this version has no such type, or the group does
// not go with it.
struct WhatOfWhom {
    std::size_t type;
    Subject about;
};
std::optional<WhatOfWhom> whatOfWhom(const std::string& alarm, const std::string& groupText) {
    const std::optional<std::size_t> type = findAlarmType(alarm);
    const auto group = Group::parse(groupText);
    if (!type || group.has_value() == alarmTypes()[*type].ofSource.has_value()) {
        return std::nullopt;
    }
    return WhatOfWhom{*type, group ? Subject(*group) : Subject(*alarmTypes()[*type].ofSource)};
}

std::optional<std::string> groupOrNothing(const Subject& about) {
    return about.group() ? std::optional(about.text()) : std::nullopt;
}

}  // namespace

void Carried::applyState(const StoreEntry& entry) {
    if (const auto* shelving = std::get_if<Shelving>(&entry)) {
        shelved[shelving->id] = *shelving;
    } else if (const auto* unshelved = std::get_if<RemoveShelving>(&entry)) {
        shelved.erase(unshelved->id);
    } else if (const auto* change = std::get_if<IncidentChange>(&entry)) {
        incidents[change->incident.id] = change->incident;
        for (const int64_t alarm : change->joined) {
            if (const auto found = active.find(alarm); found != active.end()) {
                found->second.incident = change->incident.id;
            }
        }
    } else if (const auto* over = std::get_if<RemoveIncident>(&entry)) {
        incidents.erase(over->id);
    } else if (const auto* alarm = std::get_if<PassedAlarm>(&entry)) {
        passed[alarm->id] = *alarm;
    } else if (const auto* seen = std::get_if<RemovePassed>(&entry)) {
        passed.erase(seen->id);
    }
}

void EventDatabase::prepareState() {
    putShelving_ = database_.prepare(
        "INSERT OR REPLACE INTO shelved (id, alarm, channel_group, since, until_time, by_whom, remark, "
        "incident) VALUES (?, ?, ?, ?, ?, ?, ?, ?)");
    removeShelving_ = database_.prepare("DELETE FROM shelved WHERE id = ?");
    putIncident_ = database_.prepare(
        "INSERT OR REPLACE INTO incidents (id, began, last, kind, name, value, alarms, channels, covered, "
        "first_alarm, first_group, first_text, over) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    removeIncident_ = database_.prepare("DELETE FROM incidents WHERE id = ?");
    joinIncident_ = database_.prepare("UPDATE active SET incident = ? WHERE alarm_id = ?");
    putPassed_ = database_.prepare(
        "INSERT OR REPLACE INTO passed (id, alarm, channel_group, severity, raised, cleared, times, text, "
        "incident) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)");
    removePassed_ = database_.prepare("DELETE FROM passed WHERE id = ?");
}

void EventDatabase::insertState(const StoreEntry& entry) {
    if (const auto* shelving = std::get_if<Shelving>(&entry)) {
        insertShelving(*shelving);
    } else if (const auto* unshelved = std::get_if<RemoveShelving>(&entry)) {
        removeShelving_.bind(1, unshelved->id).run();
    } else if (const auto* change = std::get_if<IncidentChange>(&entry)) {
        insertIncident(change->incident);
        for (const int64_t alarm : change->joined) {
            joinIncident_.bind(1, change->incident.id).bind(2, alarm).run();
        }
    } else if (const auto* over = std::get_if<RemoveIncident>(&entry)) {
        removeIncident_.bind(1, over->id).run();
    } else if (const auto* alarm = std::get_if<PassedAlarm>(&entry)) {
        insertPassed(*alarm);
    } else if (const auto* seen = std::get_if<RemovePassed>(&entry)) {
        removePassed_.bind(1, seen->id).run();
    }
}

void EventDatabase::insertShelving(const Shelving& shelving) {
    putShelving_.bind(1, shelving.id)
        .bind(2, alarmTypes()[shelving.type].name)
        .bind(3, groupOrNothing(shelving.about))
        .bind(4, storedTime(shelving.since))
        .bind(5, storedTime(shelving.until))
        .bind(6, shelving.by)
        .bind(7, shelving.remark)
        .bind(8, shelving.incident)
        .run();
}

void EventDatabase::insertIncident(const Incident& incident) {
    putIncident_.bind(1, incident.id)
        .bind(2, storedTime(incident.began))
        .bind(3, storedTime(incident.last))
        .bind(4, sharedKindName(incident.shared.kind))
        .bind(5, incident.shared.name)
        .bind(6, incident.shared.value)
        .bind(7, static_cast<int64_t>(incident.alarms))
        .bind(8, static_cast<int64_t>(incident.channels))
        .bind(9, static_cast<int64_t>(incident.covered))
        .bind(10, alarmTypes()[incident.firstType].name)
        .bind(11, groupOrNothing(incident.firstAbout))
        .bind(12, incident.firstText)
        .bind(13, incident.over ? std::optional(storedTime(*incident.over)) : std::nullopt)
        .run();
}

void EventDatabase::insertPassed(const PassedAlarm& alarm) {
    putPassed_.bind(1, alarm.id)
        .bind(2, alarmTypes()[alarm.type].name)
        .bind(3, groupOrNothing(alarm.about))
        .bind(4, severityName(alarm.severity))
        .bind(5, storedTime(alarm.raised))
        .bind(6, storedTime(alarm.cleared))
        .bind(7, static_cast<int64_t>(alarm.times))
        .bind(8, alarm.text)
        .bind(9, alarm.incident)
        .run();
}

void EventDatabase::carryState(const Carried& carried) {
    database_.execute("DELETE FROM shelved; DELETE FROM incidents; DELETE FROM passed;");
    for (const auto& [id, shelving] : carried.shelved) {
        insertShelving(shelving);
    }
    for (const auto& [id, incident] : carried.incidents) {
        insertIncident(incident);
    }
    for (const auto& [id, alarm] : carried.active) {
        if (alarm.incident != 0) {
            joinIncident_.bind(1, alarm.incident).bind(2, id).run();
        }
    }
    for (const auto& [id, alarm] : carried.passed) {
        insertPassed(alarm);
    }
}

// What is of a type that this version does not have is left out.
void EventDatabase::loadState(Carried& carried) {
    Statement members = database_.prepare("SELECT alarm_id, incident FROM active WHERE incident IS NOT NULL");
    while (members.step()) {
        if (const auto alarm = carried.active.find(members.integer(0)); alarm != carried.active.end()) {
            alarm->second.incident = members.integer(1);
        }
    }
    Statement shelved = database_.prepare(
        "SELECT id, alarm, channel_group, since, until_time, by_whom, remark, incident FROM shelved");
    while (shelved.step()) {
        if (const auto found = whatOfWhom(shelved.text(1), shelved.text(2))) {
            carried.shelved[shelved.integer(0)] = {.id = shelved.integer(0),
                                                   .type = found->type,
                                                   .about = found->about,
                                                   .since = wallTime(shelved.integer(3)),
                                                   .until = wallTime(shelved.integer(4)),
                                                   .by = shelved.text(5),
                                                   .remark = shelved.text(6),
                                                   .incident = shelved.integer(7)};
        }
    }
    Statement incidents = database_.prepare(
        "SELECT id, began, last, kind, name, value, alarms, channels, covered, first_alarm, first_group, "
        "first_text, over FROM incidents");
    while (incidents.step()) {
        const auto found = whatOfWhom(incidents.text(9), incidents.text(10));
        const auto kind = parseSharedKind(incidents.text(3));
        if (found && kind) {
            carried.incidents[incidents.integer(0)] = {
                .id = incidents.integer(0),
                .shared = {*kind, incidents.text(4), incidents.text(5)},
                .began = wallTime(incidents.integer(1)),
                .last = wallTime(incidents.integer(2)),
                .alarms = static_cast<std::size_t>(std::max<int64_t>(incidents.integer(6), 0)),
                .channels = static_cast<std::size_t>(std::max<int64_t>(incidents.integer(7), 0)),
                .covered = static_cast<std::size_t>(std::max<int64_t>(incidents.integer(8), 0)),
                .firstType = found->type,
                .firstAbout = found->about,
                .firstText = incidents.text(11)};
            if (!incidents.isNull(12)) {
                carried.incidents[incidents.integer(0)].over = wallTime(incidents.integer(12));
            }
        }
    }
    Statement passed = database_.prepare(
        "SELECT id, alarm, channel_group, severity, raised, cleared, times, text, incident FROM passed");
    while (passed.step()) {
        if (const auto found = whatOfWhom(passed.text(1), passed.text(2))) {
            carried.passed[passed.integer(0)] = {
                .id = passed.integer(0),
                .type = found->type,
                .about = found->about,
                .severity = parseSeverity(passed.text(3)).value_or(Severity::kWarning),
                .raised = wallTime(passed.integer(4)),
                .cleared = wallTime(passed.integer(5)),
                .times = static_cast<uint64_t>(std::max<int64_t>(passed.integer(6), 1)),
                .text = passed.text(7),
                .incident = passed.integer(8)};
        }
    }
}

}  // namespace station
