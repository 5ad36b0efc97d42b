// How much this machine lost, by who lost it.
#pragma once

#include <cstdint>

namespace station {

// What the meter counts of its own losses, since some moment. Each only grows.
struct LossCounts {
    uint64_t kernel = 0;  // frames for which the ring had no place
    uint64_t card = 0;    // frames that the card or its driver dropped
    uint64_t cut = 0;     // frames that the kernel handed over in part
    uint64_t suspendedMs = 0;

    uint64_t frames() const {
        return kernel + card + cut;
    }
    LossCounts& operator+=(const LossCounts& other);
    // What came since; nothing of what stepped back.
    LossCounts since(const LossCounts& before) const;
};

}  // namespace station
