// Alarms: their types, the rules that raise and clear them, and the alarms themselves.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "channels/channel.h"
#include "common/clock.h"

namespace station {

enum class Severity : uint8_t { kCritical, kMajor, kMinor, kWarning };  // worst first
std::string_view severityName(Severity severity);                       // "critical", ...
std::optional<Severity> parseSeverity(std::string_view name);

// How a type's measure becomes an alarm.
enum class AlarmKind : uint8_t {
    kHigh,       // a level: raised above raise_level, cleared at or below clear_level
    kLow,        // a level: raised below raise_level, cleared at or above clear_level
    kCounter,    // increments of a counter: raised by `count` within window_s or by errorSeconds within it
    kCondition,  // true or false, such as no_signal
    kEvent,      // happens, is recorded and delivered, and is over at once: probe_restarted, ttl_changed
};
std::string_view alarmKindName(AlarmKind kind);

// What can be set for a type; every type has defaults for all of it.
struct AlarmRule {
    bool enabled = true;
    Severity severity = Severity::kWarning;
    double raiseLevel = 0;  // kHigh and kLow, in the type's unit
    double clearLevel = 0;
    std::chrono::milliseconds raiseDelay{0};  // how long the measure has to be wrong
    std::chrono::milliseconds clearDelay{0};  // how long it has to be right again
    uint64_t count = 1;                       // kCounter: so many in the window raise; 0 does not count them
    uint64_t errorSeconds =
        0;  // kCounter: so many seconds with an error in the window raise; 0 does not count them
    std::chrono::seconds window{10};  // kCounter, 1 s to 600 s

    bool operator==(const AlarmRule&) const = default;
};

// Where the measure comes from: the stream record's column, or what the station derives itself.
struct AlarmType {
    std::string_view name;     // "no_signal"
    std::string_view meaning;  // a sentence for an operator
    AlarmKind kind;
    std::string_view
        unit;  // of raise_level and clear_level, or of what is counted; empty where there is none
    std::string_view column;  // record column that it watches; empty where it is derived
    bool ofProbe;             // of the probe as a whole, not of a channel
    AlarmRule defaults;
};

// Every alarm that there is; an index into it identifies a type while the process runs.
std::span<const AlarmType> alarmTypes();
std::optional<std::size_t> findAlarmType(std::string_view name);

// The rules of one profile, one a type, complete.
using RuleSet = std::vector<AlarmRule>;
RuleSet defaultRules();

// Profiles by name; "default" is always there. Others start from "default".
using Profiles = std::map<std::string, RuleSet>;

struct Acknowledgement {
    WallTime time;
    std::string by;      // who said it, or empty
    std::string remark;  // may be empty

    bool operator==(const Acknowledgement&) const = default;
};

// One raised alarm.
struct Alarm {
    int64_t id = 0;  // of the event that raised it
    std::size_t type = 0;
    std::optional<Group> group;  // nothing for an alarm of the probe
    Severity severity = Severity::kWarning;
    WallTime raised;
    double value = 0;  // the measure at the last look; count in the window for counters
    double peak = 0;   // the worst so far: highest, or lowest for kLow
    std::optional<Acknowledgement> acknowledged;

    bool operator==(const Alarm&) const = default;
};

// What a channel is shown as. Waiting: nothing is known yet, since no packet of it came since it was told to
// the probe, and no alarm is raised either.
enum class ChannelStatus : uint8_t { kOk, kAlarm, kWaiting, kDisabled };
std::string_view channelStatusName(ChannelStatus status);  // "ok", "alarm", "waiting", "disabled"

}  // namespace station
