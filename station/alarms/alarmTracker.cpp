#include "alarms/alarmTracker.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "alarms/alarmTexts.h"
#include "alarms/durations.h"

namespace station {

namespace {

using std::chrono::milliseconds;

bool isWorse(AlarmKind kind, double value, double peak) {
    return kind == AlarmKind::kLow ? value < peak : value > peak;
}

}  // namespace

void Tracker::addErrors(uint64_t count, std::optional<uint64_t> seconds, SteadyTime now) {
    const auto second = [](SteadyTime time) { return std::chrono::floor<std::chrono::seconds>(time); };
    if (!errors.empty() && second(errors.back().time) == second(now)) {
        errors.back() = {now, errors.back().count + count, errors.back().seconds + seconds.value_or(0)};
    } else {
        errors.push_back({now, count, seconds.value_or(1)});
    }
}

void Tracker::dropErrorsUntil(SteadyTime time) {
    const auto kept = std::ranges::find_if(errors, [&](const Errors& entry) { return entry.time > time; });
    errors.erase(errors.begin(), kept);
}

void Tracker::holdWindow(SteadyTime now) {
    const auto unknown = now - raised->lookedAt;
    for (Errors& entry : errors) {
        entry.time += unknown;
    }
    raised->notClearedBefore += unknown;
    raised->lookedAt = now;
}

void Tracker::forget() {
    since.reset();
    errors.clear();
    gathered.reset();
}

void GatheredEvents::add(double more, bool counts, std::string_view sentence) {
    value = counts ? value + more : more;
    const std::string_view between = text.empty() ? "" : "; ";
    if (leftOut > 0 || text.size() + between.size() + sentence.size() > kTextBytes) {
        ++leftOut;
        return;
    }
    text += between;
    text += sentence;
}

std::string GatheredEvents::all() const {
    return leftOut == 0 ? text : text + "; and more (" + std::to_string(leftOut) + ")";
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

Finding judgeCounter(const AlarmRule& rule, Tracker& tracker, uint64_t errors, SteadyTime now,
                     std::optional<uint64_t> seconds) {
    if (errors != 0 || seconds.value_or(0) != 0) {
        tracker.addErrors(errors, seconds, now);
    }
    tracker.dropErrorsUntil(now - rule.window);
    if (tracker.raised) {
        tracker.raised->lookedAt = now;
    }
    uint64_t count = 0;
    uint64_t errorSeconds = 0;
    for (const Tracker::Errors& entry : tracker.errors) {
        count += std::max(entry.count, entry.seconds);
        errorSeconds += entry.seconds;
    }
    const bool wrong = (rule.count != 0 && count >= rule.count) ||
                       (rule.errorSeconds != 0 && errorSeconds >= rule.errorSeconds);
    return {.look = wrong ? Finding::Look::kWrong : Finding::Look::kRight,
            .value = static_cast<double>(count),
            .wrongSince = now,
            .errorSeconds = errorSeconds};
}

Source SubjectAlarms::sourceOf(std::size_t type) const {
    const AlarmType& row = alarmTypes()[type];
    if (row.ofSource) {
        return *row.ofSource;
    }
    if (row.meter.measure != nullptr) {
        return judgedBy;
    }
    return row.measure != nullptr ? row.measure->source : row.by.value_or(Source::kProbe);
}

void SubjectAlarms::judgeBy(Source source, const Now& now) {
    if (judgedBy == source) {
        return;
    }
    judgedBy = source;
    for (std::size_t type = 0; type < trackers.size(); ++type) {
        Tracker& tracker = trackers[type];
        if (alarmTypes()[type].meter.measure == nullptr) {
            continue;
        }
        tracker.forget();
        if (tracker.raised && alarmTypes()[type].kind == AlarmKind::kCounter) {
            tracker.raised->notClearedBefore =
                std::max(tracker.raised->notClearedBefore, now.steady + rule(type).window);
            tracker.raised->lookedAt = now.steady;
        }
    }
}

void SubjectAlarms::takeRules(std::shared_ptr<const RuleSet> newRules, bool meterJudges, const Now& now,
                              std::vector<AlarmChange>& changes) {
    rules = std::move(newRules);
    for (std::size_t type = 0; type < trackers.size(); ++type) {
        Tracker& tracker = trackers[type];
        if (!rule(type).enabled) {
            // One that another source raised stays until that is back, unless it is disabled there too or
            // will not judge.
            const bool others = alarmTypes()[type].meter.measure != nullptr &&
                                ((*rules)[type].enabled || (meterJudges && (*rules)[type].meter.enabled));
            if (tracker.raised && (!others || tracker.raised->alarm.source == judgedBy)) {
                clear(type, "the alarm was disabled", now, changes);
            }
            tracker.forget();
        } else if (tracker.raised) {
            tracker.raised->alarm.severity = rule(type).severity;
        }
    }
}

void SubjectAlarms::clearAll(std::string_view why, const Now& now, std::vector<AlarmChange>& changes) {
    for (std::size_t type = 0; type < trackers.size(); ++type) {
        if (trackers[type].raised) {
            clear(type, std::string(why), now, changes);
        }
        trackers[type].forget();
    }
}

void SubjectAlarms::judge(std::size_t type, const Finding& finding, const Now& now,
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
        alarm.source = sourceOf(type);
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

void SubjectAlarms::holdCounter(std::size_t type, const Now& now, std::vector<AlarmChange>& changes) {
    if (trackers[type].raised) {
        trackers[type].holdWindow(now.steady);
        judge(type, {}, now, changes);
    }
}

void SubjectAlarms::raise(std::size_t type, const Finding& finding, const Now& now,
                          std::vector<AlarmChange>& changes) {
    Tracker& tracker = trackers[type];
    tracker.since.reset();
    tracker.raised = std::make_unique<RaisedAlarm>();
    tracker.raised->since = tracker.raised->lookedAt = now.steady;
    tracker.raised->alarm = {.type = type,
                             .about = about,
                             .severity = rule(type).severity,
                             .raised = now.wall,
                             .value = finding.value,
                             .peak = finding.value,
                             .acknowledged = {},
                             .source = sourceOf(type)};
    ++raised;
    changes.push_back({.what = AlarmChange::What::kRaised,
                       .alarm = tracker.raised->alarm,
                       .text = raisedText(type, rule(type), finding.value, finding.errorSeconds)});
}

void SubjectAlarms::clear(std::size_t type, std::string text, const Now& now,
                          std::vector<AlarmChange>& changes) {
    Tracker& tracker = trackers[type];
    changes.push_back({.what = AlarmChange::What::kCleared,
                       .alarm = std::move(tracker.raised->alarm),
                       .duration = toMilliseconds(now.steady - tracker.raised->since),
                       .text = std::move(text)});
    tracker.raised.reset();
    tracker.since.reset();
    --raised;
}

void SubjectAlarms::happen(std::size_t type, double value, std::string_view text, const Now& now,
                           std::vector<AlarmChange>& changes) {
    Tracker& tracker = trackers[type];
    if (!rule(type).enabled) {
        return;
    }
    if (!tracker.gathered) {
        tracker.gathered = std::make_unique<GatheredEvents>();
        ++gathering;
    }
    tracker.gathered->add(value, alarmTypes()[type].measure == nullptr, text);
    tellGathered(now, changes);
}

void SubjectAlarms::tellGathered(const Now& now, std::vector<AlarmChange>& changes) {
    if (gathering == 0) {
        return;
    }
    gathering = 0;
    for (std::size_t type = 0; type < trackers.size(); ++type) {
        Tracker& tracker = trackers[type];
        if (!tracker.gathered) {
            continue;
        }
        if (tracker.since && now.steady - *tracker.since < rule(type).clearDelay) {
            ++gathering;
            continue;
        }
        tracker.since = now.steady;
        changes.push_back({.what = AlarmChange::What::kHappened,
                           .alarm = {.type = type,
                                     .about = about,
                                     .severity = rule(type).severity,
                                     .raised = now.wall,
                                     .value = tracker.gathered->value,
                                     .peak = tracker.gathered->value,
                                     .acknowledged = {},
                                     .source = sourceOf(type)},
                           .text = tracker.gathered->all()});
        tracker.gathered.reset();
    }
}

bool SubjectAlarms::restore(const Alarm& alarm, bool meterJudges, const Now& now) {
    Tracker& tracker = trackers[alarm.type];
    const bool enabled = rule(alarm.type).enabled || (meterJudges && alarm.source == Source::kMeter &&
                                                      (*rules)[alarm.type].meter.enabled);
    if (!enabled || tracker.raised) {
        return false;
    }
    tracker.raised = std::make_unique<RaisedAlarm>();
    tracker.raised->alarm = alarm;
    tracker.raised->alarm.severity = rule(alarm.type).severity;
    tracker.raised->since = now.steady - std::max(now.wall - alarm.raised, milliseconds{0});
    tracker.raised->lookedAt = now.steady;
    if (alarmTypes()[alarm.type].kind == AlarmKind::kCounter) {
        tracker.raised->notClearedBefore = now.steady + rule(alarm.type).window;
    }
    ++raised;
    return true;
}

}  // namespace station
