// The state of one subject's alarms: from findings, over delays and windows, to changes.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "alarms/alarm.h"
#include "alarms/alarmEngine.h"

namespace station {

// What one look at a measure says. What is neither wrong nor right lies between the two levels, or is not
// known: then nothing changes and the delays begin anew.
struct Finding {
    enum class Look : uint8_t { kUnknown, kWrong, kBetween, kRight } look = Look::kUnknown;
    double value = 0;
    SteadyTime wrongSince{};                      // kWrong
    std::chrono::milliseconds moreRaiseDelay{0};  // beyond the rule's
    uint64_t errorSeconds = 0;                    // told with the alarm
};

struct RaisedAlarm {
    Alarm alarm;
    SteadyTime since;
    SteadyTime notClearedBefore;  // of restored counters, whose window is not known
};

struct Tracker {
    // Not raised: since when it is wrong. Raised: since when it is right. Events: the last one.
    std::optional<SteadyTime> since;
    std::unique_ptr<RaisedAlarm> raised;
    struct Errors {
        SteadyTime time;  // of the last ones in that second
        uint64_t count;
    };
    std::vector<Errors> errors;  // kCounter: one entry a second with errors, oldest first

    void addErrors(uint64_t count, SteadyTime now);
    void dropErrorsUntil(SteadyTime time);
    void forget();
};

// What alarms are about: the probe or a channel. Changes go to the end of `changes`.
struct Subject {
    std::optional<Group> group;
    std::shared_ptr<const RuleSet> rules;
    std::vector<Tracker> trackers{alarmTypes().size()};
    std::size_t raised = 0;  // trackers with an alarm

    const AlarmRule& rule(std::size_t type) const {
        return (*rules)[type];
    }
    // Rules from here on. REQUIRES: one a type.
    void takeRules(std::shared_ptr<const RuleSet> newRules, const Now& now,
                   std::vector<AlarmChange>& changes);
    // Clears whatever is raised and forgets what was seen.
    void clearAll(std::string_view why, const Now& now, std::vector<AlarmChange>& changes);
    // Raises or clears by what was found and the rule's delays.
    void judge(std::size_t type, const Finding& finding, const Now& now, std::vector<AlarmChange>& changes);
    // An event, unless it is disabled or comes within the rule's clear delay after the last one.
    void happen(std::size_t type, double value, std::string text, const Now& now,
                std::vector<AlarmChange>& changes);
    // Takes up an alarm that was raised before the station's start. False when its type is disabled, or it is
    // raised already.
    bool restore(const Alarm& alarm, const Now& now);

  private:
    void raise(std::size_t type, const Finding& finding, const Now& now, std::vector<AlarmChange>& changes);
    void clear(std::size_t type, std::string text, const Now& now, std::vector<AlarmChange>& changes);
};

Finding judgeLevel(AlarmKind kind, const AlarmRule& rule, std::optional<double> value, SteadyTime now);
Finding judgeCondition(std::optional<bool> wrong, SteadyTime since);
// Takes the errors into the window first.
Finding judgeCounter(const AlarmRule& rule, Tracker& tracker, uint64_t errors, SteadyTime now);

}  // namespace station
