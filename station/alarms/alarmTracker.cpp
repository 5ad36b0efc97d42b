#include "alarms/alarmTracker.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "alarms/alarmTexts.h"

namespace station {

namespace {

using std::chrono::milliseconds;

milliseconds toMilliseconds(SteadyTime::duration time) {
    return std::chrono::duration_cast<milliseconds>(time);
}

bool isWorse(AlarmKind kind, double value, double peak) {
    return kind == AlarmKind::kLow ? value < peak : value > peak;
}

}  // namespace

void Tracker::addErrors(uint64_t count, SteadyTime now) {
    using std::chrono::floor;
    using std::chrono::seconds;
    if (!errors.empty() && floor<seconds>(errors.back().time) == floor<seconds>(now)) {
        errors.back() = {now, errors.back().count + count};
    } else {
        errors.push_back({now, count});
    }
}

void Tracker::dropErrorsUntil(SteadyTime time) {
    const auto kept = std::ranges::find_if(errors, [&](const Errors& entry) { return entry.time > time; });
    errors.erase(errors.begin(), kept);
}

void Tracker::forget() {
    since.reset();
    errors.clear();
}

Finding judgeLevel(AlarmKind kind, const AlarmRule& rule, std::optional<double> value, SteadyTime now) {
    using Look = Finding::Look;
    if (!value || !std::isfinite(*value)) {
        return {};
    }
    const bool high = kind == AlarmKind::kHigh;
    const bool wrong = high ? *value > rule.raiseLevel : *value < rule.raiseLevel;
    const bool right = high ? *value <= rule.clearLevel : *value >= rule.clearLevel;
    // Levels that overlap leave nothing between; wrong goes first.
    const Look look = wrong ? Look::kWrong : right ? Look::kRight : Look::kBetween;
    return {.look = look, .value = *value, .wrongSince = now};
}

Finding judgeCondition(std::optional<bool> wrong, SteadyTime since) {
    using Look = Finding::Look;
    if (!wrong) {
        return {};
    }
    return {.look = *wrong ? Look::kWrong : Look::kRight, .value = *wrong ? 1.0 : 0.0, .wrongSince = since};
}

Finding judgeCounter(const AlarmRule& rule, Tracker& tracker, uint64_t errors, SteadyTime now) {
    if (errors != 0) {
        tracker.addErrors(errors, now);
    }
    tracker.dropErrorsUntil(now - rule.window);
    uint64_t count = 0;
    for (const Tracker::Errors& entry : tracker.errors) {
        count += entry.count;
    }
    const uint64_t seconds = tracker.errors.size();
    const bool wrong =
        (rule.count != 0 && count >= rule.count) || (rule.errorSeconds != 0 && seconds >= rule.errorSeconds);
    return {.look = wrong ? Finding::Look::kWrong : Finding::Look::kRight,
            .value = static_cast<double>(count),
            .wrongSince = now,
            .errorSeconds = seconds};
}

void Subject::takeRules(std::shared_ptr<const RuleSet> newRules, const Now& now,
                        std::vector<AlarmChange>& changes) {
    rules = std::move(newRules);
    for (std::size_t type = 0; type < trackers.size(); ++type) {
        Tracker& tracker = trackers[type];
        if (!rule(type).enabled) {
            if (tracker.raised) {
                clear(type, "the alarm was disabled", now, changes);
            }
            tracker.forget();
        } else if (tracker.raised) {
            tracker.raised->alarm.severity = rule(type).severity;
        }
    }
}

void Subject::clearAll(std::string_view why, const Now& now, std::vector<AlarmChange>& changes) {
    for (std::size_t type = 0; type < trackers.size(); ++type) {
        if (trackers[type].raised) {
            clear(type, std::string(why), now, changes);
        }
        trackers[type].forget();
    }
}

void Subject::judge(std::size_t type, const Finding& finding, const Now& now,
                    std::vector<AlarmChange>& changes) {
    using Look = Finding::Look;
    Tracker& tracker = trackers[type];
    if (!tracker.raised) {
        if (finding.look != Look::kWrong) {
            tracker.since.reset();
            return;
        }
        tracker.since = std::min(tracker.since.value_or(finding.wrongSince), finding.wrongSince);
        if (now.steady - *tracker.since >= rule(type).raiseDelay + finding.moreRaiseDelay) {
            raise(type, finding, now, changes);
        }
        return;
    }
    Alarm& alarm = tracker.raised->alarm;
    if (finding.look != Look::kUnknown) {
        alarm.value = finding.value;
        if (isWorse(alarmTypes()[type].kind, alarm.value, alarm.peak)) {
            alarm.peak = alarm.value;
        }
    }
    if (finding.look != Look::kRight || now.steady < tracker.raised->notClearedBefore) {
        tracker.since.reset();
        return;
    }
    tracker.since = tracker.since.value_or(now.steady);
    if (now.steady - *tracker.since >= rule(type).clearDelay) {
        const auto duration = toMilliseconds(now.steady - tracker.raised->since);
        clear(type, clearedText(type, rule(type), alarm, duration), now, changes);
    }
}

void Subject::raise(std::size_t type, const Finding& finding, const Now& now,
                    std::vector<AlarmChange>& changes) {
    Tracker& tracker = trackers[type];
    tracker.since.reset();
    tracker.raised = std::make_unique<RaisedAlarm>();
    tracker.raised->since = now.steady;
    tracker.raised->alarm = {.type = type,
                             .group = group,
                             .severity = rule(type).severity,
                             .raised = now.wall,
                             .value = finding.value,
                             .peak = finding.value,
                             .acknowledged = {}};
    ++raised;
    changes.push_back({.what = AlarmChange::What::kRaised,
                       .alarm = tracker.raised->alarm,
                       .text = raisedText(type, rule(type), finding.value, finding.errorSeconds)});
}

void Subject::clear(std::size_t type, std::string text, const Now& now, std::vector<AlarmChange>& changes) {
    Tracker& tracker = trackers[type];
    changes.push_back({.what = AlarmChange::What::kCleared,
                       .alarm = std::move(tracker.raised->alarm),
                       .duration = toMilliseconds(now.steady - tracker.raised->since),
                       .text = std::move(text)});
    tracker.raised.reset();
    tracker.since.reset();
    --raised;
}

void Subject::happen(std::size_t type, double value, std::string text, const Now& now,
                     std::vector<AlarmChange>& changes) {
    Tracker& tracker = trackers[type];
    if (!rule(type).enabled || (tracker.since && now.steady - *tracker.since < rule(type).clearDelay)) {
        return;
    }
    tracker.since = now.steady;
    changes.push_back({.what = AlarmChange::What::kHappened,
                       .alarm = {.type = type,
                                 .group = group,
                                 .severity = rule(type).severity,
                                 .raised = now.wall,
                                 .value = value,
                                 .peak = value,
                                 .acknowledged = {}},
                       .text = std::move(text)});
}

bool Subject::restore(const Alarm& alarm, const Now& now) {
    Tracker& tracker = trackers[alarm.type];
    if (!rule(alarm.type).enabled || tracker.raised) {
        return false;
    }
    tracker.raised = std::make_unique<RaisedAlarm>();
    tracker.raised->alarm = alarm;
    tracker.raised->alarm.severity = rule(alarm.type).severity;
    tracker.raised->since = now.steady - std::max(now.wall - alarm.raised, milliseconds{0});
    if (alarmTypes()[alarm.type].kind == AlarmKind::kCounter) {
        tracker.raised->notClearedBefore = now.steady + rule(alarm.type).window;
    }
    ++raised;
    return true;
}

}  // namespace station
