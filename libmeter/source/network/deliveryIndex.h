// The Media Delivery Index (RFC 4445): delay factor and media loss rate, each second.
#pragma once

#include <algorithm>
#include <limits>
#include <optional>

#include "fields/moment.h"

namespace meter {

class DeliveryIndex {
  public:
    DeliveryIndex() = default;

    // A datagram so long after the begin of the second (0 to 1 s), with so many bytes of transport packets.
    void datagram(Nanoseconds intoSecond, uint64_t bytes) {
        bytes_ += bytes;
        if (byteTime_ == 0) {
            return;
        }
        // The buffer in time at the media rate, so that it drains by the time that passes.
        const int64_t before = filled_ - (intoSecond << kFraction);
        filled_ = std::min(filled_ + static_cast<int64_t>(bytes * byteTime_), kFullest);
        lowest_ = std::min(lowest_, before);
        highest_ = std::max(highest_, filled_ - (intoSecond << kFraction));
    }
    // Transport packets in datagrams that were found lost, or out of order.
    struct Loss {
        uint64_t byCounter = 0;
        int64_t byClock = 0;
        uint64_t byRtp = 0;
        uint64_t outOfOrder = 0;
    };
    Loss& loss() {
        return loss_;
    }
    // A whole second ended in which the loss was so high. The next one's media rate is `rateBytes` in
    // `rateTicks`; where that is 0, that of the second before.
    void secondEnded(uint64_t lossRate, uint64_t rateBytes, uint64_t rateTicks);

    // The flow is another one; the highest ones stay.
    void restart() {
        *this = DeliveryIndex(delayFactorHighest_, lossRateHighest_);
    }

    std::optional<Nanoseconds> delayFactor() const {
        return delayFactor_;
    }
    std::optional<Nanoseconds> delayFactorHighest() const {
        return delayFactorHighest_;
    }
    std::optional<uint64_t> lossRate() const {
        return lossRate_;
    }
    std::optional<uint64_t> lossRateHighest() const {
        return lossRateHighest_;
    }

  private:
    DeliveryIndex(std::optional<Nanoseconds> delayFactorHighest, std::optional<uint64_t> lossRateHighest)
        : delayFactorHighest_(delayFactorHighest), lossRateHighest_(lossRateHighest) {}

    static constexpr int kFraction = 16;
    // ns a byte: slower than 80 bit/s is no media rate, and products stay within 64 bits.
    static constexpr uint64_t kSlowest = uint64_t{100'000'000} << kFraction;
    static constexpr int64_t kFullest = int64_t{1} << 61;

    uint64_t byteTime_ = 0;  // ns with a fraction; 0: no rate
    int64_t filled_ = 0;
    int64_t lowest_ = std::numeric_limits<int64_t>::max();  // above the highest before the first datagram
    int64_t highest_ = std::numeric_limits<int64_t>::min();
    uint64_t bytes_ = 0;
    Loss loss_;
    std::optional<Nanoseconds> delayFactor_;
    std::optional<Nanoseconds> delayFactorHighest_;
    std::optional<uint64_t> lossRate_;
    std::optional<uint64_t> lossRateHighest_;
};

}  // namespace meter
