#include "probeWatch.h"

#include <algorithm>
#include <utility>

namespace station {

namespace {

using namespace std::chrono_literals;

constexpr auto kRequestsOverdue = 2s;
constexpr auto kSnapshotsOverdue = 3s;

}  // namespace

void ProbeWatch::request(const Controller::Report& report) {
    lastRequest_ = report.time.steady;
    state_.lastRequest = report.time.wall;
    state_.sequence = report.sequence;
    ++state_.requests;
    state_.restarts += report.event == ProbeLink::Event::kRestarted ? 1 : 0;
    scanning_ = report.scanning;
}

void ProbeWatch::snapshot(const RawSnapshot& raw) {
    lastSnapshot_ = raw.ended.steady;
    state_.lastSnapshot = raw.ended.wall;
    state_.snapshotBytes = raw.text.size();
    ++state_.snapshots;
}

bool ProbeWatch::silent(SteadyTime now) const {
    return now - std::max(lastRequest_, awakeSince_) > kRequestsOverdue ||
           now - std::max(lastSnapshot_, awakeSince_) > kSnapshotsOverdue;
}

bool ProbeWatch::updateConnected(SteadyTime now) {
    // Standing still oneself tells nothing of the probe: what was known holds until something comes or is
    // overdue.
    const bool connected = !silent(now) && (heard() || state_.connected);
    return std::exchange(state_.connected, connected) != connected;
}

std::string ProbeWatch::whySilent(SteadyTime now, const std::string& portProblem,
                                  const std::string& pipeProblem) const {
    if (now - lastRequest_ > kRequestsOverdue) {
        return "no request from the probe for more than 2 s: " +
               (portProblem.empty() ? "is kestor -s running?" : portProblem);
    }
    return "no snapshot from the probe for more than 3 s: " +
           (pipeProblem.empty() ? "does something else read its pipe?" : pipeProblem);
}

bool ProbeWatch::fresh(SteadyTime sample, SteadyTime now) const {
    return state_.connected && now - sample <= kSnapshotsOverdue;
}

}  // namespace station
