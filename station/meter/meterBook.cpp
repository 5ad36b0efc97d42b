#include "meter/meterBook.h"

#include <algorithm>
#include <utility>

#include "meter/report.h"
#include "reportMessages.h"

namespace station {

namespace {

constexpr double kMicrosecondsPerSecond = 1e6;

// How often it was repeated is no part of what a cue is.
std::string contentOf(metering::Cue cue) {
    cue.clear_repetitions();
    return cue.SerializeAsString();
}

std::size_t sizeOf(const MeterReport& report) {
    return report.levels->size() + (report.description ? report.description->size() : 0);
}

}  // namespace

meter::Report MeterReport::read() const {
    metering::GroupReport from;
    from.ParseFromString(*levels);
    metering::Description described;
    if (description) {
        described.ParseFromString(*description);
    }
    meter::Report report = metering::readReport(from, described);
    report.live.emplace();
    report.live->disturbed = disturbed;
    report.live->disturbedSeconds = from.disturbed_seconds();
    if (from.has_last_disturbed()) {
        report.live->lastDisturbed = from.last_disturbed();
    }
    if (from.has_left_out()) {
        const metering::LeftOut& left = from.left_out();
        report.live->leftOut = {left.cues(), left.changes(),    left.services(), left.streams(),
                                left.pids(), left.check_pids(), left.clocks(),   left.service_levels()};
    }
    if (from.has_join_latency_ms()) {
        report.live->joinLatencyMs = from.join_latency_ms();
    }
    return report;
}

std::vector<meter::CueReport> MeterReport::cuesBut(const std::vector<MeterCue>& known) const {
    std::set<std::string> contents;
    for (const MeterCue& cue : known) {
        metering::Cue message;
        message.ParseFromString(*cue.bytes);
        contents.insert(contentOf(std::move(message)));
    }
    metering::Description described;
    if (description) {
        described.ParseFromString(*description);
    }
    std::vector<meter::CueReport> others;
    for (const metering::Cue& cue : described.cue()) {
        if (!contents.contains(contentOf(cue))) {
            others.push_back(metering::readCue(cue));
        }
    }
    return others;
}

std::optional<MeterReport> MeterBook::find(const Group& group) const {
    const std::lock_guard lock(mutex_);
    const auto found = reports_.find(group.hostOrder());
    return found == reports_.end() ? std::nullopt : std::optional(withTallies(*found));
}

MeterReports MeterBook::all() const {
    const std::lock_guard lock(mutex_);
    MeterReports all;
    all.reserve(reports_.size());
    for (const auto& kept : reports_) {
        all.emplace_back(kept.first, withTallies(kept));
    }
    return all;
}

std::vector<MeterCue> MeterBook::cues(const Group& group) const {
    const std::lock_guard lock(mutex_);
    const auto found = cues_.find(group.hostOrder());
    return found == cues_.end()
               ? std::vector<MeterCue>()
               : std::vector<MeterCue>(found->second.kept.rbegin(), found->second.kept.rend());
}

MeterBriefs MeterBook::briefs(SteadyTime now) const {
    const std::lock_guard lock(mutex_);
    MeterBriefs briefs;
    briefs.reserve(reports_.size());
    auto cues = cues_.begin();
    const auto withCues = [&briefs](const auto& series, std::shared_ptr<const MeterFacts> facts) {
        briefs.emplace_back(series.first,
                            MeterBrief{std::move(facts), series.second.kept.back().time, series.second.out});
    };
    for (const auto& [group, report] : reports_) {
        const auto facts = now - report.time.steady > kMeterReportHolds ? nullptr : report.facts;
        for (; cues != cues_.end() && cues->first < group; ++cues) {
            withCues(*cues, nullptr);
        }
        if (cues != cues_.end() && cues->first == group) {
            withCues(*cues++, facts);
        } else {
            briefs.emplace_back(group, MeterBrief{.facts = facts});
        }
    }
    for (; cues != cues_.end(); ++cues) {
        withCues(*cues, nullptr);
    }
    return briefs;
}

MeterReport MeterBook::withTallies(const std::pair<const uint32_t, MeterReport>& kept) const {
    MeterReport report = kept.second;
    const auto tallies = tallies_.find(kept.first);
    if (tallies != tallies_.end()) {
        report.tallies = tallies->second.told;
        report.tallies.loss = tallies->second.loss.totals();
    }
    return report;
}

MeterState MeterBook::state(SteadyTime now) const {
    const std::lock_guard lock(mutex_);
    MeterState state = state_;
    state.silent = state.connected && now - std::max(lastSecond_, state.sinceSteady) > kSilence;
    for (const Thread& thread : threads_) {
        const metering::Capture& capture = thread.capture;
        state.reported += thread.reported;
        state.interface = state.interface.empty() ? capture.interface() : state.interface;
        state.captureProblem = state.captureProblem.empty() ? capture.problem() : state.captureProblem;
        if (capture.socket() != 0) {
            state.sockets.insert(capture.socket());
        }
        state.frames += capture.frames();
        state.kernelDrops += capture.kernel_drops();
        if (capture.has_card_drops()) {  // each looks at the whole interface
            state.cardDrops = std::max(state.cardDrops.value_or(0), capture.card_drops());
        }
        state.cutFrames += capture.cut_frames();
        state.cpuSeconds += static_cast<double>(capture.processor_us()) / kMicrosecondsPerSecond;
        state.joined = std::max(state.joined, capture.joined());  // each tells those of the program
        state.joinFailures = std::max(state.joinFailures, capture.join_failures());
        state.joinProblem = state.joinProblem.empty() ? capture.join_problem() : state.joinProblem;
        state.disturbed = state.disturbed || capture.disturbed();
    }
    state.threads = static_cast<uint32_t>(threads_.size());
    state.eventsLost += mail_.dropped();
    return state;
}

void MeterBook::drop(uint32_t group) {
    const auto found = reports_.find(group);
    if (found != reports_.end()) {
        bytes_ -= sizeOf(found->second);
        reports_.erase(found);
    }
}

void MeterBook::watch(std::set<uint32_t> groups, std::size_t leftOut, std::size_t joins) {
    const std::lock_guard lock(mutex_);
    state_.groups = groups.size();
    state_.groupsLeftOut = leftOut;
    state_.toJoin = joins;
    for (const uint32_t group : watched_) {
        if (!groups.contains(group)) {
            drop(group);
            tallies_.erase(group);
            dropCues(group);
        }
    }
    watched_ = std::move(groups);
}

bool MeterBook::watches(uint32_t group) const {
    const std::lock_guard lock(mutex_);
    return watched_.contains(group);
}

void MeterBook::setConfigured(bool configured) {
    const std::lock_guard lock(mutex_);
    state_.configured = configured;
}

void MeterBook::setProblem(const std::string& problem) {
    const std::lock_guard lock(mutex_);
    state_.problem = problem;
}

void MeterBook::connected(const std::string& version, const Now& now) {
    const std::lock_guard lock(mutex_);
    state_.connected = true;
    state_.version = version;
    state_.since = now.wall;
    state_.sinceSteady = now.steady;
    state_.problem.clear();
    ++state_.connections;
}

void MeterBook::disconnected(const Now& now) {
    mail_.forget();
    const std::lock_guard lock(mutex_);
    if (state_.connected) {
        state_.since = now.wall;
        state_.sinceSteady = now.steady;
    }
    state_.connected = false;
    reports_.clear();
    bytes_ = 0;
    threads_.clear();
    state_.secondsLost = state_.eventsLost = 0;
}

bool MeterBook::second(const metering::Second& part, std::size_t reports, const Now& now) {
    if (part.threads() == 0 || part.threads() > kThreadsLimit || part.thread() >= part.threads()) {
        return false;
    }
    const std::lock_guard lock(mutex_);
    threads_.resize(part.threads());
    Thread& thread = threads_[part.thread()];
    if (thread.known) {
        LossCounts lost = lossCounts(part.capture()).since(lossCounts(thread.capture));
        if (part.thread() != 0) {  // each looks at the whole card, and the machine sleeps as a whole
            lost.card = lost.suspendedMs = 0;
        }
        state_.lost += lost;
    }
    thread.known = true;
    thread.capture = part.capture();
    thread.reporting = (part.part() == 0 ? 0 : thread.reporting) + reports;
    state_.lastSecond = now.wall;
    lastSecond_ = now.steady;
    state_.secondsLost = std::max(state_.secondsLost, part.seconds_lost());
    state_.eventsLost = std::max(state_.eventsLost, part.events_lost());
    if (part.last()) {
        thread.reported = std::exchange(thread.reporting, 0);
        ++state_.seconds;
    }
    return true;
}

bool MeterBook::report(uint32_t group, MeterReport&& report) {
    const std::lock_guard lock(mutex_);
    if (!watched_.contains(group)) {
        return true;  // of channels as they were a moment ago
    }
    // Without room for it the one before stays, with its description, which is not told again.
    const auto before = reports_.find(group);
    Tally& tally = tallies_[group];
    if (before == reports_.end() || before->second.second != report.second) {
        tally.told.mediaLost += report.lossRate;  // each second of the analysis once
    }
    tally.loss.follow(report.loss);
    if (before != reports_.end() && !report.description) {
        report.description = before->second.description;
        report.facts = before->second.facts;
    }
    const std::size_t freed = before == reports_.end() ? 0 : sizeOf(before->second);
    if (bytes_ - freed + sizeOf(report) > kBytes) {
        ++state_.reportsDropped;
        return false;
    }
    drop(group);
    bytes_ += sizeOf(report);
    report.number = ++number_;
    reports_.emplace(group, std::move(report));
    return true;
}

void MeterBook::skipped() {
    const std::lock_guard lock(mutex_);
    ++state_.reportsDropped;
}

void MeterBook::happened(uint32_t group) {
    const std::lock_guard lock(mutex_);
    ++state_.events;
    if (watched_.contains(group)) {
        ++tallies_[group].told.changes;
    }
}

void MeterBook::cue(uint32_t group, const metering::Cue& cue, const Now& now) {
    auto bytes = std::make_shared<const std::string>(cue.SerializeAsString());
    const std::lock_guard lock(mutex_);
    ++state_.events;
    if (!watched_.contains(group)) {
        return;
    }
    ++tallies_[group].told.cues;
    Cues& cues = cues_[group];
    if (cue.has_out() && !cue.cancelled()) {
        cues.out = cue.out();
    }
    cueBytes_ += bytes->size();
    cues.kept.push_back({now.wall, std::move(bytes)});
    while (cues.kept.size() > kCuesKept || (cueBytes_ > kCueBytes && cues.kept.size() > 1)) {
        dropOldest(cues);
    }
}

void MeterBook::dropOldest(Cues& cues) {
    cueBytes_ -= cues.kept.front().bytes->size();
    cues.kept.pop_front();
}

void MeterBook::dropCues(uint32_t group) {
    if (const auto found = cues_.find(group); found != cues_.end()) {
        while (!found->second.kept.empty()) {
            dropOldest(found->second);
        }
        cues_.erase(found);
    }
}

}  // namespace station
