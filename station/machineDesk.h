// What this machine does to the probe, as alarms: reads it, judges it, and explains by it what else is
// raised.
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "alarms/alarmEngine.h"
#include "common/log.h"
#include "machine/machineReader.h"
#include "machineWatch.h"

namespace station {

// One thread; the reader has one of its own, which the calls below never wait for but where it is said.
class MachineDesk {
  public:
    // Has to outlive it.
    explicit MachineDesk(AlarmEngine& engine) : engine_(engine) {}

    // Readings come from here on; stop() ends the reader's thread.
    void start(MachineSources sources = {}) {
        reader_ = std::make_unique<MachineReader>(std::move(sources));
    }
    void stop() {
        reader_.reset();
    }

    // Takes up what was read and judges it. About once a second.
    std::vector<AlarmChange> judge(const MachineWatch::Probe& probe, const Now& now);
    // Adds to the text of alarms that are raised now what this machine has to do with them. Waits up to 20 ms
    // for a reading when a loss or a missing signal is to be told.
    void explain(std::vector<AlarmChange>& changes, const Now& now);
    // Groups that the probe is to leave and join again, once each time; says so.
    Groups rejoin(const Now& now);
    // The groups that the probe watches are looked for in this machine's memberships.
    void lookFor(const Groups& groups);
    // Packet sockets, by inode, of other programs that capture on purpose: what they receive tells nothing of
    // the probe.
    void setOthers(std::set<uint64_t> sockets) {
        reader_->setOthers(std::move(sockets));
    }

    const MachineWatch& watch() const {
        return watch_;
    }

  private:
    AlarmEngine& engine_;
    MachineWatch watch_;
    LogOnChange unseen_;
    Groups lookedFor_;  // what the reader was told last
    std::unique_ptr<MachineReader> reader_;
};

}  // namespace station
