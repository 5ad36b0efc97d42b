#include "web/historyText.h"

#include <algorithm>
#include <cmath>

#include "alarms/alarmGuide.h"
#include "common/text.h"
#include "web/csv.h"
#include "web/jsonValues.h"

namespace station {

namespace {

const HistoryMetricName& nameOf(HistoryMetric metric) {
    return *std::ranges::find(historyMetrics(), metric, &HistoryMetricName::metric);
}

// Whether the alarm goes by what the history keeps under this name.
bool watches(const Measure* measure, std::string_view metric) {
    return measure != nullptr && (measure->name == metric || measure->insteadOf == metric);
}

void levelValue(JsonWriter& json, std::size_t place, const AlarmRule& rule) {
    const AlarmType& type = alarmTypes()[place];
    const bool counts = type.kind == AlarmKind::kCounter;
    const auto level = [&](double value) { return counts ? std::nullopt : std::optional(value); };
    const auto number = [&](uint64_t value) {
        return counts && value > 0 ? std::optional(value) : std::nullopt;
    };
    json.open('{').member("alarm", type.name).member("title", guideOf(place).title);
    json.member("severity", severityName(rule.severity)).member("kind", alarmKindName(type.kind));
    json.member("raise", level(rule.raiseLevel)).member("clear", level(rule.clearLevel));
    json.member("eitherWay", type.eitherWay).member("count", number(rule.count));
    json.member("errorSeconds", number(rule.errorSeconds));
    json.member("windowSeconds", counts ? std::optional(rule.window.count()) : std::nullopt).close('}');
}

// The levels that the channel is held against: of whoever judges it.
void levelsMember(JsonWriter& json, const StationState& state, const ChannelState* channel,
                  std::string_view metric) {
    json.name("levels").open('[');
    const bool known = channel != nullptr && state.configuration;
    const auto& profiles = known ? state.configuration->profiles : Profiles{};
    const auto profile = known ? profiles.find(channel->channel.profile) : profiles.end();
    for (std::size_t place = 0; profile != profiles.end() && place < alarmTypes().size(); ++place) {
        const AlarmType& type = alarmTypes()[place];
        using enum AlarmKind;
        if (type.kind != kHigh && type.kind != kLow && type.kind != kCounter) {
            continue;
        }
        const Measure* judging = watchedBy(type, channel->judgedBy);
        const Measure* measure = judging == nullptr ? type.measure : judging;
        const AlarmRules& rules = profile->second[place];
        const AlarmRule& rule =
            type.meter.measure != nullptr && measure == type.meter.measure ? rules.meter : rules;
        if (rule.enabled && watches(measure, metric)) {
            levelValue(json, place, rule);
        }
    }
    json.close(']');
}

// A number where all three are the same, null where nothing is known.
void pointValue(JsonWriter& json, const HistoryPoint& point) {
    if (!std::isfinite(point.mean)) {
        json.value(nullptr);
    } else if (point.minimum == point.mean && point.mean == point.maximum) {
        json.value(point.mean);
    } else {
        json.open('[').value(point.minimum).value(point.mean).value(point.maximum).close(']');
    }
}

}  // namespace

std::string historyJson(const HistoryAbout& about, const HistorySeries& series) {
    const HistoryMetricName& metric = nameOf(series.metric);
    std::string text;
    JsonWriter json(text);
    json.open('{').member("group", about.group.text()).member("metric", metric.name);
    json.member("unit", metric.unit).member("counter", metric.counter);
    json.member("resolution", about.resolution).name("fields").open('[');
    for (const std::string_view field : {"time", "minimum", "mean", "maximum"}) {
        json.value(field);
    }
    json.close(']').name("points").open('[');
    for (const HistoryPoint& point : series.points) {
        json.open('[').value(point.time).value(point.minimum).value(point.mean).value(point.maximum);
        json.close(']');
    }
    json.close(']').close('}');
    return text;
}

std::string historiesJson(const HistoryAbout& about, std::span<const HistorySeries> series,
                          const StationState& state) {
    const ChannelState* channel = state.find(about.group);
    std::string text;
    JsonWriter json(text);
    json.open('{').member("group", about.group.text()).member("resolution", about.resolution);
    json.name("times").open('[');
    if (!series.empty()) {
        for (const HistoryPoint& point : series.front().points) {
            json.value(point.time);
        }
    }
    json.close(']').name("series").open('[');
    for (const HistorySeries& one : series) {
        const HistoryMetricName& metric = nameOf(one.metric);
        json.open('{').member("metric", metric.name).member("title", metric.title);
        json.member("unit", metric.unit).member("counter", metric.counter);
        levelsMember(json, state, channel, metric.name);
        json.name("values").open('[');
        for (const HistoryPoint& point : one.points) {
            pointValue(json, point);
        }
        json.close(']').close('}');
    }
    json.close(']').close('}');
    return text;
}

std::string historyCsv(std::span<const HistorySeries> series) {
    std::string text;
    csvCell(text, "time");
    for (const HistorySeries& one : series) {
        const HistoryMetricName& metric = nameOf(one.metric);
        const std::string name =
            std::string(metric.name) + (metric.unit.empty() ? "" : " (" + std::string(metric.unit) + ")");
        for (const char* const field : {" minimum", " mean", " maximum"}) {
            csvCell(text, name + field);
        }
    }
    text += "\r\n";
    const std::size_t lines = series.empty() ? 0 : series.front().points.size();
    for (std::size_t line = 0; line < lines; ++line) {
        csvCell(text, rfc3339(series.front().points[line].time));
        for (const HistorySeries& one : series) {
            const HistoryPoint& point = one.points.at(line);
            for (const double value : {point.minimum, point.mean, point.maximum}) {
                csvPlain(text, std::isfinite(value) ? std::optional(value) : std::nullopt);
            }
        }
        text += "\r\n";
    }
    return text;
}

}  // namespace station
