// Whether the probe is there: what the owner knows of its requests and snapshots.
#pragma once

#include <optional>
#include <string>

#include "alarms/alarmEngine.h"
#include "measures/presence.h"
#include "probe/controller.h"
#include "probe/pipeReader.h"
#include "state/state.h"

namespace station {

// What is known of channels comes with snapshots alone, whoever asks; requests only carry what to watch. So
// each is judged by itself: no snapshot for more than 3 s is silence, no request for more than 2 s beside
// snapshots a fault of its own.
//
// One thread, no I/O.
class ProbeWatch : public Presence {
  public:
    explicit ProbeWatch(SteadyTime start) : awakeSince_(start) {}

    // What the two ends of the link say of themselves.
    struct Ends {
        std::string portProblem;  // empty when all is well
        PipeReader::Statistics pipe;
        std::string noCapture{};  // why a probe that is started finds nothing to capture on, or empty
    };

    void request(const Controller::Report& report);
    void snapshot(const RawSnapshot& raw);
    void restarted() {
        ++state_.restarts;
    }
    void droppedLine() {
        ++state_.droppedLines;
    }
    // This process itself stood still until now, so that nothing that is overdue tells of the probe.
    void wokeUp(SteadyTime now) {
        awakeSince_ = now;
    }

    // What is known at that time; what is not leaves an alarm as it is.
    ProbeLook look(SteadyTime now) const;
    // Takes over what holds now. True when snapshots began to come or ceased.
    bool update(SteadyTime now, const Ends& ends);
    // What is wrong, in a sentence for an operator; empty when nothing is, or nothing is known. As of the
    // last update(): the first for whether snapshots come, the second for requests beside them.
    std::string whySilent() const {
        return state_.connected ? std::string() : state_.problem;
    }
    std::string whyNotAsking() const {
        return state_.connected ? state_.problem : std::string();
    }
    // What is known of an alarm's cause, as a sentence; empty for one that this knows nothing of.
    std::string causeOf(std::string_view alarm) const {
        return alarm == "probe_silent"       ? whySilent()
               : alarm == "probe_not_asking" ? whyNotAsking()
                                             : std::string();
    }
    bool fresh(SteadyTime sample, SteadyTime now) const override;
    bool scanning() const {
        return scanning_;
    }
    // Somebody else than the probe that is told what to watch asks as well.
    bool secondAsker() const {
        return state_.secondAsker;
    }

    const ProbeState& state() const {
        return state_;
    }

  private:
    std::string describe(const ProbeLook& look, const Ends& ends, SteadyTime now) const;

    ProbeState state_;
    SteadyTime lastRequest_;
    SteadyTime lastSnapshot_;
    SteadyTime awakeSince_;
    bool scanning_ = false;
};

}  // namespace station
