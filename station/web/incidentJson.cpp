// Incidents, what is shelved, and what passed while nobody looked.
#include <algorithm>
#include <set>

#include "web/apiJson.h"
#include "web/jsonValues.h"

namespace station {

namespace {

void subjectMembers(JsonWriter& json, const StationState& state, std::size_t type, const Subject& about) {
    const auto group = about.group();
    const ChannelState* const channel = group ? state.find(*group) : nullptr;
    json.member("alarm", alarmTypes()[type].name).member("group", json::groupOrNull(group));
    json.member("channel", channel == nullptr ? std::string_view{} : channel->channel.name);
}

std::optional<int64_t> raisedId(const StationState& state, std::size_t type, const Subject& about) {
    const auto raised = std::ranges::find_if(
        state.alarms, [&](const Alarm& alarm) { return alarm.type == type && alarm.about == about; });
    return raised == state.alarms.end() ? std::nullopt : std::optional(raised->id);
}

std::optional<int64_t> incidentOrNull(int64_t incident) {
    return incident == 0 ? std::nullopt : std::optional(incident);
}

void passedList(JsonWriter& json, const StationState& state) {
    json.open('[');
    for (const PassedAlarm& alarm : state.passed) {
        json.open('{').member("id", alarm.id);
        subjectMembers(json, state, alarm.type, alarm.about);
        json.member("severity", severityName(alarm.severity)).member("raised", alarm.raised);
        json.member("cleared", alarm.cleared).member("times", alarm.times).member("text", alarm.text);
        json.member("incident", incidentOrNull(alarm.incident));
        json.close('}');
    }
    json.close(']');
}

template <typename List>
std::string document(const StationState& state, List list) {
    std::string text;
    JsonWriter json(text);
    list(json, state);
    return text;
}

}  // namespace

namespace json {

void incidentList(JsonWriter& json, const StationState& state) {
    json.open('[');
    for (const Incident& incident : state.incidents) {
        json.open('{').member("id", incident.id).name("shared").open('{');
        json.member("kind", sharedKindName(incident.shared.kind)).member("name", incident.shared.name);
        json.member("value", incident.shared.value).member("text", incident.shared.text()).close('}');
        json.member("began", incident.began).member("last", incident.last).member("over", incident.over);
        json.member("alarms", incident.alarms).member("active", incident.active);
        json.member("channels", incident.channels).member("covered", incident.covered);
        json.name("first").open('{').member("id", incident.id);
        subjectMembers(json, state, incident.firstType, incident.firstAbout);
        json.member("text", incident.firstText).close('}').close('}');
    }
    json.close(']');
}

void passedBrief(JsonWriter& json, const StationState& state) {
    std::set<Group> groups;
    for (const PassedAlarm& alarm : state.passed) {
        if (const auto group = alarm.about.group()) {
            groups.insert(*group);
        }
    }
    json.open('{').member("version", state.passedVersion).name("groups").open('[');
    for (const Group& group : groups) {
        json.value(group.text());
    }
    json.close(']').close('}');
}

}  // namespace json

std::string incidentsJson(const StationState& state) {
    return document(state, json::incidentList);
}

std::string passedJson(const StationState& state) {
    return document(state, passedList);
}

std::string shelvedJson(const StationState& state) {
    return document(state, [](JsonWriter& json, const StationState& of) {
        json.open('[');
        for (const Shelving& shelving : of.shelved) {
            json.open('{').member("id", shelving.id);
            subjectMembers(json, of, shelving.type, shelving.about);
            json.member("since", shelving.since).member("until", shelving.until).member("by", shelving.by);
            json.member("remark", shelving.remark).member("incident", incidentOrNull(shelving.incident));
            json.member("alarmId", raisedId(of, shelving.type, shelving.about)).close('}');
        }
        json.close(']');
    });
}

std::string handledJson(const Answer& answer) {
    std::string text;
    JsonWriter json(text);
    json.open('{').member("handled", answer.handled).name("alarms").open('[');
    for (const int64_t id : answer.alarms) {
        json.value(id);
    }
    json.close(']').close('}');
    return text;
}

}  // namespace station
