// The standing controller: answers every request of the probe.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "common/clock.h"
#include "probe/probeLink.h"

namespace station {

// A thread of its own that does nothing but answer. What it says is decided by a ProbeLink.
class Controller {
  public:
    struct Report {
        ProbeLink::Event event = ProbeLink::Event::kNone;
        int32_t sequence = 0;
        Now time;
        bool scanning = false;
        bool cleared = false;      // this answer told the probe to start all counters anew
        bool secondAsker = false;  // somebody else asks beside the one that is told what to watch
    };

    // `report` is called on the controller's thread after each answer to the asker that is told what to
    // watch, and must not wait.
    Controller(std::string endpoint, std::function<void(const Report&)> report);
    ~Controller();  // ends the thread, within about a second
    Controller(const Controller&) = delete;

    // What ProbeLink's functions of these names say. Any thread; at once.
    void want(Groups groups, Groups passively = {});
    void setPassive(std::optional<bool> passive);
    void setIgmpLatency(std::optional<std::chrono::milliseconds> latency);
    void clearCounters();
    void rejoin(const Groups& groups);
    void shown(const Groups& groups, SteadyTime began);

    // Why nothing can be answered, or empty. Any thread.
    std::string problem() const;

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
