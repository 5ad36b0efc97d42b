#include "alarms/alarmTexts.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <utility>

namespace station {

namespace {

using namespace std::chrono_literals;

std::string number(double value) {
    std::array<char, 48> text{};
    // Whole numbers as such; of the rest what an operator can use.
    const bool whole = value == std::floor(value) && std::abs(value) < 1e15;
    std::snprintf(text.data(), text.size(), whole ? "%.0f" : "%.4g", value);
    return text.data();
}

// "12.3 s", "20 min 36 s", "3 h 5 min", "4 d 2 h".
std::string lasted(std::chrono::milliseconds time) {
    constexpr std::array<std::pair<std::chrono::seconds, const char*>, 4> kUnits = {
        {{std::chrono::days(1), "d"},
         {std::chrono::hours(1), "h"},
         {std::chrono::minutes(1), "min"},
         {1s, "s"}}};
    std::array<char, 48> text{};
    if (time < std::chrono::minutes(2)) {
        std::snprintf(text.data(), text.size(), "%.1f s", std::chrono::duration<double>(time).count());
        return text.data();
    }
    const auto whole = std::chrono::floor<std::chrono::seconds>(time);
    std::size_t unit = 0;
    while (whole < kUnits.at(unit).first) {
        ++unit;
    }
    const auto& [large, name] = kUnits.at(unit);
    const auto& [small, part] = kUnits.at(unit + 1);
    return std::to_string(whole / large) + " " + name + " " + std::to_string(whole % large / small) + " " +
           part;
}

std::string withUnit(double value, std::string_view unit) {
    const bool several = unit == "packet" && value != 1;
    return number(value) + (unit.empty() ? "" : " ") + std::string(unit) + (several ? "s" : "");
}

std::string counted(const AlarmType& type, double count) {
    return number(count) + " " + std::string(count == 1 ? type.what : type.many);
}

}  // namespace

std::string raisedText(std::size_t type, const AlarmRule& rule, double value, uint64_t errorSeconds) {
    const AlarmType& alarmType = alarmTypes()[type];
    switch (alarmType.kind) {
        case AlarmKind::kHigh:
        case AlarmKind::kLow:
            return std::string(alarmType.what) + " " + withUnit(value, alarmType.unit) +
                   (alarmType.kind == AlarmKind::kHigh ? " is above " : " is below ") +
                   withUnit(rule.raiseLevel, alarmType.unit);
        case AlarmKind::kCounter: {
            std::string text = counted(alarmType, value);
            if (errorSeconds > 1) {
                text += " in " + std::to_string(errorSeconds) + " seconds";
            }
            return text + " within " + std::to_string(rule.window.count()) + " s";
        }
        case AlarmKind::kAbsence:
            return "no " + std::string(alarmType.what) + " for " + number(value) + " s";
        case AlarmKind::kCondition:
            return std::string(alarmType.raised);
        case AlarmKind::kEvent:
            break;
    }
    return std::string(alarmType.meaning);
}

std::string clearedText(std::size_t type, const AlarmRule& rule, const Alarm& alarm,
                        std::chrono::milliseconds duration) {
    const AlarmType& alarmType = alarmTypes()[type];
    const std::string after = " after " + lasted(duration);
    switch (alarmType.kind) {
        case AlarmKind::kHigh:
        case AlarmKind::kLow:
            return std::string(alarmType.what) + " is " + withUnit(alarm.value, alarmType.unit) + after +
                   ", was " + withUnit(alarm.peak, alarmType.unit) + " at worst";
        case AlarmKind::kCounter:
            return counted(alarmType, alarm.value) + " within " + std::to_string(rule.window.count()) + " s" +
                   after + ", " + number(alarm.peak) + " at worst";
        case AlarmKind::kAbsence:
            return "a " + std::string(alarmType.what) + " came" + after;
        case AlarmKind::kCondition:
            return std::string(alarmType.cleared) + after;
        case AlarmKind::kEvent:
            break;
    }
    return {};
}

std::string changedText(std::size_t type, int before, int after) {
    return std::string(alarmTypes()[type].what) + " changed from " + std::to_string(before) + " to " +
           std::to_string(after);
}

}  // namespace station
