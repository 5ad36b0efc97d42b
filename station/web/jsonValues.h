// Values that stand in several answers.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "alarms/alarm.h"
#include "channels/channel.h"
#include "state/state.h"
#include "web/jsonWriter.h"

namespace station::json {

// An alarm with the name of its channel, which is empty for an alarm of the probe, and with the level that
// its profile has for it.
void alarmValue(JsonWriter& json, const StationState& state, const Alarm& alarm);
// How many there are of each severity.
void incidentList(JsonWriter& json, const StationState& state);
// Of which channels alarms passed, and the version of the list: it is long, and few look at it.
void passedBrief(JsonWriter& json, const StationState& state);
void alarmCounts(JsonWriter& json, std::span<const Alarm> alarms);
void alarmTypesValue(JsonWriter& json);
// The object `machine`.
void machineValue(JsonWriter& json, const MachineState& machine);
// The object `meter`, or null where none is configured.
void meterValue(JsonWriter& json, const MeterState& meter);

inline std::optional<std::string_view> textOrNull(std::string_view text) {
    return text.empty() ? std::nullopt : std::optional(text);
}
inline std::optional<std::string_view> severityOrNull(std::optional<Severity> severity) {
    return severity ? std::optional(severityName(*severity)) : std::nullopt;
}
inline std::optional<std::string> groupOrNull(const std::optional<Group>& group) {
    return group ? std::optional(group->text()) : std::nullopt;
}

}  // namespace station::json
