// Alarms, events and what is known of the past.
#include <algorithm>
#include <array>
#include <cmath>

#include "alarms/measures.h"
#include "common/text.h"
#include "web/apiJson.h"
#include "web/jsonValues.h"

namespace station {

namespace json {

void alarmValue(JsonWriter& json, const Alarm& alarm, std::string_view channelName) {
    const AlarmType& type = alarmTypes()[alarm.type];
    json.open('{').member("id", alarm.id).member("alarm", type.name).member("meaning", type.meaning);
    json.member("group", groupOrNull(alarm.group)).member("channel", channelName);
    json.member("severity", severityName(alarm.severity)).member("raised", alarm.raised);
    json.member("text", alarm.text);
    json.member("value", alarm.value).member("peak", alarm.peak).member("unit", type.unit);
    json.name("acknowledged");
    if (alarm.acknowledged) {
        json.open('{').member("time", alarm.acknowledged->time).member("by", alarm.acknowledged->by);
        json.member("remark", alarm.acknowledged->remark).close('}');
    } else {
        json.value(nullptr);
    }
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

void alarmTypesValue(JsonWriter& json) {
    const auto seconds = [](auto duration) { return std::chrono::duration<double>(duration).count(); };
    json.open('[');
    for (const AlarmType& type : alarmTypes()) {
        const AlarmRule& rule = type.defaults;
        json.open('{').member("name", type.name).member("meaning", type.meaning);
        json.member("kind", alarmKindName(type.kind)).member("unit", type.unit);
        json.member("column", type.measure != nullptr ? std::optional(type.measure->name) : std::nullopt)
            .member("ofProbe", type.ofProbe);
        json.name("defaults").open('{').member("enabled", rule.enabled);
        json.member("severity", severityName(rule.severity));
        if (type.kind == AlarmKind::kHigh || type.kind == AlarmKind::kLow) {
            json.member("raise_level", rule.raiseLevel).member("clear_level", rule.clearLevel);
        }
        if (type.kind == AlarmKind::kCounter) {
            json.member("count", rule.count).member("error_seconds", rule.errorSeconds);
            json.member("window_s", rule.window.count());
        }
        if (type.kind != AlarmKind::kEvent) {
            json.member("raise_delay_s", seconds(rule.raiseDelay));
        }
        json.member("clear_delay_s", seconds(rule.clearDelay));
        json.close('}').close('}');
    }
    json.close(']');
}

}  // namespace json

namespace {

std::string_view channelName(const StationState& state, const Alarm& alarm) {
    const ChannelState* channel = alarm.group ? state.find(*alarm.group) : nullptr;
    return channel == nullptr ? std::string_view{} : channel->channel.name;
}

void alarmList(JsonWriter& json, const StationState& state) {
    json.open('[');
    for (const Alarm& alarm : state.alarms) {
        json::alarmValue(json, alarm, channelName(state, alarm));
    }
    json.close(']');
}

std::optional<std::string_view> severityText(std::optional<Severity> severity) {
    return severity ? std::optional(severityName(*severity)) : std::nullopt;
}

std::optional<int64_t> idOrNull(int64_t id) {
    return id == 0 ? std::nullopt : std::optional(id);
}

void csvCell(std::string& text, std::string_view cell) {
    constexpr std::string_view kFormulaStarts = "=+-@\t\r";
    const bool formula = !cell.empty() && kFormulaStarts.find(cell.front()) != std::string_view::npos;
    text.append(text.empty() || text.back() == '\n' ? "\"" : ",\"").append(formula ? "'" : "");
    for (const char character : cell) {
        text.append(character == '"' ? 2 : 1, character);
    }
    text += '"';
}

template <typename Value>
void csvPlain(std::string& text, const std::optional<Value>& value) {
    std::string plain;
    if (value) {
        JsonWriter(plain).value(*value);
    }
    text.append(text.empty() || text.back() == '\n' ? "" : ",").append(plain == "null" ? "" : plain);
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
    json::alarmValue(json, alarm, channelName(state, alarm));
    return text;
}

std::string streamAlarmJson(const StationState& state) {
    std::string text;
    JsonWriter json(text);
    json.open('{').name("alarms");
    alarmList(json, state);
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
        json.member("alarmId", idOrNull(event.alarmId)).member("severity", severityText(event.severity));
        json.member("text", event.text).member("by", event.by).member("value", event.value);
        json.member("peak", event.peak);
        json.member("durationMs", event.duration ? std::optional(event.duration->count()) : std::nullopt);
        json.member("silenced", event.silenced).close('}');
    }
    json.close(']');
    return text;
}

std::string eventsCsv(std::span<const Event> events) {
    std::string text =
        "id,time,kind,group,channel,alarm,alarmId,severity,text,by,value,peak,durationMs,silenced\r\n";
    for (const Event& event : events) {
        csvPlain(text, std::optional(event.id));
        csvCell(text, rfc3339(event.time));
        csvCell(text, eventKindName(event.kind));
        csvCell(text, json::groupOrNull(event.group).value_or(""));
        csvCell(text, event.channel);
        csvCell(text, event.alarm);
        csvPlain(text, idOrNull(event.alarmId));
        csvCell(text, severityText(event.severity).value_or(""));
        csvCell(text, event.text);
        csvCell(text, event.by);
        csvPlain(text, event.value);
        csvPlain(text, event.peak);
        csvPlain(text, event.duration ? std::optional(event.duration->count()) : std::nullopt);
        csvPlain(text, std::optional(event.silenced));
        text += "\r\n";
    }
    return text;
}

std::string historyJson(const AskHistory& asked, std::span<const HistoryPoint> points) {
    const auto metric = std::ranges::find(historyMetrics(), asked.metric, &HistoryMetricName::metric);
    std::string text;
    JsonWriter json(text);
    json.open('{').member("group", asked.group.text()).member("metric", metric->name);
    json.member("unit", metric->unit).member("counter", metric->counter);
    json.member("resolution", asked.resolution).name("fields").open('[');
    for (const std::string_view field : {"time", "minimum", "mean", "maximum"}) {
        json.value(field);
    }
    json.close(']').name("points").open('[');
    for (const HistoryPoint& point : points) {
        json.open('[').value(point.time).value(point.minimum).value(point.mean).value(point.maximum);
        json.close(']');
    }
    json.close(']').close('}');
    return text;
}

std::string overviewJson(WallTime time, const AskOverview& asked, std::span<const OverviewRow> rows) {
    constexpr std::string_view kCells = ".oan";  // by StripCell
    std::string text;
    JsonWriter json(text);
    json.open('{').member("time", time).member("cells", asked.sparkCells);
    json.member("seconds", asked.sparkSeconds).name("channels").open('[');
    for (const OverviewRow& row : rows) {
        json.open('{').member("group", row.group.text()).name("spark").open('[');
        for (const float value : row.spark) {
            json.value(std::isfinite(value) ? std::optional(std::llround(value)) : std::nullopt);
        }
        std::string strip;
        for (const StripCell cell : row.strip) {
            strip += kCells.at(static_cast<std::size_t>(cell));
        }
        json.close(']').member("strip", strip).close('}');
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
