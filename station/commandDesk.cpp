#include "commandDesk.h"

#include <memory>
#include <utility>

#include "alarmSelection.h"
#include "common/log.h"

namespace station {

Answer refused(Refusal::Why why, std::string field, std::string text) {
    Answer answer;
    answer.refusal = Refusal{why, std::move(field), std::move(text)};
    return answer;
}

EventStore::Stored whenStored(Answer&& answer, const std::function<void(Answer&&)>& reply) {
    return [reply, result = std::move(answer)](const std::string& problem) mutable {
        if (!problem.empty()) {
            result = refused(Refusal::Why::kFailed, "",
                             "in effect, but not on the disk, which is tried again: " + problem);
        }
        reply(std::move(result));
    };
}

void CommandDesk::handle(Command&& command, const Now& now) {
    const auto answer = std::make_shared<Reply>(std::move(command.answer));
    std::visit(
        [&](const auto& action) {
            act(action, now, [answer](Answer&& result) { (*answer)(std::move(result)); });
        },
        command.action);
}

// Shows a changed channel set, has it saved, and answers when it is on the disk, or that it cannot be.
void CommandDesk::answerChannels(std::optional<Refusal>&& refusal, Answer&& answer, const Now& now,
                                 const Reply& reply) {
    if (refusal) {
        answer.refusal = std::move(refusal);
        reply(std::move(answer));
        return;
    }
    effects_.channelsChanged(now);
    effects_.publish(now);
    effects_.saveChannels(whenStored(std::move(answer), reply));
}

void CommandDesk::act(const PutChannel& action, const Now& now, const Reply& reply) {
    answerChannels(owner_.book.put(action, effects_.configuration()), {}, now, reply);
}

void CommandDesk::act(const DeleteChannel& action, const Now& now, const Reply& reply) {
    answerChannels(owner_.book.remove(action.group), {}, now, reply);
}

void CommandDesk::act(const ImportPlaylist& action, const Now& now, const Reply& reply) {
    Answer answer;
    auto refusal = owner_.book.import(action.text, answer);
    answerChannels(std::move(refusal), std::move(answer), now, reply);
}

void CommandDesk::act(const ClearCounters& /*action*/, const Now& /*now*/, const Reply& reply) {
    effects_.clearCounters();
    log(LogLevel::kNotice, "all counters start anew on demand");
    reply({});
}

void CommandDesk::act(const SetPassive& action, const Now& now, const Reply& reply) {
    effects_.setPassive(action.on);
    effects_.publish(now);
    reply({});
}

void CommandDesk::act(const SetIgmpLatency& action, const Now& /*now*/, const Reply& reply) {
    effects_.setIgmpLatency(action.latency);
    reply({});
}

void CommandDesk::act(const ReloadFiles& /*action*/, const Now& /*now*/, const Reply& reply) {
    const bool waits = effects_.reload([reply](const ReadResult& result) {
        Answer answer;
        answer.notes = result.refusals;
        answer.notes.insert(answer.notes.end(), result.notes.begin(), result.notes.end());
        if (result.configurationRefused) {
            answer.refusal =
                Refusal{Refusal::Why::kInvalid, "configuration",
                        result.refusals.front() +
                            "; the last good configuration stays in force, the status lists all mistakes"};
        }
        reply(std::move(answer));
    });
    if (!waits) {
        reply(refused(Refusal::Why::kBusy, "", "too many wait for the files to be read"));
    }
}

void CommandDesk::act(const AcknowledgeAlarm& action, const Now& now, const Reply& reply) {
    std::vector<AlarmChange> changes;
    if (!owner_.engine.acknowledge(action.id, {now.wall, action.by, action.remark}, changes)) {
        reply(owner_.desk.loaded()
                  ? refused(Refusal::Why::kNotFound, "id",
                            "no alarm with the id " + std::to_string(action.id) + " is raised")
                  : refused(Refusal::Why::kFailed, "",
                            "events.db could not be read yet: which alarms were raised before is not known"));
        return;
    }
    effects_.alarmsChanged();
    effects_.publish(now);
    for (const AlarmChange& change : changes) {
        owner_.desk.record(change, owner_.engine, owner_.book.channels(), nullptr, now,
                           whenStored({}, reply));
    }
}

namespace {

// Why a selection has no channel.
std::string whyNoChannel(const Selection& which) {
    if (!which.groups.empty()) {
        return "no channel has the group " + which.groups.front().text();
    }
    if (!which.labels.empty()) {
        return "no channel has " + std::string(which.labels.size() > 1 ? "all these labels" : "this label");
    }
    return which.incident != 0 ? "no alarm of the incident " + std::to_string(which.incident) + " is raised"
                               : "none of these alarms is raised";
}

}  // namespace

void CommandDesk::act(const SetMaintenance& action, const Now& now, const Reply& reply) {
    std::set<Group> chosen = chosenGroups(action.which, shownAlarms(), owner_.book.channels());
    if (action.group) {
        chosen.insert(*action.group);
    }
    Answer answer;
    if (action.until <= std::max(action.from, now.wall)) {
        answer =
            refused(Refusal::Why::kInvalid, "until", "until has to be later than from and later than now");
    } else if (action.group && !owner_.book.channels().contains(*action.group)) {
        answer =
            refused(Refusal::Why::kNotFound, "group", "no channel has the group " + action.group->text());
    } else if (chosen.empty() && !action.which.empty()) {
        answer = refused(Refusal::Why::kNotFound, "", whyNoChannel(action.which));
    } else if (owner_.desk.maintenance().size() >= EventDesk::kMaintenanceLimit ||
               owner_.desk.maintenanceGroups() + chosen.size() > EventDesk::kMaintenanceGroups) {
        answer =
            refused(Refusal::Why::kConflict, "", "there are too many maintenance windows; end some first");
    } else {
        const int64_t id = answer.id =
            owner_.desk.setMaintenance(action, owner_.book.channels(), now, chosen);
        effects_.alarmsChanged();
        effects_.publish(now);
        owner_.desk.store(id, whenStored(std::move(answer), reply));
        return;
    }
    reply(std::move(answer));
}

void CommandDesk::act(const EndMaintenance& action, const Now& now, const Reply& reply) {
    if (!owner_.desk.endMaintenance(action.id, owner_.book.channels(), now)) {
        reply(owner_.desk.loaded()
                  ? refused(Refusal::Why::kNotFound, "id",
                            "no maintenance window has the id " + std::to_string(action.id))
                  : refused(Refusal::Why::kFailed, "",
                            "events.db could not be read yet: which windows there are is not known"));
        return;
    }
    effects_.alarmsChanged();
    effects_.publish(now);
    owner_.desk.store(action.id, whenStored({}, reply));
}

void CommandDesk::act(const QueryHistory& action, const Now& now, const Reply& reply) {
    const auto channel = owner_.watch.channels().find(action.group);
    if (channel == owner_.watch.channels().end()) {
        reply(refused(Refusal::Why::kNotFound, "group", "no channel has the group " + action.group.text()));
        return;
    }
    Answer answer;
    for (const HistoryMetric metric : action.metrics) {
        answer.series.push_back(channel->second.history.points(metric, action.resolution, action.since, now));
    }
    reply(std::move(answer));
}

void CommandDesk::act(const QueryOverview& action, const Now& now, const Reply& reply) {
    Answer answer;
    for (const auto& [group, channel] : owner_.watch.channels()) {
        answer.overview.push_back(
            {group,
             channel.history.spark(historyMetric("bitRate"), action.sparkCells, action.sparkSeconds, now),
             channel.history.day(now)});
    }
    reply(std::move(answer));
}

}  // namespace station
