// Whether the meter is there, by what its port knows of it.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>

#include "measures/presence.h"
#include "meter/meterBook.h"
#include "meter/meterState.h"

namespace station {

// What is found for the alarms meter_silent and capture_loss.
struct MeterFindings {
    std::optional<bool> silent{};  // nothing while none is to be there
    SteadyTime since{};            // where it is
    std::string why{};             // a sentence for an operator
    // Since the findings before: frames that this machine lost, and each second in which it slept for one
    // more; in how many seconds. Nothing while the meter does not tell.
    struct Lost {
        uint64_t count = 0;
        uint64_t seconds = 0;
    };
    std::optional<Lost> lost{};
};

// One thread, no I/O.
class MeterWatch : public Presence {
  public:
    // A meter that is to be there is given so long to come after the station's start.
    static constexpr std::chrono::seconds kFirstMeter{15};
    // Alarms that it raised before that start and that it alone can clear are given up after this time
    // without one.
    static constexpr std::chrono::minutes kLastHope{10};

    // A meter is to be there: somebody named its socket, or one was there before.
    void expect() {
        expected_ = true;
    }
    // About once a second.
    MeterFindings judge(const MeterState& meter, SteadyTime now);
    // "20 by the kernel, 3 by the card", of that time before now, at most a minute.
    std::string lostIn(std::chrono::seconds time, SteadyTime now) const;
    // One measured since the station's start.
    bool seen() const {
        return seen_;
    }
    // None measured since the station's start, for kLastHope.
    bool hopeless(SteadyTime now) const {
        return !seen_ && began_ && now - *began_ > kLastHope;
    }
    // As of the last judge().
    bool fresh(SteadyTime sample, SteadyTime now) const override {
        return there_ && now - sample <= MeterBook::kSilence;
    }

  private:
    static constexpr std::chrono::seconds kLostKept{60};

    bool there_ = false;
    bool seen_ = false;  // one was there since the station's start
    bool expected_ = false;
    std::optional<SteadyTime> began_;  // the first look
    std::optional<SteadyTime> silentSince_;
    LossCounts counts_;                                   // at the last look
    std::deque<std::pair<SteadyTime, LossCounts>> lost_;  // of kLostKept, one a look
};

}  // namespace station
