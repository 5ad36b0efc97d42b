#include "probeWatch.h"

#include <algorithm>
#include <utility>

namespace station {

namespace {

using namespace std::chrono_literals;

constexpr auto kRequestsOverdue = 2s;
constexpr auto kSnapshotsOverdue = 3s;
// After the start an asker that is there alone is told from one of two by then.
constexpr auto kAskersKnown = 10s;
// A snapshot that was too large is told for so long, though others come.
constexpr auto kTooLargeShown = 60s;

// Nothing while it has neither come nor is overdue.
std::optional<bool> missing(SteadyTime last, SteadyTime awakeSince, SteadyTime now,
                            std::chrono::seconds overdue) {
    if (now - std::max(last, awakeSince) > overdue) {
        return true;
    }
    return last > awakeSince ? std::optional(false) : std::nullopt;
}

}  // namespace

void ProbeWatch::request(const Controller::Report& report) {
    lastRequest_ = report.time.steady;
    state_.lastRequest = report.time.wall;
    state_.sequence = report.sequence;
    ++state_.requests;
    state_.secondAsker = report.secondAsker;
    scanning_ = report.scanning;
}

void ProbeWatch::snapshot(const RawSnapshot& raw) {
    lastSnapshot_ = raw.ended.steady;
    state_.lastSnapshot = raw.ended.wall;
    state_.snapshotBytes = raw.text.size();
    ++state_.snapshots;
}

ProbeLook ProbeWatch::look(SteadyTime now) const {
    ProbeLook look;
    look.silent = missing(lastSnapshot_, awakeSince_, now, kSnapshotsOverdue);
    look.notAsking = missing(lastRequest_, awakeSince_, now, kRequestsOverdue);
    if (look.notAsking == true && look.silent != false) {
        look.notAsking.reset();  // it is told as silence
    }
    if (look.notAsking == false && (state_.secondAsker || now - awakeSince_ > kAskersKnown)) {
        look.secondAsker = state_.secondAsker;
    }
    return look;
}

bool ProbeWatch::update(SteadyTime now, const Ends& ends) {
    const ProbeLook known = look(now);
    state_.asks = !missing(lastRequest_, awakeSince_, now, kRequestsOverdue).value_or(!state_.asks);
    state_.problem = describe(known, ends, now);
    // Standing still oneself tells nothing of the probe: what was known holds until something comes or is
    // overdue.
    const bool connected = !known.silent.value_or(!state_.connected);
    return std::exchange(state_.connected, connected) != connected;
}

std::string ProbeWatch::describe(const ProbeLook& look, const Ends& ends, SteadyTime now) const {
    const std::string limit = std::to_string(PipeReader::kSnapshotLimit >> 20) + " MiB";
    const auto because = [](const std::string& problem, const char* guess) {
        return problem.empty() ? std::string(guess) : problem;
    };
    if (look.silent == true) {
        if (ends.pipe.lastTooLarge > lastSnapshot_) {
            return "snapshots from the probe are larger than " + limit +
                   " and are dropped, so nothing is known: watch fewer channels, or find out which has "
                   "thousands of PIDs";
        }
        if (state_.asks && scanning_) {
            return "the probe scans (kestor -c) and gives no results: channels wait until it monitors "
                   "(kestor -s)";
        }
        if (state_.asks) {
            return "the probe asks what to watch, but no snapshot came from it for more than 3 s: " +
                   because(ends.pipe.problem, "does something else read its pipe?");
        }
        return "neither a request nor a snapshot came from the probe for more than 3 s: " +
               because(ends.portProblem.empty() ? ends.noCapture : ends.portProblem, "is kestor -s running?");
    }
    if (look.notAsking == true) {
        return "snapshots come from the probe, but it did not ask what to watch for more than 2 s: " +
               because(ends.portProblem,
                       "is its way to the controller's port blocked? What it watches goes on, changes do not "
                       "reach it");
    }
    if (ends.pipe.tooLarge > 0 && now - ends.pipe.lastTooLarge < kTooLargeShown) {
        return "some snapshots from the probe are larger than " + limit +
               " and are dropped: watch fewer channels, or find out which has thousands of PIDs";
    }
    return {};
}

bool ProbeWatch::fresh(SteadyTime sample, SteadyTime now) const {
    return state_.connected && now - sample <= kSnapshotsOverdue;
}

}  // namespace station
