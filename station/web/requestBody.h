// What clients send to change something, taken apart.
#pragma once

#include <string_view>
#include <variant>

#include "state/commands.h"
#include "web/message.h"

namespace station {

inline constexpr std::size_t kRemarkLimit = 1024;  // bytes of UTF-8
inline constexpr std::string_view kNoBody = "{}";

// Each returns the action, or the answer that refuses the body: 400 when it is no JSON, 422 with the member
// that is unknown, missing, of another type or out of range.
using ParsedAction = std::variant<Action, Response>;
ParsedAction parsePutChannel(const Group& group, std::string_view body);
ParsedAction parseAcknowledge(int64_t id, std::string_view body);
// Of several alarms; for kShelve with the time.
ParsedAction parseHandle(HandleAlarms::What what, std::string_view body);
ParsedAction parseMaintenance(WallTime now, std::string_view body);
ParsedAction parsePassive(std::string_view body);
ParsedAction parseIgmpLatency(std::string_view body);
// For calls that take nothing.
ParsedAction parseNothing(Action action, std::string_view body);

}  // namespace station
