// Alarms, events and what is known of the past.
#include <algorithm>
#include <array>
#include <cmath>

#include "alarms/alarmGuide.h"
#include "common/text.h"
#include "measures/measures.h"
#include "web/apiJson.h"
#include "web/csv.h"
#include "web/jsonValues.h"

namespace station {

namespace json {

namespace {

const ChannelState* channelOf(const StationState& state, const Alarm& alarm) {
    const auto group = alarm.about.group();
    return group ? state.find(*group) : nullptr;
}

// The rule that the alarm is judged by; null where nobody knows it.
const AlarmRule* ruleOf(const StationState& state, const ChannelState* channel, const Alarm& alarm) {
    if (!state.configuration) {
        return nullptr;
    }
    const Profiles& profiles = state.configuration->profiles;
    const auto profile =
        profiles.find(channel == nullptr ? std::string(kDefaultProfile) : channel->channel.profile);
    if (profile == profiles.end()) {
        return nullptr;
    }
    const AlarmRules& rules = profile->second[alarm.type];
    const bool byMeter = alarm.source == Source::kMeter && alarmTypes()[alarm.type].meter.measure != nullptr;
    return byMeter ? &rules.meter : &rules;
}

// What the value is held against: a level, or a count within a window.
void levelMembers(JsonWriter& json, AlarmKind kind, const AlarmRule* rule) {
    std::optional<double> level;
    std::optional<int64_t> window;
    if (rule != nullptr && (kind == AlarmKind::kHigh || kind == AlarmKind::kLow)) {
        level = rule->raiseLevel;
    } else if (rule != nullptr && kind == AlarmKind::kCounter) {
        level = rule->count == 0 ? std::nullopt : std::optional(static_cast<double>(rule->count));
    }
    if (rule != nullptr && (kind == AlarmKind::kCounter || kind == AlarmKind::kAbsence)) {
        window = rule->window.count();
    }
    json.member("level", level).member("windowSeconds", window);
}

}  // namespace

void alarmValue(JsonWriter& json, const StationState& state, const Alarm& alarm) {
    const AlarmType& type = alarmTypes()[alarm.type];
    const ChannelState* channel = channelOf(state, alarm);
    const std::string_view channelName = channel == nullptr ? std::string_view{} : channel->channel.name;
    json.open('{').member("id", alarm.id).member("alarm", type.name).member("meaning", type.meaning);
    json.member("group", groupOrNull(alarm.about.group())).member("channel", channelName);
    json.member("severity", severityName(alarm.severity)).member("raised", alarm.raised);
    json.member("text", alarm.text).member("source", sourceName(alarm.source));
    json.member("value", alarm.value).member("peak", alarm.peak).member("unit", type.unit);
    levelMembers(json, type.kind, ruleOf(state, channel, alarm));
    json.name("acknowledged");
    if (alarm.acknowledged) {
        json.open('{').member("time", alarm.acknowledged->time).member("by", alarm.acknowledged->by);
        json.member("remark", alarm.acknowledged->remark).close('}');
    } else {
        json.value(nullptr);
    }
    json.name("shelved");
    if (alarm.shelved) {
        json.open('{').member("until", alarm.shelved->until).member("by", alarm.shelved->by);
        json.member("remark", alarm.shelved->remark).close('}');
    } else {
        json.value(nullptr);
    }
    json.member("incident", alarm.incident == 0 ? std::nullopt : std::optional(alarm.incident));
    json.close('}');
}

void alarmCounts(JsonWriter& json, std::span<const Alarm> alarms) {
    json.open('{');
    for (const Severity severity :
         {Severity::kCritical, Severity::kMajor, Severity::kMinor, Severity::kWarning}) {
        json.member(severityName(severity), std::ranges::count(alarms, severity, &Alarm::severity));
    }
    json.close('}');
}

namespace {

void defaultsMember(JsonWriter& json, AlarmKind kind, const AlarmRule& rule) {
    const auto seconds = [](auto duration) { return std::chrono::duration<double>(duration).count(); };
    json.name("defaults").open('{').member("enabled", rule.enabled);
    json.member("severity", severityName(rule.severity));
    if (kind == AlarmKind::kHigh || kind == AlarmKind::kLow) {
        json.member("raise_level", rule.raiseLevel).member("clear_level", rule.clearLevel);
    }
    if (kind == AlarmKind::kCounter) {
        json.member("count", rule.count).member("error_seconds", rule.errorSeconds);
        json.member("window_s", rule.window.count());
    }
    if (kind != AlarmKind::kEvent) {
        json.member("raise_delay_s", seconds(rule.raiseDelay));
    }
    json.member("clear_delay_s", seconds(rule.clearDelay)).close('}');
}

}  // namespace

void alarmTypesValue(JsonWriter& json) {
    json.open('[');
    for (const AlarmType& type : alarmTypes()) {
        const AlarmGuide& guide = guideOf(static_cast<std::size_t>(&type - alarmTypes().data()));
        json.open('{').member("name", type.name).member("title", guide.title);
        json.member("meaning", type.meaning).name("look").open('[');
        for (const std::string_view look : guide.look) {
            json.value(look);
        }
        json.close(']');
        json.member("kind", alarmKindName(type.kind)).member("unit", type.unit);
        json.member("column", type.measure != nullptr ? std::optional(type.measure->name) : std::nullopt)
            .member("ofProbe", type.ofSource.has_value());
        defaultsMember(json, type.kind, type.defaults);
        json.name("meter");
        if (type.meter.measure != nullptr) {
            json.open('{').member("column", type.meter.measure->name);
            defaultsMember(json, type.kind, type.meter.defaults.value_or(type.defaults));
            json.close('}');
        } else {
            json.value(nullptr);
        }
        json.close('}');
    }
    json.close(']');
}

}  // namespace json

namespace {

void alarmList(JsonWriter& json, const StationState& state) {
    json.open('[');
    for (const Alarm& alarm : state.alarms) {
        json::alarmValue(json, state, alarm);
    }
    json.close(']');
}

std::optional<int64_t> idOrNull(int64_t id) {
    return id == 0 ? std::nullopt : std::optional(id);
}

}  // namespace

std::string alarmsJson(const StationState& state) {
    std::string text;
    JsonWriter json(text);
    alarmList(json, state);
    return text;
}

std::string alarmJson(const StationState& state, const Alarm& alarm) {
    std::string text;
    JsonWriter json(text);
    json::alarmValue(json, state, alarm);
    return text;
}

std::string streamAlarmJson(const StationState& state) {
    std::string text;
    JsonWriter json(text);
    json.open('{').name("alarms");
    alarmList(json, state);
    json.name("incidents");
    json::incidentList(json, state);
    json.name("passed");
    json::passedBrief(json, state);
    json.close('}');
    return text;
}

std::string alarmTypesJson() {
    std::string text;
    JsonWriter json(text);
    json::alarmTypesValue(json);
    return text;
}

std::string eventsJson(std::span<const Event> events) {
    std::string text;
    JsonWriter json(text);
    json.open('[');
    for (const Event& event : events) {
        json.open('{').member("id", event.id).member("time", event.time);
        json.member("kind", eventKindName(event.kind)).member("group", json::groupOrNull(event.group));
        json.member("channel", event.channel).member("alarm", json::textOrNull(event.alarm));
        json.member("alarmId", idOrNull(event.alarmId))
            .member("severity", json::severityOrNull(event.severity));
        json.member("text", event.text).member("by", event.by).member("value", event.value);
        json.member("peak", event.peak);
        json.member("durationMs", event.duration ? std::optional(event.duration->count()) : std::nullopt);
        json.member("silenced", event.silenced);
        json.member("source", event.source ? std::optional(sourceName(*event.source)) : std::nullopt);
        json.member("until", event.until);
        json.close('}');
    }
    json.close(']');
    return text;
}

std::string eventsCsv(std::span<const Event> events) {
    std::string text =
        "id,time,kind,group,channel,alarm,alarmId,severity,text,by,value,peak,durationMs,silenced,source,"
        "until\r\n";
    for (const Event& event : events) {
        csvPlain(text, std::optional(event.id));
        csvCell(text, rfc3339(event.time));
        csvCell(text, eventKindName(event.kind));
        csvCell(text, json::groupOrNull(event.group).value_or(""));
        csvCell(text, event.channel);
        csvCell(text, event.alarm);
        csvPlain(text, idOrNull(event.alarmId));
        csvCell(text, json::severityOrNull(event.severity).value_or(""));
        csvCell(text, event.text);
        csvCell(text, event.by);
        csvPlain(text, event.value);
        csvPlain(text, event.peak);
        csvPlain(text, event.duration ? std::optional(event.duration->count()) : std::nullopt);
        csvPlain(text, std::optional(event.silenced));
        csvCell(text, event.source ? sourceName(*event.source) : "");
        csvCell(text, event.until ? rfc3339(*event.until) : "");
        text += "\r\n";
    }
    return text;
}

namespace {

// What five minutes each were, as a text of a letter a cell, and how many seconds of which were bad.
void cellMembers(JsonWriter& json, std::string_view name, std::string_view bad,
                 std::span<const DayCell> cells) {
    constexpr std::string_view kCells = ".oan";  // by StripCell
    std::string text;
    for (const DayCell& cell : cells) {
        text += kCells.at(static_cast<std::size_t>(cell.worst));
    }
    json.member(name, text).name(bad).open('[');
    for (std::size_t i = 0; i < cells.size(); ++i) {
        if (cells[i].badSeconds > 0) {
            json.open('[').value(i).value(cells[i].badSeconds).close(']');
        }
    }
    json.close(']');
}

}  // namespace

std::string overviewJson(WallTime time, const QueryOverview& query, std::span<const OverviewRow> rows) {
    std::string text;
    JsonWriter json(text);
    json.open('{').member("time", time).member("cells", query.sparkCells);
    json.member("seconds", query.sparkSeconds).name("channels").open('[');
    for (const OverviewRow& row : rows) {
        json.open('{').member("group", row.group.text()).name("spark").open('[');
        for (const float value : row.spark) {
            json.value(std::isfinite(value) ? std::optional(std::llround(value)) : std::nullopt);
        }
        json.close(']');
        cellMembers(json, "strip", "stripBad", std::span(row.day).last<kStripCells>());
        if (query.day) {
            cellMembers(json, "day", "bad", row.day);
        }
        json.close('}');
    }
    json.close(']').close('}');
    return text;
}

std::string importJson(const Answer& answer) {
    std::string text;
    JsonWriter json(text);
    json.open('{').member("added", answer.added).member("changed", answer.changed);
    json.member("skipped", answer.skipped).name("notes").open('[');
    for (const std::string& note : answer.notes) {
        json.value(note);
    }
    json.close(']').close('}');
    return text;
}

}  // namespace station
