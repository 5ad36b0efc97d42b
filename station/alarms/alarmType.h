// The types of alarms, and the rules that raise and clear them.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "measures/measure.h"

namespace station {

// What a look at the probe found; what is not known leaves its alarm as it is.
struct ProbeLook {
    std::optional<bool> silent{};       // no snapshots come
    std::optional<bool> notAsking{};    // snapshots come, and no requests
    std::optional<bool> secondAsker{};  // somebody else asks as well
};

enum class Severity : uint8_t { kCritical, kMajor, kMinor, kWarning };  // worst first
std::string_view severityName(Severity severity);                       // "critical", ...
std::optional<Severity> parseSeverity(std::string_view name);

// How a type's measure becomes an alarm.
enum class AlarmKind : uint8_t {
    kHigh,       // a level: raised above raise_level, cleared at or below clear_level
    kLow,        // a level: raised below raise_level, cleared at or above clear_level
    kCounter,    // increments of a counter: raised by `count` within window_s or by errorSeconds within it
    kCondition,  // true or false, such as no_signal
    kAbsence,    // of a counter's increments: raised when none came for `window`, cleared by the next one
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
    std::chrono::seconds window{10};  // kCounter, 1 s to 600 s; kAbsence, to 86400 s

    bool operator==(const AlarmRule&) const = default;
};

// Of one type in a profile: by the source that its row names, and by the meter where that judges it too.
struct AlarmRules : AlarmRule {
    AlarmRule meter;

    AlarmRules() = default;
    AlarmRules(const AlarmRule& rule, const AlarmRule& byMeter) : AlarmRule(rule), meter(byMeter) {}
    bool operator==(const AlarmRules&) const = default;
};

// Whose figures judge what both the probe and the meter measure.
enum class AlarmSource : uint8_t {
    kAuto,   // the meter's of channels that it delivers, else the probe's
    kProbe,  // the probe's
};

// When a measure says nothing about the channel.
enum class Hold : uint8_t {
    kNever,
    kWithoutSignal,  // nothing arrives that could be good or bad
    kGap,            // counts what the interruption itself does, which no_signal tells: held until it is over
    kSettling,       // a statistic of arrivals, which an interruption spoils until its blocks are renewed
};

// All that there is to say of a type of alarm.
struct AlarmType {
    std::string_view name;     // "no_signal"
    std::string_view meaning;  // a sentence for an operator
    AlarmKind kind;
    std::optional<Source> ofSource{};  // of that as a whole; nothing: of a channel
    AlarmRule defaults;

    // What it watches: kHigh and kLow a level, kCounter a counter, kCondition and kEvent a state, which is
    // wrong unless it is 0, or happens when it changes. Null where others tell it. AlarmEngine derives
    // no_signal.
    const Measure* measure = nullptr;
    std::optional<Source> by{};  // who tells of it, where it has no measure and is of a channel
    bool eitherWay = false;      // kHigh: the value's distance from 0 counts
    std::string_view unit{};     // of raise_level and clear_level, or of what is counted; may be empty
    Hold hold = Hold::kNever;

    // The same alarm by the meter, where it judges too.
    struct ByMeter {
        const Measure* measure = nullptr;
        Hold hold = Hold::kNever;
        std::optional<AlarmRule> defaults{};  // where they differ
    } meter{};

    // kCondition: from a look at the probe.
    std::optional<bool> ProbeLook::*look = nullptr;

    // How it is told: kHigh, kLow and properties say what is measured ("bit rate"), kCounter what is counted,
    // one and many ("packet lost", "packets lost"), kCondition what is and what is again.
    std::string_view what{};
    std::string_view many{};
    std::string_view raised{};
    std::string_view cleared{};
};

// What it watches by a source; null where that does not judge it.
const Measure* watchedBy(const AlarmType& type, Source source);
// Judged by the meter's figures and no others.
bool needsMeter(const AlarmType& type);
// Likewise by pictures.
bool needsPictures(const AlarmType& type);

// Every alarm that there is; an index into it identifies a type while the process runs.
std::span<const AlarmType> alarmTypes();
std::optional<std::size_t> findAlarmType(std::string_view name);

// The rules of one profile, one a type, complete.
using RuleSet = std::vector<AlarmRules>;
RuleSet defaultRules();

// Profiles by name; "default" is always there. Others start from "default".
using Profiles = std::map<std::string, RuleSet>;

}  // namespace station
