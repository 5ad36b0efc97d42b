// Asks the owner thread for overviews, one at a time.
#pragma once

#include <deque>
#include <functional>
#include <vector>

#include "state/commands.h"
#include "web/message.h"

namespace station {

struct Services;

// An overview takes the owner some time for each channel and cell, and it has alarms to judge: who asks for
// the same waits for the same, and others wait for their turn. For the I/O thread.
class OverviewDesk {
  public:
    static constexpr std::size_t kWaiting = 32;  // different ones; beyond, they are refused
    // One that was not answered for so long never will be.
    static constexpr std::chrono::seconds kLost{10};

    void ask(Services& services, const QueryOverview& query, bool gzip,
             std::function<void(Response&&)>&& reply);

  private:
    struct Waiting {
        QueryOverview query;
        bool gzip;
        std::vector<std::function<void(Response&&)>> replies;
    };
    void next(Services& services);
    void answered(Services& services, uint64_t turn, const PayloadPointer& payload);

    std::deque<Waiting> waiting_;  // the first is being asked for while `busy_`
    bool busy_ = false;
    uint64_t turn_ = 0;
    SteadyTime since_{};
    // The last answer, and of which state it is.
    PayloadPointer last_;
    QueryOverview lastQuery_{};
    bool lastGzip_ = false;
    uint64_t lastState_ = 0;
};

}  // namespace station
