// What happened, as it is stored, shown and delivered.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "alarms/alarm.h"

namespace station {

enum class EventKind : uint8_t {
    kRaised,
    kCleared,
    kAcknowledged,
    kHappened,  // an alarm of kind kEvent
    kProbeCame,
    kProbeWent,
    kProbeRestarted,
    kChannelAdded,
    kChannelRemoved,
    kChannelChanged,
    kConfigurationRead,
    kConfigurationRefused,
    kMaintenanceSet,
    kMaintenanceEnded,
    kStationStarted,
    kCue,  // SCTE 35, of a channel
    kUnacknowledged,
    kShelved,
    kUnshelved,
};
std::string_view eventKindName(EventKind kind);  // "raised", "cleared", "probe_came", "channel_added", ...
std::optional<EventKind> parseEventKind(std::string_view name);

struct Event {
    int64_t id = 0;  // grows by one with each event, also over restarts; given by the owner thread
    WallTime time{};
    EventKind kind = EventKind::kRaised;
    std::optional<Group> group{};
    std::string channel{};  // the channel's name at that time
    std::string alarm{};    // the alarm type's name, or empty
    int64_t alarmId = 0;    // id of the raising event; 0 where no alarm is meant
    std::optional<Severity> severity{};
    std::string text{};  // a sentence for an operator
    std::string by{};    // who acknowledged or changed, or empty
    std::optional<double> value{};
    std::optional<double> peak{};                         // cleared: the worst measure
    std::optional<std::chrono::milliseconds> duration{};  // cleared: how long it was raised
    bool silenced = false;            // shelved, or a maintenance window held: not delivered
    std::optional<Source> source{};   // of an alarm: whose figures judged it
    std::optional<WallTime> until{};  // shelved, maintenance set: when that ends
};

// Which events; what is not set does not restrict.
struct EventFilter {
    static constexpr std::size_t kTextBytes = 256;  // of `text`
    std::optional<Group> group{};
    std::optional<std::string> text{};  // a part of the channel's name or group, ASCII letters in any case
    std::optional<Severity> severity{};
    std::optional<EventKind> kind{};
    std::optional<std::size_t> alarm{};  // its type, an index into alarmTypes()
    std::optional<WallTime> since{};     // inclusive
    std::optional<WallTime> until{};     // exclusive
    std::optional<int64_t> before{};     // only ids below this, for the next page
    std::size_t limit = 100;             // 1 to 1000
};

// A time in which alarms of a channel, of several, or of all are recorded but not delivered.
struct Maintenance {
    static constexpr std::size_t kAboutBytes = 600;  // of `about`

    int64_t id = 0;  // of the event that set it
    WallTime from;
    WallTime until;
    std::optional<Group> group;  // one channel; nothing: those of `groups`, or all where there are none
    std::string remark;
    std::string by;
    std::vector<Group> groups{};  // several channels, in order
    std::string about{};          // what was chosen where several are meant: "site=north", "incident 17"

    bool ofAll() const {
        return !group && groups.empty();
    }
    // Nothing stands for the probe, the meter and this machine.
    bool covers(const std::optional<Group>& one) const {
        return ofAll() || (one && (group == one || std::ranges::binary_search(groups, *one)));
    }

    bool operator==(const Maintenance&) const = default;
};

}  // namespace station
