#include "alarms/channelAlarms.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>

#include "alarms/alarmTexts.h"
#include "alarms/durations.h"

namespace station {

namespace {

using namespace std::chrono_literals;

// How long after a stream's pause that may still be counted.
constexpr std::chrono::milliseconds kStampTime = 1500ms;

constexpr const Measure& kWrongSource = measureOf("wrongSource");
// Counts what a stream's own pause does, which video_missing and its like tell.
bool isOfStamps(const Measure& measure) {
    constexpr std::array kOfStamps = {&measureOf("meter.PCR_repetition_error"),
                                      &measureOf("meter.PCR_discontinuity_indicator_error"),
                                      &measureOf("meter.PTS_error")};
    return std::ranges::find(kOfStamps, &measure) != kOfStamps.end();
}

constexpr const Measure& kVideoMissing = measureOf("meter.videoMissing");
constexpr const Measure& kAudioMissing = measureOf("meter.audioMissing");

}  // namespace

void ChannelAlarms::followMeter(const ChannelSample& sample, bool judges, const Now& now) {
    // Nothing comes, or this machine does not take it for the meter: the records may know.
    if (sample.received == 0 || (sample.disturbed && !sample.signal)) {
        leaveMeter(now);
        return;
    }
    metered = now.steady;
    // A stream that is back has its time stamps and clock references far from those before.
    const int video = sample.state(kVideoMissing);
    const int audio = sample.state(kAudioMissing);
    if (video != kUnknownState && audio != kUnknownState) {
        if (video + audio < missing) {
            stampsHeldUntil = now.steady + kStampTime;
        }
        missing = video + audio;
    }
    if (judges) {
        subject.judgeBy(Source::kMeter, now);
    }
}

void ChannelAlarms::leaveMeter(const Now& now) {
    if (subject.judgedBy == Source::kMeter) {
        subject.judgeBy(Source::kProbe, now);
        arrivals[Source::kMeter].awaitAnew();
    }
}

void ChannelAlarms::awaitFirstPacket(Source source) {
    arrivals[source].awaitFirst();
    for (std::size_t type = 0; type < subject.trackers.size(); ++type) {
        if (alarmTypes()[type].kind != AlarmKind::kEvent &&
            watchedBy(alarmTypes()[type], source) != nullptr && subject.sourceOf(type) == source) {
            subject.trackers[type].since.reset();
        }
    }
}

void ChannelAlarms::judge(const ChannelSample& sample, const Held& held, const Now& now,
                          std::vector<AlarmChange>& changes) {
    static const std::size_t noSignal = *findAlarmType("no_signal");
    const auto types = alarmTypes();
    const bool interrupted = !sample.signal || subject.trackers[noSignal].raised;
    const bool settled = arrivals[sample.source].isSettled(sample);
    for (std::size_t index = 0; index < types.size(); ++index) {
        const AlarmType& type = types[index];
        const Measure* const watched = watchedBy(type, sample.source);
        if (watched == nullptr || subject.sourceOf(index) != sample.source) {
            continue;
        }
        const Measure& measure = *watched;
        const Hold hold = watched == type.measure ? type.hold : type.meter.hold;
        if (type.kind == AlarmKind::kEvent) {
            followProperty(index, sample, now, changes);
        }
        const AlarmRule& rule = subject.rule(index);
        if (!rule.enabled || index == noSignal) {
            continue;
        }
        const bool unknown = (hold == Hold::kWithoutSignal && (interrupted || sample.first)) ||
                             (hold == Hold::kGap && held.gaps) ||
                             (now.steady < stampsHeldUntil && isOfStamps(measure)) ||
                             (hold == Hold::kSettling && (interrupted || !settled));
        if (type.kind == AlarmKind::kHigh || type.kind == AlarmKind::kLow) {
            auto value = unknown || !sample.knows(measure, measure.judged)
                             ? std::nullopt
                             : std::optional(sample.level(measure));
            if (value && type.eitherWay) {
                value = std::abs(*value);
            }
            subject.judge(index, judgeLevel(type.kind, rule, value, now.steady), now, changes);
        } else if (type.kind == AlarmKind::kCounter) {
            judgeCounted(index, sample.count(measure), unknown || held.counters, sample.source, now, changes);
        } else if (type.kind == AlarmKind::kAbsence) {
            subject.judge(index, findAbsence(index, sample, now), now, changes);
        } else if (type.kind == AlarmKind::kCondition) {
            std::optional<bool> wrong;
            if (measure.kind == MeasureKind::kCounter) {
                const Count& count = sample.count(measure);
                wrong = count.judged ? std::optional(count.faults != 0) : std::nullopt;
            } else if (const int state = sample.state(measure); !unknown && state != kUnknownState) {
                wrong = state != 0;
            }
            subject.judge(index, judgeCondition(wrong, now.steady), now, changes);
        }
    }
}

void ChannelAlarms::judgeCounted(std::size_t type, const Count& count, bool held, Source source,
                                 const Now& now, std::vector<AlarmChange>& changes) {
    Tracker& tracker = subject.trackers[type];
    const AlarmRule& rule = subject.rule(type);
    if (held || !count.judged) {
        return subject.holdCounter(type, now, changes);
    }
    const auto seconds =
        source == Source::kMeter ? std::optional<uint64_t>(count.faultySeconds) : std::nullopt;
    if (count.faults != 0 || seconds.value_or(0) != 0 || tracker.raised || !tracker.errors.empty()) {
        subject.judge(type, judgeCounter(rule, tracker, count.faults, now.steady, seconds), now, changes);
    }
}

// What is awaited begins anew when nothing can come, and after a time of which nothing is known.
Finding ChannelAlarms::findAbsence(std::size_t type, const ChannelSample& sample, const Now& now) {
    using Look = Finding::Look;
    constexpr double kKnownSeconds = 3;
    const auto [last, first] = came.try_emplace(type, now.steady);
    if (sample.count(*alarmTypes()[type].measure).growth > 0) {
        last->second = now.steady;
        return {.look = Look::kRight};
    }
    if (sample.first || !sample.signal || sample.seconds > kKnownSeconds) {
        last->second = now.steady;
    }
    const auto waited = now.steady - last->second;
    const bool wrong = waited >= subject.rule(type).window;
    return {.look = wrong ? Look::kWrong : Look::kBetween,
            .value = std::floor(inSeconds(waited)),
            .wrongSince = now.steady};
}

void ChannelAlarms::followProperty(std::size_t type, const ChannelSample& sample, const Now& now,
                                   std::vector<AlarmChange>& changes) {
    // The properties are those of the latest datagram, whoever sent it.
    const bool wrongSource = sample.source == kWrongSource.source && sample.state(kWrongSource) != 0;
    if (!sample.signal || wrongSource) {
        return;
    }
    const int value = sample.state(*alarmTypes()[type].measure);
    const auto [known, first] = properties.try_emplace(type, value);
    if (!first && known->second != value) {
        subject.happen(type, value, changedText(type, known->second, value), now, changes);
        known->second = value;
    }
}

}  // namespace station
