// Values that stand in several answers.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "alarms/alarm.h"
#include "channels/channel.h"
#include "state.h"
#include "web/jsonWriter.h"

namespace station::json {

// An alarm with the name of its channel, which is empty for an alarm of the probe.
void alarmValue(JsonWriter& json, const Alarm& alarm, std::string_view channelName);
// How many there are of each severity.
void alarmCounts(JsonWriter& json, std::span<const Alarm> alarms);
void alarmTypesValue(JsonWriter& json);
// The object `machine`.
void machineValue(JsonWriter& json, const MachineState& machine);
// The object `meter`, or null where none is configured.
void meterValue(JsonWriter& json, const MeterState& meter);

inline std::optional<std::string_view> textOrNull(std::string_view text) {
    return text.empty() ? std::nullopt : std::optional(text);
}
inline std::optional<std::string> groupOrNull(const std::optional<Group>& group) {
    return group ? std::optional(group->text()) : std::nullopt;
}

}  // namespace station::json
