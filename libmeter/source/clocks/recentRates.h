// The rates between the PCRs of the latest 10 s, in order of size as well.
#pragma once

#include <optional>
#include <vector>

#include "clocks/streamTime.h"

namespace meter {

class RecentRates {
  public:
    static constexpr Ticks kSpan = 10 * kTicksPerSecond;
    // A PCR each 5 ms for 10 s; with more of them the oldest make room.
    static constexpr std::size_t kLimit = 2048;

    // Of the ticks and of the packets of a rate: 0.6 s, and more packets than a link of 250 Gbit/s carries in
    // the time between two PCRs.
    static constexpr uint32_t kPartLimit = (1U << 24) - 1;

    // A rate that ended at `now`; drops what is older than the span.
    // REQUIRES: ticks and packets from 1 to kPartLimit; `now` not before the last one's.
    void add(const Pace& pace, Ticks now);
    void clear();
    // Fetches what add() is about to touch.
    void fetch() const;
    bool empty() const {
        return order_.empty();
    }
    // REQUIRES: not empty.
    Pace median() const {
        return median_;
    }
    // Whether there are the 8 or more that constant() needs.
    bool judged() const;
    // Whether 8 or more rates lie as close together as those of a constant bit rate do.
    bool constant() const {
        return constant_;
    }
    // Packets and ticks of all of them.
    uint64_t packets() const {
        return packets_;
    }
    uint64_t ticks() const {
        return ticks_;
    }
    std::size_t heldBytes() const;

  private:
    static constexpr std::size_t kFirstCapacity = 64;

    // Eight bytes, as a clock holds hundreds.
    struct Sample {
        uint64_t ticks : 24;
        uint64_t packets : 24;
        uint64_t time : 16;  // ms, modulo 2^16: none is further than the span behind the newest

        Pace pace() const {
            return {static_cast<uint32_t>(ticks), static_cast<uint32_t>(packets)};
        }
    };
    bool rateLess(uint16_t a, uint16_t b) const;
    void insert(uint16_t index);
    void dropOldest();
    void grow();
    void judge();

    std::vector<Sample> ring_;     // its size is its capacity
    std::vector<uint16_t> order_;  // indices into the ring, from the lowest rate on; equal ones by age
    std::size_t oldest_ = 0;
    uint32_t newestMs_ = 0;  // when the newest ended, modulo 2^32
    uint64_t packets_ = 0;
    uint64_t ticks_ = 0;
    Pace median_;
    uint16_t lowIndex_ = 0;  // where those that judge() looked at last are
    uint16_t medianIndex_ = 0;
    uint16_t highIndex_ = 0;
    bool constant_ = false;
};

}  // namespace meter
