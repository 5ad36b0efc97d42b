// What commands do to many alarms at once: acknowledge, take that back, shelve, take off the shelf.
#include <algorithm>
#include <iterator>
#include <utility>

#include "alarmSelection.h"
#include "commandDesk.h"

namespace station {

namespace {

using Do = HandleAlarms::What;

}  // namespace

std::vector<Alarm> CommandDesk::shownAlarms() const {
    std::vector<Alarm> alarms = owner_.engine.active();
    owner_.desk.decorate(alarms);
    return alarms;
}

void CommandDesk::act(const HandleAlarms& action, const Now& now, const Reply& reply) {
    if (!action.which.alarm.empty() && !findAlarmType(action.which.alarm)) {
        return reply(
            refused(Refusal::Why::kInvalid, "alarm", "there is no alarm \"" + action.which.alarm + "\""));
    }
    if (action.what == Do::kShelve &&
        (action.until <= now.wall || action.until - now.wall > Shelf::kLongest)) {
        return reply(
            refused(Refusal::Why::kInvalid, "until", "until has to be later than now, by at most 31 days"));
    }
    const std::vector<Alarm> chosen = chosenAlarms(action.which, shownAlarms(), owner_.book.channels());
    if (action.what == Do::kAcknowledge || action.what == Do::kUnacknowledge) {
        acknowledge(action, chosen, now, reply);
    } else {
        shelve(action, chosen, now, reply);
    }
}

void CommandDesk::acknowledge(const HandleAlarms& action, const std::vector<Alarm>& chosen, const Now& now,
                              const Reply& reply) {
    const auto said = action.what == Do::kAcknowledge
                          ? std::optional(Acknowledgement{now.wall, action.by, action.remark})
                          : std::nullopt;
    std::vector<AlarmChange> changes;
    Answer answer;
    for (const Alarm& alarm : chosen) {
        owner_.engine.setAcknowledgement(alarm, said, changes);
    }
    for (const AlarmChange& change : changes) {
        answer.alarms.push_back(change.alarm.id);
    }
    if (said) {
        for (const PassedAlarm& passed : seen(action.which, chosen)) {
            if (owner_.desk.see(passed, action, owner_.book.channels(), now)) {
                answer.alarms.push_back(passed.id);
            }
        }
    }
    answer.handled = answer.alarms.size();
    if (answer.alarms.empty()) {
        return reply(nothingMeant(chosen.empty(), said ? "raised or passed" : "raised"));
    }
    effects_.alarmsChanged();
    effects_.publish(now);
    for (AlarmChange& change : changes) {
        if (!said) {
            change.text = action.remark;
            change.by = action.by;
        }
        owner_.desk.record(change, owner_.engine, owner_.book.channels(), nullptr, now);
    }
    owner_.desk.afterStored(whenStored(std::move(answer), reply));
}

// What passed that is meant, and what passed of alarms that are meant and raised again.
std::vector<PassedAlarm> CommandDesk::seen(const Selection& which, const std::vector<Alarm>& chosen) const {
    std::vector<Alarm> alarms;
    const std::vector<PassedAlarm> all = owner_.desk.passed().all();
    for (const PassedAlarm& one : all) {
        Alarm& alarm = alarms.emplace_back();
        alarm.id = one.id;
        alarm.type = one.type;
        alarm.about = one.about;
        alarm.incident = one.incident;
    }
    std::set<int64_t> ids;
    for (const Alarm& alarm : chosenAlarms(which, alarms, owner_.book.channels())) {
        ids.insert(alarm.id);
    }
    std::set<std::pair<Subject, std::size_t>> again;
    for (const Alarm& alarm : chosen) {
        again.emplace(alarm.about, alarm.type);
    }
    std::vector<PassedAlarm> seen;
    std::ranges::copy_if(all, std::back_inserter(seen), [&](const PassedAlarm& one) {
        return ids.contains(one.id) || again.contains({one.about, one.type});
    });
    return seen;
}

// Nothing was as `how` says that is meant, or nothing has to be done to it.
Answer CommandDesk::nothingMeant(bool nothingChosen, const char* how) const {
    if (!owner_.desk.loaded()) {
        return refused(Refusal::Why::kFailed, "",
                       "events.db could not be read yet: which alarms were raised before is not known");
    }
    return nothingChosen
               ? refused(Refusal::Why::kNotFound, "", std::string("none of the chosen alarms is ") + how)
               : Answer{};
}

std::set<std::pair<Subject, std::size_t>> CommandDesk::meant(const HandleAlarms& action,
                                                             const std::vector<Alarm>& chosen) const {
    std::set<std::pair<Subject, std::size_t>> meant;
    for (const Alarm& alarm : chosen) {
        meant.emplace(alarm.about, alarm.type);
    }
    const bool byChannels = !action.which.groups.empty() || !action.which.labels.empty();
    const auto type = findAlarmType(action.which.alarm);
    std::set<Group> groups;
    if (byChannels) {
        groups = chosenGroups(action.which, {}, owner_.book.channels());
    }
    if (type && !alarmTypes()[*type].ofSource) {
        for (const Group& group : groups) {
            meant.emplace(group, *type);
        }
    }
    const std::set<int64_t> ids(action.which.ids.begin(), action.which.ids.end());
    if (action.what == Do::kUnshelve) {  // what is not raised is known by what shelved it
        const int64_t incident = action.which.incident;
        for (const Shelving& shelving : owner_.desk.shelf().all()) {
            const auto group = shelving.about.group();
            const bool byIncident =
                incident != 0 && shelving.incident == incident && (!type || shelving.type == *type);
            if (ids.contains(shelving.id) || byIncident || (!type && group && groups.contains(*group))) {
                meant.emplace(shelving.about, shelving.type);
            }
        }
    }
    return meant;
}

void CommandDesk::shelve(const HandleAlarms& action, const std::vector<Alarm>& chosen, const Now& now,
                         const Reply& reply) {
    const auto& channels = owner_.book.channels();
    auto all = meant(action, chosen);
    const bool none = all.empty();
    if (action.what == Do::kUnshelve) {
        std::erase_if(all, [this](const auto& one) {
            return owner_.desk.shelf().find(one.first, one.second) == nullptr;
        });
    } else if (std::ranges::count_if(all,
                                     [this](const auto& one) {
                                         return owner_.desk.shelf().find(one.first, one.second) == nullptr;
                                     }) +
                   owner_.desk.shelf().size() >
               Shelf::kLimit) {
        return reply(refused(Refusal::Why::kConflict, "",
                             "too many alarms are shelved; take some off the shelf, or set maintenance"));
    }
    if (all.empty()) {
        return reply(nothingMeant(none, action.what == Do::kUnshelve ? "shelved" : "raised"));
    }
    Answer answer;
    answer.handled = all.size();
    for (const Alarm& alarm : chosen) {
        if (all.contains({alarm.about, alarm.type})) {
            answer.alarms.push_back(alarm.id);
        }
    }
    for (const auto& [about, type] : all) {
        if (action.what == Do::kShelve) {
            owner_.desk.shelve(about, type, action, channels, now);
        } else {
            owner_.desk.unshelve(about, type, action, channels, now);
        }
    }
    effects_.alarmsChanged();
    effects_.publish(now);
    owner_.desk.afterStored(whenStored(std::move(answer), reply));
}

}  // namespace station
