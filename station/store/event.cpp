#include "store/event.h"

#include <algorithm>
#include <array>
#include <utility>

namespace station {

namespace {

constexpr std::array<std::pair<EventKind, std::string_view>, 15> kKindNames = {{
    {EventKind::kRaised, "raised"},
    {EventKind::kCleared, "cleared"},
    {EventKind::kAcknowledged, "acknowledged"},
    {EventKind::kHappened, "happened"},
    {EventKind::kProbeCame, "probe_came"},
    {EventKind::kProbeWent, "probe_went"},
    {EventKind::kProbeRestarted, "probe_restarted"},
    {EventKind::kChannelAdded, "channel_added"},
    {EventKind::kChannelRemoved, "channel_removed"},
    {EventKind::kChannelChanged, "channel_changed"},
    {EventKind::kConfigurationRead, "configuration_read"},
    {EventKind::kConfigurationRefused, "configuration_refused"},
    {EventKind::kMaintenanceSet, "maintenance_set"},
    {EventKind::kMaintenanceEnded, "maintenance_ended"},
    {EventKind::kStationStarted, "station_started"},
}};

}  // namespace

std::string_view eventKindName(EventKind kind) {
    const auto found = std::ranges::find(kKindNames, kind, &std::pair<EventKind, std::string_view>::first);
    return found == kKindNames.end() ? "unknown" : found->second;
}

std::optional<EventKind> parseEventKind(std::string_view name) {
    const auto found = std::ranges::find(kKindNames, name, &std::pair<EventKind, std::string_view>::second);
    return found == kKindNames.end() ? std::nullopt : std::optional(found->first);
}

}  // namespace station
