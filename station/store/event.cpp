#include "store/event.h"

#include <algorithm>
#include <array>

#include "store/eventKinds.h"

namespace station {

namespace {

constexpr std::array kKinds = std::to_array<EventKindNames>({
    {EventKind::kRaised, "raised", "Alarm raised"},
    {EventKind::kCleared, "cleared", "Alarm cleared"},
    {EventKind::kAcknowledged, "acknowledged", "Alarm acknowledged"},
    {EventKind::kHappened, "happened", "Happened"},
    {EventKind::kProbeCame, "probe_came", "Probe came"},
    {EventKind::kProbeWent, "probe_went", "Probe went"},
    {EventKind::kProbeRestarted, "probe_restarted", "Probe restarted"},
    {EventKind::kChannelAdded, "channel_added", "Channel added"},
    {EventKind::kChannelRemoved, "channel_removed", "Channel removed"},
    {EventKind::kChannelChanged, "channel_changed", "Channel changed"},
    {EventKind::kConfigurationRead, "configuration_read", "Configuration read"},
    {EventKind::kConfigurationRefused, "configuration_refused", "Configuration refused"},
    {EventKind::kMaintenanceSet, "maintenance_set", "Maintenance set"},
    {EventKind::kMaintenanceEnded, "maintenance_ended", "Maintenance ended"},
    {EventKind::kStationStarted, "station_started", "Station started"},
    {EventKind::kCue, "cue", "Cue"},
    {EventKind::kUnacknowledged, "unacknowledged", "Acknowledgement taken back"},
    {EventKind::kShelved, "shelved", "Alarm shelved"},
    {EventKind::kUnshelved, "unshelved", "Shelving ended"},
});

}  // namespace

std::span<const EventKindNames> eventKinds() {
    return kKinds;
}

std::string_view eventKindName(EventKind kind) {
    const auto* const found = std::ranges::find(kKinds, kind, &EventKindNames::kind);
    return found == kKinds.end() ? "unknown" : found->name;
}

std::optional<EventKind> parseEventKind(std::string_view name) {
    const auto* const found = std::ranges::find(kKinds, name, &EventKindNames::name);
    return found == kKinds.end() ? std::nullopt : std::optional(found->kind);
}

}  // namespace station
