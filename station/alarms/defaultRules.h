// By what the rules of the table of alarms (alarmTypes.cpp) are written: a function for each kind of alarm.
#pragma once

#include <chrono>
#include <cstdint>

#include "alarms/alarm.h"

namespace station {

struct Levels {
    double raise;
    double clear;
};
struct Delays {
    std::chrono::milliseconds raise;
    std::chrono::milliseconds clear;
};

constexpr AlarmRule level(Severity severity, Levels levels, Delays delays) {
    AlarmRule rule;
    rule.severity = severity;
    rule.raiseLevel = levels.raise;
    rule.clearLevel = levels.clear;
    rule.raiseDelay = delays.raise;
    rule.clearDelay = delays.clear;
    return rule;
}

constexpr AlarmRule condition(Severity severity, Delays delays) {
    return level(severity, {}, delays);
}

constexpr AlarmRule counter(Severity severity, uint64_t count, uint64_t errorSeconds,
                            std::chrono::seconds window) {
    AlarmRule rule;
    rule.severity = severity;
    rule.count = count;
    rule.errorSeconds = errorSeconds;
    rule.window = window;
    return rule;
}

constexpr AlarmRule absence(Severity severity, std::chrono::seconds window) {
    return counter(severity, 0, 0, window);
}

constexpr AlarmRule event(Severity severity, std::chrono::milliseconds apart) {
    return level(severity, {}, {std::chrono::milliseconds(0), apart});
}

constexpr AlarmRule off(AlarmRule rule) {
    rule.enabled = false;
    return rule;
}

}  // namespace station
