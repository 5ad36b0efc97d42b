// How events and windows stand in events.db.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "store/event.h"
#include "store/sqlite.h"

namespace station {

inline constexpr std::string_view kEventColumns =
    "id, time, kind, channel_group, channel, alarm, alarm_id, severity, text, by_whom, value, peak, "
    "duration_ms, silenced, source, until";

// A row of kEventColumns from that column on; nothing when its kind is unknown.
std::optional<Event> readEvent(const Statement& row, int first = 0);

// The groups of a window, separated by spaces; nothing for all channels.
std::optional<std::string> groupsText(const Maintenance& window);
// Sets the window's group or groups.
void readGroups(std::string_view text, Maintenance& window);

}  // namespace station
