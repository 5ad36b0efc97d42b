// Sync bytes (ETSI TR 101 290, 5.2.1, 1.1 and 1.2). Places of packets are known, so nothing is ever searched
// for.
#pragma once

#include <cstdint>

namespace meter {

class Synchronisation {
  public:
    enum class Finding : uint8_t { kNothing, kLost, kFound };

    // Whether packets with a sync byte need no look: nothing is wrong and nothing was in the packet before.
    bool calm() const {
        return calm_;
    }
    bool lost() const {
        return lost_;
    }
    Finding packet(bool syncByte) {
        const Finding finding = judge(syncByte);
        calm_ = !lost_ && wrong_ == 0;
        return finding;
    }

  private:
    static constexpr uint8_t kPacketsToLose = 2;
    static constexpr uint8_t kPacketsToFind = 5;

    Finding judge(bool syncByte) {
        if (syncByte) {
            wrong_ = 0;
            if (lost_ && ++right_ == kPacketsToFind) {
                lost_ = false;
                return Finding::kFound;
            }
            return Finding::kNothing;
        }
        right_ = 0;
        if (wrong_ < kPacketsToLose && ++wrong_ == kPacketsToLose && !lost_) {
            lost_ = true;
            return Finding::kLost;
        }
        return Finding::kNothing;
    }

    bool calm_ = true;
    uint8_t wrong_ = 0;  // in a row
    uint8_t right_ = 0;
    bool lost_ = false;
};

}  // namespace meter
