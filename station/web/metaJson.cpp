// Names, units and meanings, so that nobody needs a second list.
#include <algorithm>
#include <array>
#include <set>
#include <type_traits>

#include "channels/channelAttributes.h"
#include "recordColumns.h"
#include "sarn/names.h"
#include "store/eventKinds.h"
#include "tr101290Checks.h"
#include "web/apiJson.h"
#include "web/jsonValues.h"

namespace station {

namespace {

void columnValue(JsonWriter& json, const records::Column& column) {
    json.open('{').member("name", column.name).member("type", records::typeName(column.type));
    json.member("unit", column.unit).member("meaning", column.meaning).close('}');
}

void columnsMember(JsonWriter& json) {
    json.name("columns").open('{').name("stream").open('[');
    for (const records::Column& column : records::kStreamColumns) {
        columnValue(json, column);
    }
    json.close(']').name("pid").open('[');
    // KP records have the columns of all kinds.
    for (const records::Column& column : records::kKnownPidColumns) {
        columnValue(json, column);
    }
    columnValue(json, records::kDescriptorTagsColumn);
    json.close(']').close('}');
}

void checkNames(JsonWriter& json) {
    json.name("checks").open('[');
    for (const records::Check& check : records::kChecks) {
        const auto column = std::ranges::find(records::kCounterColumns, check.column, &records::Column::name);
        json.open('{').member("column", check.column).member("number", check.number);
        json.member("name", check.column).member("priority", check.priority);
        json.member("meaning", column->meaning).close('}');
    }
    json.close(']');
}

template <typename Values, typename Name>
void namesMember(JsonWriter& json, std::string_view member, const Values& values, Name name) {
    json.name(member).open('[');
    for (const auto& value : values) {
        json.value(name(value));
    }
    json.close(']');
}

void historyMember(JsonWriter& json) {
    json.name("historyMetrics").open('[');
    for (const HistoryMetricName& metric : historyMetrics()) {
        json.open('{').member("name", metric.name).member("title", metric.title);
        json.member("meaning", metric.meaning).member("unit", metric.unit);
        json.member("counter", metric.counter).close('}');
    }
    json.close(']').name("stripCells").open('[');
    for (const auto& [cell, letter] :
         {std::pair(StripCell::kNoData, "."), std::pair(StripCell::kOk, "o"),
          std::pair(StripCell::kAlarm, "a"), std::pair(StripCell::kNoSignal, "n")}) {
        json.open('{').member("cell", letter).member("name", stripCellName(cell)).close('}');
    }
    json.close(']');
}

// What the page's form has of a channel.
void attributesMember(JsonWriter& json) {
    json.name("attributes").open('[');
    forEachChannelAttribute([&](const auto& attribute) {
        using Value = typename std::decay_t<decltype(attribute)>::Value;
        if (attribute.label.empty()) {
            return;
        }
        json.open('{').member("name", attribute.name).member("label", attribute.label);
        json.member("type", std::is_same_v<Value, std::string> ? "text"
                            : std::is_same_v<Value, Labels>    ? "labels"
                            : std::is_same_v<Value, bool>      ? "boolean"
                                                               : "number");
        json.member("choices", json::textOrNull(attribute.choices)).close('}');
    });
    json.close(']');
}

// Of the measures that the wall shows.
void wallMember(JsonWriter& json) {
    json.name("wallColumns").open('[');
    for (const Measure& measure : kMeasures) {
        const WallColumn& column = measure.wall;
        if (!column.field.empty()) {
            json.open('{').member("field", column.field).member("label", column.label);
            json.member("heading", column.heading).member("title", json::textOrNull(column.title));
            json.member("unit", measure.unit).member("counter", measure.kind == MeasureKind::kCounter);
            json.member("decimals", column.decimals < 0 ? std::nullopt : std::optional(column.decimals));
            json.close('}');
        }
    }
    json.close(']');
}

void numberedTexts(JsonWriter& json, std::string_view member, const char* (*text)(unsigned)) {
    constexpr unsigned kNumbers = 256;
    json.name(member).open('{');
    for (unsigned number = 0; number < kNumbers; ++number) {
        json.member(std::to_string(number), text(number));
    }
    json.close('}');
}

}  // namespace

std::string metaJson(const StationState& state) {
    std::string text;
    JsonWriter json(text);
    json.open('{').member("version", KESTOR_VERSION);
    json.member("instance",
                state.configuration ? std::optional(state.configuration->instance) : std::nullopt);
    columnsMember(json);
    checkNames(json);
    json.name("alarmTypes");
    json::alarmTypesValue(json);
    json.name("eventKinds").open('[');
    for (const EventKindNames& kind : eventKinds()) {
        json.open('{').member("name", kind.name).member("text", kind.title).close('}');
    }
    json.close(']');
    using enum Severity;
    using enum ChannelStatus;
    using enum Origin;
    namesMember(json, "severities", std::array{kCritical, kMajor, kMinor, kWarning}, severityName);
    namesMember(json, "states", std::array{kOk, kAlarm, kWaiting, kDisabled}, channelStatusName);
    namesMember(json, "origins", std::array{kRuntime, kConfig, kPlaylist}, originName);
    std::set<std::string_view> profiles = {kDefaultProfile};
    if (state.configuration) {
        for (const auto& profile : state.configuration->profiles) {
            profiles.insert(profile.first);
        }
    }
    namesMember(json, "profiles", profiles, [](std::string_view name) { return name; });
    historyMember(json);
    wallMember(json);
    attributesMember(json);
    numberedTexts(json, "streamTypes", GetTypeName);
    numberedTexts(json, "descriptorTags", GetDescriptorName);
    json.close('}');
    return text;
}

}  // namespace station
