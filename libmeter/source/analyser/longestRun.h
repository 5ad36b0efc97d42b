// The longest of the runs of loss.
#pragma once

#include <algorithm>
#include <cstdint>

namespace meter {

// In packets. What was found lately goes on being told until a whole second has passed behind the one in
// which it was found, so that who asks once a second misses none.
class LongestRun {
  public:
    void add(uint64_t packets) {
        ever_ = std::max(ever_, packets);
        now_ = std::max(now_, packets);
    }
    void secondsEnded(int64_t seconds) {
        before_ = seconds == 1 ? now_ : 0;
        now_ = 0;
    }
    uint64_t ever() const {
        return ever_;
    }
    // Of the second that runs and the one before it.
    uint64_t lately() const {
        return std::max(now_, before_);
    }

  private:
    uint64_t ever_ = 0;
    uint64_t now_ = 0;
    uint64_t before_ = 0;
};

}  // namespace meter
