#include "alarms/alarmEngine.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "alarms/alarmTexts.h"
#include "alarms/alarmTracker.h"
#include "alarms/measures.h"

namespace station {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

// Both clocks are read one after the other; what they differ by beyond this between two calls was set.
constexpr milliseconds kClockStep = 250ms;
// A snapshot that comes later than this tells nothing about when within that time packets came.
constexpr double kLateSnapshotSeconds = 3;
// How long after an interruption its gap may still be counted: tables and stamps come within this time.
constexpr milliseconds kGapTime = 1500ms;
// The probe takes up a clear within a second; what the counters did until then is not known.
constexpr milliseconds kClearTime = 2000ms;

milliseconds toMilliseconds(SteadyTime::duration time) {
    return std::chrono::duration_cast<milliseconds>(time);
}

SteadyTime::duration fromSeconds(double seconds) {
    return std::chrono::duration_cast<SteadyTime::duration>(std::chrono::duration<double>(seconds));
}

double inSeconds(SteadyTime::duration time) {
    return std::chrono::duration<double>(time).count();
}

struct ChannelData {
    Subject subject;
    bool enabled = true;
    bool hadSignal = false;                  // packets came since it was told or the probe was restarted
    std::optional<SteadyTime> awaitedSince;  // first look at a channel without packets so far
    std::optional<SteadyTime> missingSince;  // not in the snapshots
    SteadyTime lastSignal;                   // the last look that found packets
    bool interrupted = false;                // the last look found no packets
    uint64_t settledAt = AlarmEngine::kSettlingPackets;  // packetsReceived
    SteadyTime gapsHeldUntil;
    uint64_t clockSteps = 0;                // of the engine, when it was last looked at
    std::map<std::size_t, int> properties;  // by type, as of the last datagram that was judged

    // Packets are awaited as from a channel that was just told.
    void awaitFirstPacket() {
        hadSignal = false;
        awaitedSince.reset();
        missingSince.reset();
        interrupted = false;
        settledAt = AlarmEngine::kSettlingPackets;
        for (std::size_t type = 0; type < subject.trackers.size(); ++type) {
            if (alarmTypes()[type].kind != AlarmKind::kEvent) {
                subject.trackers[type].since.reset();
            }
        }
    }
};

bool newestFirst(const RaisedAlarm* a, const RaisedAlarm* b) {
    return a->since != b->since ? a->since > b->since : a->alarm.id > b->alarm.id;
}

bool worstFirst(const RaisedAlarm* a, const RaisedAlarm* b) {
    return a->alarm.severity != b->alarm.severity ? a->alarm.severity < b->alarm.severity : newestFirst(a, b);
}

std::vector<Alarm> alarmsOf(const std::vector<const RaisedAlarm*>& raised) {
    std::vector<Alarm> alarms;
    alarms.reserve(raised.size());
    for (const RaisedAlarm* entry : raised) {
        alarms.push_back(entry->alarm);
    }
    return alarms;
}

void collectRaised(const Subject& subject, std::vector<const RaisedAlarm*>& raised) {
    if (subject.raised == 0) {
        return;
    }
    for (const Tracker& tracker : subject.trackers) {
        if (tracker.raised) {
            raised.push_back(tracker.raised.get());
        }
    }
}

}  // namespace

struct AlarmEngine::Implementation {
    std::map<std::string, std::shared_ptr<const RuleSet>, std::less<>> profiles;
    Subject probe;
    std::map<Group, ChannelData> channels;
    std::optional<SteadyTime> silentSince;
    std::optional<milliseconds> clockDifference;  // wall less steady
    uint64_t clockSteps = 0;
    SteadyTime incrementsHeldUntil;

    // What the others depend on: whether a channel is there, and whether its source is.
    const std::size_t noSignal = *findAlarmType("no_signal");
    const std::size_t probeSilent = *findAlarmType("probe_silent");

    std::shared_ptr<const RuleSet> rulesOf(const std::string& profile) const;
    ChannelData* findEnabled(const Group& group);
    Subject* subjectOf(const std::optional<Group>& group);
    void watchClock(const Now& now);

    void followArrivals(ChannelData& channel, const ChannelSample& sample, const Now& now);
    Finding findSignal(const ChannelData& channel, const ChannelSample& sample, const Now& now) const;
    void judgeMeasures(ChannelData& channel, const ChannelSample& sample, bool gapsHeld, const Now& now,
                       std::vector<AlarmChange>& changes);
    static void followProperty(ChannelData& channel, std::size_t type, const ChannelSample& sample,
                               const Now& now, std::vector<AlarmChange>& changes);
};

std::shared_ptr<const RuleSet> AlarmEngine::Implementation::rulesOf(const std::string& profile) const {
    const auto found = profiles.find(profile);
    return found != profiles.end() ? found->second : profiles.find(kDefaultProfile)->second;
}

ChannelData* AlarmEngine::Implementation::findEnabled(const Group& group) {
    const auto found = channels.find(group);
    return found != channels.end() && found->second.enabled ? &found->second : nullptr;
}

Subject* AlarmEngine::Implementation::subjectOf(const std::optional<Group>& group) {
    if (!group) {
        return &probe;
    }
    const auto found = channels.find(*group);
    return found != channels.end() ? &found->second.subject : nullptr;
}

// The probe stamps what arrives by the wall clock. When that is set, its intervals and statistics go wrong.
void AlarmEngine::Implementation::watchClock(const Now& now) {
    const milliseconds difference =
        now.wall.time_since_epoch() - toMilliseconds(now.steady.time_since_epoch());
    if (clockDifference && std::chrono::abs(difference - *clockDifference) > kClockStep) {
        ++clockSteps;
    }
    clockDifference = difference;
}

// What a sample says.

void AlarmEngine::Implementation::followArrivals(ChannelData& channel, const ChannelSample& sample,
                                                 const Now& now) {
    const uint64_t received = sample.totals[kPacketsReceivedCounter];
    channel.missingSince.reset();
    if (sample.first && !sample.signal && channel.hadSignal) {
        channel.awaitFirstPacket();
    }
    if (!channel.hadSignal && !sample.signal && !channel.awaitedSince) {
        channel.awaitedSince = now.steady;
    }
    if (sample.first) {
        channel.settledAt = kSettlingPackets;
        channel.interrupted = false;
    }
    const bool clockWasSet = channel.clockSteps != clockSteps;
    if (clockWasSet || (channel.interrupted && sample.signal)) {
        channel.settledAt = received + kSettlingPackets;
    }
    if (clockWasSet || sample.seconds > kLateSnapshotSeconds) {
        channel.gapsHeldUntil = std::max(channel.gapsHeldUntil, now.steady + kGapTime);
    }
    channel.clockSteps = clockSteps;
    channel.interrupted = !sample.signal;
    if (sample.signal) {
        channel.hadSignal = true;
        channel.lastSignal = now.steady;
    }
}

Finding AlarmEngine::Implementation::findSignal(const ChannelData& channel, const ChannelSample& sample,
                                                const Now& now) const {
    using Look = Finding::Look;
    if (sample.signal) {
        // Of the first sample it is not known when its packets came.
        const bool cameJustNow = !sample.first || sample.seconds > 0;
        return {.look = cameJustNow ? Look::kRight : Look::kUnknown};
    }
    if (!channel.hadSignal) {
        const SteadyTime since = channel.awaitedSince.value_or(now.steady);
        return {.look = Look::kWrong,
                .value = inSeconds(now.steady - since),
                .wrongSince = since,
                .moreRaiseDelay = kFirstPacketTime};
    }
    const bool late = sample.seconds > kLateSnapshotSeconds;
    return {.look = Look::kWrong,
            .value = inSeconds(now.steady - channel.lastSignal),
            .wrongSince = late ? now.steady : now.steady - fromSeconds(sample.seconds)};
}

void AlarmEngine::Implementation::judgeMeasures(ChannelData& channel, const ChannelSample& sample,
                                                bool gapsHeld, const Now& now,
                                                std::vector<AlarmChange>& changes) {
    const auto types = alarmTypes();
    const bool interrupted = !sample.signal || channel.subject.trackers[noSignal].raised;
    const bool settled = sample.totals[kPacketsReceivedCounter] >= channel.settledAt;
    const bool countersHeld = now.steady < incrementsHeldUntil;
    for (std::size_t index = 0; index < types.size(); ++index) {
        const AlarmType& type = types[index];
        if (type.measure == nullptr) {
            continue;
        }
        const Measure& measure = *type.measure;
        if (type.kind == AlarmKind::kEvent) {
            followProperty(channel, index, sample, now, changes);
        }
        const AlarmRule& rule = channel.subject.rule(index);
        if (!rule.enabled) {
            continue;
        }
        const bool held = (type.hold == Hold::kWithoutSignal && (interrupted || sample.first)) ||
                          (type.hold == Hold::kGap && gapsHeld) ||
                          (type.hold == Hold::kSettling && (interrupted || !settled));
        if (type.kind == AlarmKind::kHigh || type.kind == AlarmKind::kLow) {
            const auto value = held ? std::nullopt : measure.level(sample);
            channel.subject.judge(index, judgeLevel(type.kind, rule, value, now.steady), now, changes);
        } else if (type.kind == AlarmKind::kCounter) {
            Tracker& tracker = channel.subject.trackers[index];
            const uint64_t errors = held || countersHeld ? 0 : measure.growth(sample);
            if (errors != 0 || tracker.raised || !tracker.errors.empty()) {
                channel.subject.judge(index, judgeCounter(rule, tracker, errors, now.steady), now, changes);
            }
        } else if (type.kind == AlarmKind::kCondition && measure.state != nullptr) {
            channel.subject.judge(index, judgeCondition(measure.state(sample) != 0, now.steady), now,
                                  changes);
        }
    }
}

void AlarmEngine::Implementation::followProperty(ChannelData& channel, std::size_t type,
                                                 const ChannelSample& sample, const Now& now,
                                                 std::vector<AlarmChange>& changes) {
    // The properties are those of the latest datagram, whoever sent it.
    if (!sample.signal || sample.wrongSource) {
        return;
    }
    const int value = alarmTypes()[type].measure->state(sample);
    const auto [known, first] = channel.properties.try_emplace(type, value);
    if (!first && known->second != value) {
        channel.subject.happen(type, value, changedText(type, known->second, value), now, changes);
        known->second = value;
    }
}

// The engine as others see it.

AlarmEngine::AlarmEngine() : implementation_(std::make_unique<Implementation>()) {
    implementation_->profiles.emplace(kDefaultProfile, std::make_shared<const RuleSet>(defaultRules()));
    implementation_->probe.rules = implementation_->rulesOf(std::string(kDefaultProfile));
}

AlarmEngine::~AlarmEngine() = default;

std::vector<AlarmChange> AlarmEngine::configure(const Profiles& profiles, const ChannelMap& channels,
                                                const Now& now) {
    Implementation& engine = *implementation_;
    std::vector<AlarmChange> changes;
    engine.watchClock(now);
    engine.profiles.clear();
    engine.profiles.emplace(kDefaultProfile, std::make_shared<const RuleSet>(defaultRules()));
    for (const auto& [name, rules] : profiles) {
        RuleSet complete = defaultRules();
        std::copy_n(rules.begin(), std::min(rules.size(), complete.size()), complete.begin());
        engine.profiles[name] = std::make_shared<const RuleSet>(std::move(complete));
    }
    engine.probe.takeRules(engine.rulesOf(std::string(kDefaultProfile)), now, changes);
    for (auto entry = engine.channels.begin(); entry != engine.channels.end();) {
        if (channels.contains(entry->first)) {
            ++entry;
            continue;
        }
        entry->second.subject.clearAll("the channel is no longer watched", now, changes);
        entry = engine.channels.erase(entry);
    }
    for (const auto& [group, channel] : channels) {
        const auto [entry, added] = engine.channels.try_emplace(group);
        ChannelData& data = entry->second;
        if (added) {
            data.subject.group = group;
            data.clockSteps = engine.clockSteps;
        }
        data.subject.takeRules(engine.rulesOf(channel.profile), now, changes);
        if (data.enabled && !channel.enabled) {
            data.subject.clearAll("the channel was disabled", now, changes);
        } else if (!data.enabled && channel.enabled) {
            data.awaitFirstPacket();
            data.properties.clear();
        }
        data.enabled = channel.enabled;
    }
    return changes;
}

std::vector<AlarmChange> AlarmEngine::restore(const std::vector<Alarm>& alarms, const Now& now) {
    Implementation& engine = *implementation_;
    std::vector<AlarmChange> dropped;
    engine.watchClock(now);
    for (const Alarm& alarm : alarms) {
        const bool known = alarm.type < alarmTypes().size() &&
                           alarmTypes()[alarm.type].kind != AlarmKind::kEvent &&
                           alarmTypes()[alarm.type].ofProbe == !alarm.group &&
                           (!alarm.group || engine.findEnabled(*alarm.group) != nullptr);
        if (!known || !engine.subjectOf(alarm.group)->restore(alarm, now)) {
            dropped.push_back({.what = AlarmChange::What::kCleared,
                               .alarm = alarm,
                               .duration = std::max(now.wall - alarm.raised, milliseconds{0}),
                               .text = "the alarm is no longer watched"});
        }
    }
    return dropped;
}

void AlarmEngine::observe(const Group& group, const ChannelSample& sample, const Now& now,
                          std::vector<AlarmChange>& changes) {
    Implementation& engine = *implementation_;
    engine.watchClock(now);
    ChannelData* channel = engine.findEnabled(group);
    if (channel == nullptr) {
        return;
    }
    engine.followArrivals(*channel, sample, now);
    const Tracker& signal = channel->subject.trackers[engine.noSignal];
    const bool wasOut = signal.raised != nullptr;
    if (channel->subject.rule(engine.noSignal).enabled) {
        channel->subject.judge(engine.noSignal, engine.findSignal(*channel, sample, now), now, changes);
    }
    if (wasOut && !signal.raised) {
        channel->gapsHeldUntil = std::max(channel->gapsHeldUntil, now.steady + kGapTime);
    }
    const bool gapsHeld = wasOut || signal.raised || now.steady < channel->gapsHeldUntil;
    engine.judgeMeasures(*channel, sample, gapsHeld, now, changes);
}

void AlarmEngine::observeMissing(const Group& group, const Now& now, std::vector<AlarmChange>& changes) {
    Implementation& engine = *implementation_;
    engine.watchClock(now);
    ChannelData* channel = engine.findEnabled(group);
    if (channel == nullptr) {
        return;
    }
    channel->missingSince = channel->missingSince.value_or(now.steady);
    if (!channel->subject.rule(engine.noSignal).enabled) {
        return;
    }
    channel->subject.judge(engine.noSignal,
                           {.look = Finding::Look::kWrong,
                            .value = inSeconds(now.steady - *channel->missingSince),
                            .wrongSince = *channel->missingSince,
                            .moreRaiseDelay = kMissingTime},
                           now, changes);
}

void AlarmEngine::tick(const ProbeLook& probe, const Now& now, std::vector<AlarmChange>& changes) {
    Implementation& engine = *implementation_;
    engine.watchClock(now);
    if (probe.silent == false) {
        engine.silentSince.reset();
    } else if (probe.silent == true && !engine.silentSince) {
        engine.silentSince = now.steady;
        // What was awaited is awaited from the next snapshot on.
        for (auto& [group, channel] : engine.channels) {
            channel.awaitedSince.reset();
            channel.missingSince.reset();
            channel.subject.trackers[engine.noSignal].since.reset();
        }
    }
    for (std::size_t type = 0; type < alarmTypes().size(); ++type) {
        if (const auto look = alarmTypes()[type].look) {
            const bool silence = type == engine.probeSilent;
            const SteadyTime since = silence ? engine.silentSince.value_or(now.steady) : now.steady;
            judge(type, {}, {probe.*look, since, inSeconds(now.steady - since)}, now, changes);
        }
    }
}

void AlarmEngine::judge(std::size_t type, const std::optional<Group>& group, const ConditionLook& look,
                        const Now& now, std::vector<AlarmChange>& changes) {
    Subject* const subject = implementation_->subjectOf(group);
    if (subject != nullptr && subject->rule(type).enabled) {
        Finding finding = judgeCondition(look.wrong, look.since);
        finding.value = look.value;
        subject->judge(type, finding, now, changes);
    }
}

void AlarmEngine::count(std::size_t type, const std::optional<Group>& group, uint64_t errors, const Now& now,
                        std::vector<AlarmChange>& changes) {
    Subject* subject = implementation_->subjectOf(group);
    if (subject == nullptr || !subject->rule(type).enabled) {
        return;
    }
    Tracker& tracker = subject->trackers[type];
    if (errors != 0 || tracker.raised || !tracker.errors.empty()) {
        subject->judge(type, judgeCounter(subject->rule(type), tracker, errors, now.steady), now, changes);
    }
}

void AlarmEngine::probeRestarted(const Now& now, std::vector<AlarmChange>& changes) {
    Implementation& engine = *implementation_;
    engine.watchClock(now);
    engine.incrementsHeldUntil = now.steady + kClearTime;
    for (auto& [group, channel] : engine.channels) {
        channel.awaitFirstPacket();
    }
    engine.probe.happen(*findAlarmType("probe_restarted"), 0, "the probe was started anew", now, changes);
}

void AlarmEngine::countersCleared(const Now& now) {
    implementation_->watchClock(now);
    implementation_->incrementsHeldUntil = now.steady + kClearTime;
}

void AlarmEngine::setRaise(std::size_t type, const std::optional<Group>& group, int64_t id,
                           std::string_view text) {
    Subject* subject = implementation_->subjectOf(group);
    if (subject != nullptr && type < subject->trackers.size() && subject->trackers[type].raised) {
        Alarm& alarm = subject->trackers[type].raised->alarm;
        alarm.id = id;
        alarm.setText(text);
    }
}

void AlarmEngine::identify(const Alarm& known) {
    Subject* subject = implementation_->subjectOf(known.group);
    if (subject != nullptr && known.type < subject->trackers.size() && subject->trackers[known.type].raised) {
        Alarm& alarm = subject->trackers[known.type].raised->alarm;
        alarm.id = known.id;
        alarm.raised = known.raised;
        alarm.text = known.text;
        alarm.acknowledged = known.acknowledged;
    }
}

bool AlarmEngine::acknowledge(int64_t id, const Acknowledgement& acknowledgement,
                              std::vector<AlarmChange>& changes) {
    const auto acknowledgeIn = [&](Subject& subject) {
        for (Tracker& tracker : subject.trackers) {
            if (tracker.raised && tracker.raised->alarm.id == id) {
                tracker.raised->alarm.acknowledged = acknowledgement;
                changes.push_back({.what = AlarmChange::What::kAcknowledged,
                                   .alarm = tracker.raised->alarm,
                                   .text = acknowledgement.remark});
                return true;
            }
        }
        return false;
    };
    return acknowledgeIn(implementation_->probe) ||
           std::ranges::any_of(implementation_->channels, [&](auto& entry) {
               return entry.second.subject.raised != 0 && acknowledgeIn(entry.second.subject);
           });
}

const AlarmRule& AlarmEngine::rule(const Alarm& alarm) const {
    return implementation_->subjectOf(alarm.group)->rule(alarm.type);
}

std::vector<Alarm> AlarmEngine::active() const {
    std::vector<const RaisedAlarm*> raised;
    collectRaised(implementation_->probe, raised);
    for (const auto& [group, channel] : implementation_->channels) {
        collectRaised(channel.subject, raised);
    }
    std::ranges::stable_sort(raised, newestFirst);
    return alarmsOf(raised);
}

std::vector<Alarm> AlarmEngine::activeOf(const Group& group) const {
    std::vector<const RaisedAlarm*> raised;
    if (Subject* subject = implementation_->subjectOf(group)) {
        collectRaised(*subject, raised);
    }
    std::ranges::stable_sort(raised, worstFirst);
    return alarmsOf(raised);
}

ChannelStatus AlarmEngine::status(const Group& group) const {
    const ChannelData* channel = implementation_->findEnabled(group);
    if (channel == nullptr) {
        return ChannelStatus::kDisabled;
    }
    if (channel->subject.raised != 0) {
        return ChannelStatus::kAlarm;
    }
    const bool known = channel->hadSignal && !channel->interrupted && !channel->missingSince &&
                       !implementation_->silentSince;
    return known ? ChannelStatus::kOk : ChannelStatus::kWaiting;
}

}  // namespace station
