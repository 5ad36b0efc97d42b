#include "meter/meterBook.h"

#include <algorithm>
#include <utility>

#include "meter/report.h"
#include "reportMessages.h"

namespace station {

namespace {

constexpr double kMicrosecondsPerSecond = 1e6;

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
    if (from.has_join_latency_ms()) {
        report.live->joinLatencyMs = from.join_latency_ms();
    }
    return report;
}

std::optional<MeterReport> MeterBook::find(const Group& group) const {
    const std::lock_guard lock(mutex_);
    const auto found = reports_.find(group.hostOrder());
    return found == reports_.end() ? std::nullopt : std::optional(found->second);
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
        state.cardDrops =
            std::max(state.cardDrops, capture.card_drops());  // each looks at the whole interface
        state.cpuSeconds += static_cast<double>(capture.processor_us()) / kMicrosecondsPerSecond;
        state.joined = std::max(state.joined, capture.joined());  // each tells those of the program
        state.joinFailures = std::max(state.joinFailures, capture.join_failures());
        state.joinProblem = state.joinProblem.empty() ? capture.join_problem() : state.joinProblem;
        state.disturbed = state.disturbed || capture.disturbed();
    }
    state.threads = static_cast<uint32_t>(threads_.size());
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
        }
    }
    watched_ = std::move(groups);
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
    const std::lock_guard lock(mutex_);
    if (state_.connected) {
        state_.since = now.wall;
        state_.sinceSteady = now.steady;
    }
    state_.connected = false;
    reports_.clear();
    bytes_ = 0;
    threads_.clear();
    state_.secondsLost = 0;
}

bool MeterBook::second(const metering::Second& part, std::size_t reports, const Now& now) {
    if (part.threads() == 0 || part.threads() > kThreadsLimit || part.thread() >= part.threads()) {
        return false;
    }
    const std::lock_guard lock(mutex_);
    threads_.resize(part.threads());
    Thread& thread = threads_[part.thread()];
    thread.capture = part.capture();
    thread.reporting = (part.part() == 0 ? 0 : thread.reporting) + reports;
    state_.lastSecond = now.wall;
    lastSecond_ = now.steady;
    state_.secondsLost = std::max(state_.secondsLost, part.seconds_lost());
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
    if (const auto before = reports_.find(group); before != reports_.end() && !report.description) {
        report.description = before->second.description;
    }
    drop(group);
    if (bytes_ + sizeOf(report) > kBytes) {
        ++state_.reportsDropped;
        return false;
    }
    bytes_ += sizeOf(report);
    report.number = ++number_;
    reports_.emplace(group, std::move(report));
    return true;
}

void MeterBook::skipped() {
    const std::lock_guard lock(mutex_);
    ++state_.reportsDropped;
}

void MeterBook::happened() {
    const std::lock_guard lock(mutex_);
    ++state_.events;
}

}  // namespace station
