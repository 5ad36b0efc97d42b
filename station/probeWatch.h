// Whether the probe is there: what the owner knows of its requests and snapshots.
#pragma once

#include <string>

#include "probe/controller.h"
#include "probe/pipeReader.h"
#include "state.h"

namespace station {

// One thread, no I/O.
class ProbeWatch {
  public:
    explicit ProbeWatch(SteadyTime start) : awakeSince_(start) {}

    void request(const Controller::Report& report);
    void snapshot(const RawSnapshot& raw);
    void droppedLine() {
        ++state_.droppedLines;
    }
    // This process itself stood still until now, so that nothing that is overdue tells of the probe.
    void wokeUp(SteadyTime now) {
        awakeSince_ = now;
    }

    // No request for more than 2 s, or no snapshot for more than 3 s.
    bool silent(SteadyTime now) const;
    // Both a request and a snapshot came since the start, or since this process stood still.
    bool heard() const {
        return lastRequest_ > awakeSince_ && lastSnapshot_ > awakeSince_;
    }
    // Takes over whether it is connected: heard and not silent. True when that has changed.
    bool updateConnected(SteadyTime now);
    // REQUIRES: silent. A sentence for an operator: what is wrong with the controller's port or with the
    // pipe, where that is known.
    std::string whySilent(SteadyTime now, const std::string& portProblem,
                          const std::string& pipeProblem) const;
    // Whether a channel's sample of that time is still what is.
    bool fresh(SteadyTime sample, SteadyTime now) const;
    bool scanning() const {
        return scanning_;
    }

    const ProbeState& state() const {
        return state_;
    }

  private:
    ProbeState state_;
    SteadyTime lastRequest_;
    SteadyTime lastSnapshot_;
    SteadyTime awakeSince_;
    bool scanning_ = false;
};

}  // namespace station
