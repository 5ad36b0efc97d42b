// Frequency offset and overall jitter of a program's clock against arrival (ETSI TR 101 290, 5.3.2.1
// and 5.3.2.6).
#pragma once

#include <optional>
#include <vector>

#include "fields/moment.h"

namespace meter {

class ClockOffset {
  public:
    static constexpr int64_t kSeconds = 100;
    static constexpr std::size_t kSecondsToMeasure = 30;

    // `time`: PCR values summed up, so that they only grow. Both since some begin of their own.
    void pcr(Nanoseconds arrival, Ticks time);
    // Whole seconds of arrival ended; `second` is the first that did.
    void secondEnded(int64_t second);
    // The clock stepped.
    void restart();

    // Positive when the program's clock is fast.
    std::optional<double> ppm() const;
    std::optional<double> jitterNs() const {
        return jitterNs_;
    }
    std::size_t heldBytes() const {
        return lows_.capacity() * sizeof(Low);
    }

  private:
    // Arrival less PCR in 1/27 ns, which both are whole multiples of.
    struct Low {
        int64_t second;
        Nanoseconds arrival;
        int64_t delay;
    };

    std::vector<Low> lows_;   // oldest first; at most kSeconds
    std::optional<Low> low_;  // of the second that runs
    std::optional<double> slope_;
    double lowestOff_ = 0;  // off the line, of the second that runs
    double highestOff_ = 0;
    bool anyOff_ = false;
    std::optional<double> jitterNs_;
};

}  // namespace meter
