#include "meterDesk.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "meter/report.h"

namespace station {

namespace {

constexpr std::size_t kPidsListed = 8;  // of the rest the number

std::string listed(const std::vector<uint16_t>& pids) {
    std::string text;
    for (std::size_t i = 0; i < std::min(pids.size(), kPidsListed); ++i) {
        text += (i == 0 ? "" : ", ") + std::to_string(pids[i]);
    }
    return pids.size() <= kPidsListed ? text
                                      : text + " and " + std::to_string(pids.size() - kPidsListed) + " more";
}

// ": PID 257", or nothing where the report does not know.
std::string pidsOf(const meter::Report& report, std::string_view measure) {
    std::vector<uint16_t> pids;
    const bool video = measure == "meter.videoMissing";
    if (video || measure == "meter.audioMissing") {
        for (const meter::PidReport& pid : report.pids) {
            if (pid.kind == (video ? "video" : "audio") && pid.bps == 0U) {
                pids.push_back(pid.pid);
            }
        }
        return pids.empty() ? "" : std::string(pids.size() == 1 ? ": PID " : ": PIDs ") + listed(pids);
    }
    for (const meter::CheckReport& check : report.checks) {
        if (measure.ends_with(check.name)) {
            for (const auto& [pid, count] : check.pids) {
                pids.push_back(pid);
            }
        }
    }
    // Counts of PIDs are those of all the time.
    return pids.empty()       ? ""
           : pids.size() == 1 ? ": PID " + std::to_string(pids[0])
                              : "; PIDs that had such errors so far: " + listed(pids);
}

}  // namespace

void MeterDesk::start(const Configuration& configuration, std::string_view version,
                      std::function<void()> ready) {
    book_.mail().setReady(std::move(ready));
    port_ = std::make_unique<MeterPort>(configuration.meterSocket, std::string(version), book_);
}

void MeterDesk::watch(const ChannelMap& channels, const Configuration& configuration, bool passive) {
    if (!port_) {
        return;
    }
    std::vector<MeteredChannel> wanted;
    for (const auto& [group, channel] : channels) {
        if (channel.enabled) {
            const auto rules = configuration.measureRules.find(channel.profile);
            wanted.push_back({.group = group.hostOrder(),
                              .source = sourceAddress(channel.source),
                              .port = channel.port == 0 ? std::nullopt : std::optional(channel.port),
                              .join = !passive && sourceAddress(channel.source).has_value(),
                              .rules = rules == configuration.measureRules.end()
                                           ? configuration.measureRules.at(std::string(kDefaultProfile))
                                           : rules->second});
        }
    }
    joined_ = port_->watch(std::move(wanted));
}

bool MeterDesk::judge(const ChannelMap& channels, bool passive, const Now& now) {
    const MeterState meter = book_.state(now.steady);
    const bool joinedAll = meter.joinFailures == 0 && meter.joined == meter.toJoin;
    const bool changed = sourceJoins_.update({meter.connected, meter.sinceSteady, joinedAll}, now.steady);
    const std::string note = sourcesNote(channels, passive);
    if (note.empty()) {
        sourcesNoted_.resolved("channels that name a source are joined for it alone, by kestor-meter");
    } else {
        sourcesNoted_.say(LogLevel::kNotice, note);
    }
    return changed;
}

std::vector<AlarmChange> MeterDesk::judgePresence(AlarmEngine& engine, const Now& now) {
    const MeterFindings found = watch_.judge(book_.state(now.steady), now.steady);
    std::vector<AlarmChange> changes;
    engine.judge(*findAlarmType("meter_silent"), Source::kMeter,
                 {found.silent, found.since, found.silent == true ? 1.0 : 0.0}, now, changes);
    for (AlarmChange& change : changes) {
        if (change.what == AlarmChange::What::kRaised && !found.why.empty()) {
            change.text = found.why;
        }
    }
    const std::size_t judged = changes.size();
    const std::size_t lost = *findAlarmType("capture_loss");
    engine.count(lost, Source::kMeter, found.lost ? std::optional(found.lost->count) : std::nullopt, now,
                 changes, found.lost ? std::optional(found.lost->seconds) : std::nullopt);
    for (std::size_t i = judged; i < changes.size(); ++i) {
        if (changes[i].what == AlarmChange::What::kRaised) {
            changes[i].text += ": " + watch_.lostIn(engine.rule(changes[i].alarm).window, now.steady);
        }
    }
    if (watch_.hopeless(now.steady)) {
        engine.giveUpMeter(now, changes);
    }
    return changes;
}

void MeterDesk::explain(std::vector<AlarmChange>& changes) const {
    for (AlarmChange& change : changes) {
        const auto group = change.alarm.about.group();
        if (change.what != AlarmChange::What::kRaised || change.alarm.source != Source::kMeter || !group) {
            continue;
        }
        const Measure* const watched = watchedBy(alarmTypes()[change.alarm.type], Source::kMeter);
        const std::optional<MeterReport> report = watched != nullptr ? find(*group) : std::nullopt;
        if (report) {
            change.text += pidsOf(report->read(), watched->name);
        }
    }
}

MeterState MeterDesk::state(const ChannelMap& channels, bool passive, const Now& now) const {
    MeterState state = book_.state(now.steady);
    state.sourcesNote = sourcesNote(channels, passive);
    return state;
}

// That channels are joined without the source that they name.
std::string MeterDesk::sourcesNote(const ChannelMap& channels, bool passive) const {
    std::size_t count = 0;
    const Channel* first = nullptr;
    for (const auto& [group, channel] : channels) {
        if (channel.enabled && sourceAddress(channel.source)) {
            first = first == nullptr ? &channel : first;
            ++count;
        }
    }
    if (count == 0 || passive || sourceJoins_.byMeter()) {
        return {};
    }
    return first->source + "@" + first->group.text() +
           (count == 1 ? " names a source"
                       : " and " + std::to_string(count - 1) + " more channels name a source") +
           ": without kestor-meter the probe joins " + (count == 1 ? "its group" : "their groups") +
           " from all sources";
}

}  // namespace station
