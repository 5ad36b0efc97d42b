// What is measured of one PID's PCRs (ETSI TR 101 290, 5.3.2).
#pragma once

#include <algorithm>
#include <optional>

#include "clocks/accuracyBlock.h"
#include "clocks/clockOffset.h"
#include "clocks/recentRates.h"
#include "clocks/streamTime.h"
#include "meter/report.h"

namespace meter {

struct PcrFinding {
    bool first = false;          // of the PID: nothing to compare it with
    Ticks interval = 0;          // of stream time, since the one before
    bool discontinuity = false;  // not signalled
    bool compared = false;       // bytes with time since the PCR before, at a constant rate
    int64_t missing = 0;         // packets that the stream is short of by this clock; below 0: too many
    AccuracyFinding accuracy;
};

// A PCR, and what it says of later moments.
struct PcrReading {
    Ticks value;
    Ticks streamTime;  // of its packet

    Ticks valueAt(Ticks later) const {
        return (value + std::max<Ticks>(later - streamTime, 0)) % kPcrModulus;
    }
};

class ProgramClock {
  public:
    // Fetches what pcr() is about to touch.
    void fetch() const {
        constexpr std::size_t kLine = 64;
        const auto* const begin = reinterpret_cast<const uint8_t*>(this);
#pragma GCC unroll 8
        for (std::size_t at = 0; at < sizeof *this; at += kLine) {
            __builtin_prefetch(begin + at);
        }
    }
    // A PCR of the packet at `moment`. `own`: its stream time, not held back; `signalled`:
    // discontinuity_indicator came since the PCR before.
    PcrFinding pcr(Ticks value, const Moment& moment, Ticks own, bool signalled);
    // A packet of any PID is missing here.
    AccuracyFinding packetsMissing();
    // The recording ends.
    AccuracyFinding finish() {
        return closeBlock();
    }
    void secondEnded(int64_t second) {
        offset_.secondEnded(second);
    }

    uint64_t count() const {
        return count_;
    }
    const RecentRates& rates() const {
        return rates_;
    }
    // Whether a PCR came within what the rates are of: one that ended long ago speaks for nothing.
    bool runs(Ticks now) const {
        return count_ > 0 && now - streamTime_ <= RecentRates::kSpan;
    }
    void fill(ClockReport& report, bool bare) const;
    std::size_t heldBytes() const {
        return rates_.heldBytes() + block_.heldBytes() + offset_.heldBytes();
    }

  private:
    AccuracyFinding closeBlock();
    int64_t missingPackets(Ticks step, uint64_t packets) const;

    uint64_t count_ = 0;
    Ticks value_ = 0;       // the last one
    Ticks sum_ = 0;         // of the steps: grows, whatever the values do
    Ticks streamTime_ = 0;  // of its packet
    Ticks own_ = 0;         // and not held back
    uint64_t position_ = 0;
    bool missing_ = false;  // packets of some PID, since the last PCR

    RecentRates rates_;
    AccuracyBlock block_;
    ClockOffset offset_;

    Ticks highestInterval_ = 0;
    Ticks intervals_ = 0;
    uint64_t intervalCount_ = 0;
    double worstNs_ = 0;
    double lastWorstNs_ = 0;
    uint64_t measured_ = 0;
    uint64_t over500_ = 0;
    uint64_t signalled_ = 0;
    uint64_t unsignalled_ = 0;
};

}  // namespace meter
