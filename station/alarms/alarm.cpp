#include "alarms/alarm.h"

#include <algorithm>
#include <array>

#include "common/text.h"

namespace station {

namespace {

constexpr std::array<std::string_view, 4> kSeverityNames = {"critical", "major", "minor", "warning"};
constexpr std::array<std::string_view, 6> kKindNames = {"high",      "low",     "counter",
                                                        "condition", "absence", "event"};
constexpr std::array<std::string_view, 4> kStatusNames = {"ok", "alarm", "waiting", "disabled"};

template <std::size_t Size>
std::optional<std::size_t> indexOf(const std::array<std::string_view, Size>& names, std::string_view name) {
    const auto found = std::ranges::find(names, name);
    return found == names.end() ? std::nullopt : std::optional<std::size_t>(found - names.begin());
}

}  // namespace

std::string_view severityName(Severity severity) {
    return kSeverityNames.at(static_cast<std::size_t>(severity));
}

std::optional<Severity> parseSeverity(std::string_view name) {
    const auto index = indexOf(kSeverityNames, name);
    return index ? std::optional(static_cast<Severity>(*index)) : std::nullopt;
}

std::string_view alarmKindName(AlarmKind kind) {
    return kKindNames.at(static_cast<std::size_t>(kind));
}

void Alarm::setText(std::string_view raise) {
    text = printable(toUtf8(raise), kTextBytes);
}

std::string_view channelStatusName(ChannelStatus status) {
    return kStatusNames.at(static_cast<std::size_t>(status));
}

}  // namespace station
