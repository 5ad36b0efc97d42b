#include "alarms/alarmEngine.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <utility>

#include "alarms/alarmTexts.h"
#include "alarms/alarmTracker.h"
#include "alarms/arrivals.h"
#include "alarms/channelAlarms.h"
#include "alarms/durations.h"

namespace station {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

// Both clocks are read one after the other; what they differ by beyond this between two calls was set.
constexpr milliseconds kClockStep = 250ms;
// The probe takes up a clear within a second; what the counters did until then is not known.
constexpr milliseconds kClearTime = 2000ms;

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

void collectRaised(const SubjectAlarms& subject, std::vector<const RaisedAlarm*>& raised) {
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
    std::vector<SubjectAlarms> sources;  // by Source
    std::map<Group, ChannelAlarms> channels;
    BySource<std::optional<SteadyTime>> silentSince;
    std::optional<milliseconds> clockDifference;  // wall less steady
    uint64_t clockSteps = 0;
    SteadyTime incrementsHeldUntil;  // the probe's
    Judges judges;

    // What the others depend on: whether a channel is there, and whether the probe is.
    const std::size_t noSignal = *findAlarmType("no_signal");
    const std::size_t probeSilent = *findAlarmType("probe_silent");

    std::shared_ptr<const RuleSet> rulesOf(const std::string& profile) const;
    // Whether it may judge what the records say something of as well.
    bool meterJudges() const {
        return judges.meter && judges.source == AlarmSource::kAuto;
    }
    ChannelAlarms* findEnabled(const Group& group);
    SubjectAlarms* alarmsOf(const Subject& about);
    void followSilence(Source source, std::optional<bool> silent, const Now& now);
    void watchClock(const Now& now);
};

std::shared_ptr<const RuleSet> AlarmEngine::Implementation::rulesOf(const std::string& profile) const {
    const auto found = profiles.find(profile);
    return found != profiles.end() ? found->second : profiles.find(kDefaultProfile)->second;
}

ChannelAlarms* AlarmEngine::Implementation::findEnabled(const Group& group) {
    const auto found = channels.find(group);
    return found != channels.end() && found->second.enabled ? &found->second : nullptr;
}

SubjectAlarms* AlarmEngine::Implementation::alarmsOf(const Subject& about) {
    if (const auto source = about.source()) {
        return &sources[static_cast<std::size_t>(*source)];
    }
    const auto found = channels.find(*about.group());
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

// The engine as others see it.

AlarmEngine::AlarmEngine() : implementation_(std::make_unique<Implementation>()) {
    implementation_->profiles.emplace(kDefaultProfile, std::make_shared<const RuleSet>(defaultRules()));
    for (std::size_t source = 0; source < kSources; ++source) {
        implementation_->sources.push_back({.about = static_cast<Source>(source),
                                            .rules = implementation_->rulesOf(std::string(kDefaultProfile))});
    }
}

AlarmEngine::~AlarmEngine() = default;

std::vector<AlarmChange> AlarmEngine::configure(const Profiles& profiles, const ChannelMap& channels,
                                                const Now& now, const Judges& judges) {
    Implementation& engine = *implementation_;
    std::vector<AlarmChange> changes;
    engine.watchClock(now);
    engine.judges = judges;
    engine.profiles.clear();
    engine.profiles.emplace(kDefaultProfile, std::make_shared<const RuleSet>(defaultRules()));
    for (const auto& [name, rules] : profiles) {
        RuleSet complete = defaultRules();
        std::copy_n(rules.begin(), std::min(rules.size(), complete.size()), complete.begin());
        engine.profiles[name] = std::make_shared<const RuleSet>(std::move(complete));
    }
    for (SubjectAlarms& source : engine.sources) {
        source.takeRules(engine.rulesOf(std::string(kDefaultProfile)), engine.meterJudges(), now, changes);
    }
    for (auto entry = engine.channels.begin(); entry != engine.channels.end();) {
        if (channels.contains(entry->first)) {
            ++entry;
            continue;
        }
        entry->second.subject.clearAll("the channel is no longer watched", now, changes);
        entry = engine.channels.erase(entry);
    }
    for (const auto& [group, channel] : channels) {
        const auto [entry, added] = engine.channels.try_emplace(group, ChannelAlarms{{.about = group}});
        ChannelAlarms& data = entry->second;
        if (added) {
            data.arrivals[Source::kProbe].begin(engine.clockSteps);
        }
        if (judges.source == AlarmSource::kProbe) {
            data.leaveMeter(now);
        }
        data.subject.takeRules(engine.rulesOf(channel.profile), engine.meterJudges(), now, changes);
        if (data.enabled && !channel.enabled) {
            data.subject.clearAll("the channel was disabled", now, changes);
        } else if (!data.enabled && channel.enabled) {
            for (std::size_t source = 0; source < kSources; ++source) {
                data.awaitFirstPacket(static_cast<Source>(source));
            }
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
                           alarmTypes()[alarm.type].ofSource == alarm.about.source() &&
                           (engine.judges.meter || !needsMeter(alarmTypes()[alarm.type])) &&
                           (engine.judges.pictures || !needsPictures(alarmTypes()[alarm.type])) &&
                           (alarm.about.source() || engine.findEnabled(*alarm.about.group()) != nullptr);
        if (!known || !engine.alarmsOf(alarm.about)->restore(alarm, engine.meterJudges(), now)) {
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
    ChannelAlarms* channel = engine.findEnabled(group);
    if (channel == nullptr) {
        return;
    }
    if (sample.source == Source::kMeter) {
        channel->followMeter(sample, engine.meterJudges(), now);
    }
    Arrivals& arrivals = channel->arrivals[sample.source];
    if (arrivals.areLost(sample)) {
        channel->awaitFirstPacket(sample.source);
    }
    // The probe alone stamps by the clock that may be set.
    arrivals.follow(sample, sample.source == Source::kProbe ? engine.clockSteps : 0, now);
    const Tracker& signal = channel->subject.trackers[engine.noSignal];
    const bool wasOut = signal.raised != nullptr;
    if (sample.source == channel->subject.judgedBy && channel->subject.rule(engine.noSignal).enabled) {
        channel->subject.judge(engine.noSignal, arrivals.findSignal(sample, now), now, changes);
    }
    if (wasOut && !signal.raised) {
        for (Arrivals& one : channel->arrivals.values) {
            one.holdGaps(now);
        }
    }
    const bool gapsHeld = wasOut || signal.raised || arrivals.holdsGaps(now);
    const bool countersHeld = sample.source == Source::kProbe && now.steady < engine.incrementsHeldUntil;
    channel->judge(sample, {.gaps = gapsHeld, .counters = countersHeld}, now, changes);
}

void AlarmEngine::observeMissing(const Group& group, const Now& now, std::vector<AlarmChange>& changes) {
    Implementation& engine = *implementation_;
    engine.watchClock(now);
    ChannelAlarms* channel = engine.findEnabled(group);
    if (channel == nullptr) {
        return;
    }
    const SteadyTime missingSince = channel->arrivals[Source::kProbe].miss(now);
    if (channel->subject.judgedBy != Source::kProbe || !channel->subject.rule(engine.noSignal).enabled) {
        return;
    }
    channel->subject.judge(engine.noSignal,
                           {.look = Finding::Look::kWrong,
                            .value = inSeconds(now.steady - missingSince),
                            .wrongSince = missingSince,
                            .moreRaiseDelay = kMissingTime},
                           now, changes);
}

void AlarmEngine::Implementation::followSilence(Source source, std::optional<bool> silent, const Now& now) {
    if (silent == false) {
        silentSince[source].reset();
    } else if (silent == true && !silentSince[source]) {
        silentSince[source] = now.steady;
        // What was awaited is awaited from the next sample on.
        for (auto& [group, channel] : channels) {
            channel.arrivals[source].awaitAnew();
            if (source == channel.subject.judgedBy) {
                channel.subject.trackers[noSignal].since.reset();
            }
        }
    }
}

void AlarmEngine::tick(const ProbeLook& probe, const Now& now, std::vector<AlarmChange>& changes) {
    Implementation& engine = *implementation_;
    engine.watchClock(now);
    engine.followSilence(Source::kProbe, probe.silent, now);
    for (auto& [group, channel] : engine.channels) {
        if (now.steady - channel.metered > kMeterTime) {
            channel.leaveMeter(now);
        }
        channel.subject.tellGathered(now, changes);
    }
    for (SubjectAlarms& source : engine.sources) {
        source.tellGathered(now, changes);
    }
    for (std::size_t type = 0; type < alarmTypes().size(); ++type) {
        if (const auto look = alarmTypes()[type].look) {
            const bool silence = type == engine.probeSilent;
            const SteadyTime since =
                silence ? engine.silentSince[Source::kProbe].value_or(now.steady) : now.steady;
            judge(type, Source::kProbe, {probe.*look, since, inSeconds(now.steady - since)}, now, changes);
        }
    }
}

void AlarmEngine::judge(std::size_t type, const Subject& about, const ConditionLook& look, const Now& now,
                        std::vector<AlarmChange>& changes) {
    SubjectAlarms* const subject = implementation_->alarmsOf(about);
    if (subject != nullptr && subject->rule(type).enabled) {
        Finding finding = judgeCondition(look.wrong, look.since);
        finding.value = look.value;
        subject->judge(type, finding, now, changes);
    }
}

void AlarmEngine::count(std::size_t type, const Subject& about, std::optional<uint64_t> errors,
                        const Now& now, std::vector<AlarmChange>& changes, std::optional<uint64_t> seconds) {
    SubjectAlarms* const subject = implementation_->alarmsOf(about);
    if (subject == nullptr || !subject->rule(type).enabled) {
        return;
    }
    Tracker& tracker = subject->trackers[type];
    const AlarmRule& rule = subject->rule(type);
    if (!errors) {
        subject->holdCounter(type, now, changes);
    } else if (errors != 0 || tracker.raised || !tracker.errors.empty()) {
        subject->judge(type, judgeCounter(rule, tracker, *errors, now.steady, seconds), now, changes);
    }
}

void AlarmEngine::giveUpMeter(const Now& now, std::vector<AlarmChange>& changes) {
    static const std::size_t silent = *findAlarmType("meter_silent");
    const auto giveUp = [&](SubjectAlarms& subject) {
        for (std::size_t type = 0; subject.raised != 0 && type < subject.trackers.size(); ++type) {
            if (type != silent && subject.trackers[type].raised &&
                (needsMeter(alarmTypes()[type]) || !subject.rule(type).enabled)) {
                subject.clear(type, "nobody can judge it: no meter has come since the station's start", now,
                              changes);
            }
        }
    };
    giveUp(*implementation_->alarmsOf(Source::kMeter));
    for (auto& [group, channel] : implementation_->channels) {
        giveUp(channel.subject);
    }
}

void AlarmEngine::giveUpPictures(const Now& now, std::vector<AlarmChange>& changes) {
    for (auto& [group, channel] : implementation_->channels) {
        SubjectAlarms& subject = channel.subject;
        for (std::size_t type = 0; subject.raised != 0 && type < subject.trackers.size(); ++type) {
            if (subject.trackers[type].raised && needsPictures(alarmTypes()[type])) {
                subject.clear(type, "nobody can judge it: no pictures are taken", now, changes);
            }
        }
    }
}

void AlarmEngine::giveUp(std::size_t type, const Group& group, std::string_view why, const Now& now,
                         std::vector<AlarmChange>& changes) {
    ChannelAlarms* const channel = implementation_->findEnabled(group);
    if (channel != nullptr && channel->subject.trackers[type].raised) {
        channel->subject.clear(type, "nobody can judge it: " + std::string(why), now, changes);
    }
}

void AlarmEngine::happen(std::size_t type, const Subject& about, double value, std::string_view text,
                         const Now& now, std::vector<AlarmChange>& changes) {
    SubjectAlarms* const subject = implementation_->alarmsOf(about);
    if (subject != nullptr) {
        subject->happen(type, value, text, now, changes);
    }
}

void AlarmEngine::probeRestarted(const Now& now, std::vector<AlarmChange>& changes) {
    Implementation& engine = *implementation_;
    engine.watchClock(now);
    engine.incrementsHeldUntil = now.steady + kClearTime;
    for (auto& [group, channel] : engine.channels) {
        channel.awaitFirstPacket(Source::kProbe);
    }
    engine.alarmsOf(Source::kProbe)
        ->happen(*findAlarmType("probe_restarted"), 0, "the probe was started anew", now, changes);
}

void AlarmEngine::countersCleared(const Now& now) {
    implementation_->watchClock(now);
    implementation_->incrementsHeldUntil = now.steady + kClearTime;
}

void AlarmEngine::setRaise(std::size_t type, const Subject& about, int64_t id, std::string_view text) {
    SubjectAlarms* const subject = implementation_->alarmsOf(about);
    if (subject != nullptr && type < subject->trackers.size() && subject->trackers[type].raised) {
        Alarm& alarm = subject->trackers[type].raised->alarm;
        alarm.id = id;
        alarm.setText(text);
    }
}

void AlarmEngine::identify(const Alarm& known) {
    SubjectAlarms* const subject = implementation_->alarmsOf(known.about);
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
    const auto acknowledgeIn = [&](SubjectAlarms& subject) {
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
    return std::ranges::any_of(implementation_->sources, acknowledgeIn) ||
           std::ranges::any_of(implementation_->channels, [&](auto& entry) {
               return entry.second.subject.raised != 0 && acknowledgeIn(entry.second.subject);
           });
}

void AlarmEngine::setAcknowledgement(const Alarm& alarm,
                                     const std::optional<Acknowledgement>& acknowledgement,
                                     std::vector<AlarmChange>& changes) {
    SubjectAlarms* const subject = implementation_->alarmsOf(alarm.about);
    RaisedAlarm* const raised = subject != nullptr && alarm.type < subject->trackers.size()
                                    ? subject->trackers[alarm.type].raised.get()
                                    : nullptr;
    if (raised == nullptr || raised->alarm.id != alarm.id ||
        (!acknowledgement && !raised->alarm.acknowledged)) {
        return;
    }
    raised->alarm.acknowledged = acknowledgement;
    changes.push_back(
        {.what = acknowledgement ? AlarmChange::What::kAcknowledged : AlarmChange::What::kUnacknowledged,
         .alarm = raised->alarm,
         .text = acknowledgement ? acknowledgement->remark : std::string()});
}

const AlarmRule& AlarmEngine::rule(const Alarm& alarm) const {
    return implementation_->alarmsOf(alarm.about)->rule(alarm.type);
}

std::vector<Alarm> AlarmEngine::active() const {
    std::vector<const RaisedAlarm*> raised;
    for (const SubjectAlarms& source : implementation_->sources) {
        collectRaised(source, raised);
    }
    for (const auto& [group, channel] : implementation_->channels) {
        collectRaised(channel.subject, raised);
    }
    std::ranges::stable_sort(raised, newestFirst);
    return alarmsOf(raised);
}

std::vector<Alarm> AlarmEngine::activeOf(const Group& group) const {
    std::vector<const RaisedAlarm*> raised;
    if (const SubjectAlarms* subject = implementation_->alarmsOf(group)) {
        collectRaised(*subject, raised);
    }
    std::ranges::stable_sort(raised, worstFirst);
    return alarmsOf(raised);
}

ChannelStatus AlarmEngine::status(const Group& group) const {
    const ChannelAlarms* channel = implementation_->findEnabled(group);
    if (channel == nullptr) {
        return ChannelStatus::kDisabled;
    }
    if (channel->subject.raised != 0) {
        return ChannelStatus::kAlarm;
    }
    const Source source = channel->subject.judgedBy;
    const bool known = channel->arrivals[source].known() && !implementation_->silentSince[source];
    return known ? ChannelStatus::kOk : ChannelStatus::kWaiting;
}

Source AlarmEngine::judgeOf(const Group& group) const {
    const SubjectAlarms* const subject = implementation_->alarmsOf(group);
    return subject != nullptr ? subject->judgedBy : Source::kProbe;
}

}  // namespace station
