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
    SteadyTime lookedAt;          // counters: the last look, whatever it knew
};

// Events of a type that wait until the rule's clear delay after the last one has passed, to be told as one.
struct GatheredEvents {
    static constexpr std::size_t kTextBytes = Alarm::kTextBytes;  // of `text`; what goes beyond is counted

    double value = 0;
    std::string text{};
    uint64_t leftOut = 0;

    // What counts something is summed up; of a property the latest value stands.
    void add(double more, bool counts, std::string_view sentence);
    std::string all() const;
};

struct Tracker {
    // Not raised: since when it is wrong. Raised: since when it is right. Events: the last one.
    std::optional<SteadyTime> since;
    std::unique_ptr<RaisedAlarm> raised;
    struct Errors {
        SteadyTime time;  // of the last ones in that second
        uint64_t count;
        uint64_t seconds;  // with errors; where the source does not count them: this one
    };
    std::vector<Errors> errors;  // kCounter: one entry a second with errors, oldest first
    std::unique_ptr<GatheredEvents> gathered;

    // `seconds` by the source's count; nothing where it has none.
    void addErrors(uint64_t count, std::optional<uint64_t> seconds, SteadyTime now);
    void dropErrorsUntil(SteadyTime time);
    // The time since the last look is none of the window's. REQUIRES: the alarm is raised.
    void holdWindow(SteadyTime now);
    void forget();
};

// The alarms of a subject. Changes go to the end of `changes`.
struct SubjectAlarms {
    Subject about;
    std::shared_ptr<const RuleSet> rules{};
    std::vector<Tracker> trackers{alarmTypes().size()};
    std::size_t raised = 0;            // trackers with an alarm
    std::size_t gathering = 0;         // trackers with events that wait, at most
    Source judgedBy = Source::kProbe;  // what more than one can judge

    // By which it is judged now.
    const AlarmRule& rule(std::size_t type) const {
        return alarmTypes()[type].meter.measure != nullptr && judgedBy == Source::kMeter
                   ? (*rules)[type].meter
                   : (*rules)[type];
    }
    // By whose figures it is judged now.
    Source sourceOf(std::size_t type) const;
    // Another source judges from here on, which raises and clears nothing: what is raised stays until its
    // measure there says that it is over, delays and windows begin anew.
    void judgeBy(Source source, const Now& now);
    // Rules from here on. REQUIRES: one a type. `meterJudges`: the meter may judge what the probe may as
    // well.
    void takeRules(std::shared_ptr<const RuleSet> newRules, bool meterJudges, const Now& now,
                   std::vector<AlarmChange>& changes);
    // Clears whatever is raised and forgets what was seen.
    void clearAll(std::string_view why, const Now& now, std::vector<AlarmChange>& changes);
    // Raises or clears by what was found and the rule's delays.
    void judge(std::size_t type, const Finding& finding, const Now& now, std::vector<AlarmChange>& changes);
    // Nothing is known of a counter since the last look: what is raised needs a window of known time to
    // clear.
    void holdCounter(std::size_t type, const Now& now, std::vector<AlarmChange>& changes);
    // An event, unless it is disabled. What comes within the rule's clear delay after the last one is told
    // behind it.
    void happen(std::size_t type, double value, std::string_view text, const Now& now,
                std::vector<AlarmChange>& changes);
    // Tells the events whose delay has passed.
    void tellGathered(const Now& now, std::vector<AlarmChange>& changes);
    // Takes up an alarm that was raised before the station's start. False when its type is disabled for
    // all who may judge it, or it is raised already.
    bool restore(const Alarm& alarm, bool meterJudges, const Now& now);
    // REQUIRES: it is raised.
    void clear(std::size_t type, std::string text, const Now& now, std::vector<AlarmChange>& changes);

  private:
    void raise(std::size_t type, const Finding& finding, const Now& now, std::vector<AlarmChange>& changes);
};

Finding judgeLevel(AlarmKind kind, const AlarmRule& rule, std::optional<double> value, SteadyTime now);
Finding judgeCondition(std::optional<bool> wrong, SteadyTime since);
// Takes the errors into the window first. What goes on counts once in each further second.
Finding judgeCounter(const AlarmRule& rule, Tracker& tracker, uint64_t errors, SteadyTime now,
                     std::optional<uint64_t> seconds = {});

}  // namespace station
