#include "network/deliveryIndex.h"

namespace meter {

void DeliveryIndex::secondEnded(uint64_t lossRate, uint64_t rateBytes, uint64_t rateTicks) {
    delayFactor_.reset();
    if (lowest_ <= highest_) {
        delayFactor_ = (highest_ - lowest_) >> kFraction;
        delayFactorHighest_ = std::max(delayFactorHighest_.value_or(0), *delayFactor_);
    }
    lossRate_ = lossRate;
    lossRateHighest_ = std::max(lossRateHighest_.value_or(0), lossRate);
    if (rateBytes > 0 && rateTicks > 0) {
        // 1000 ns are 27 ticks.
        const uint64_t perByte = (rateTicks << kFraction) / rateBytes;
        byteTime_ = perByte * 1000 / 27;
    } else {
        byteTime_ = bytes_ > 0 ? (static_cast<uint64_t>(kNsPerSecond) << kFraction) / bytes_ : 0;
    }
    byteTime_ = std::min(byteTime_, kSlowest);
    bytes_ = 0;
    filled_ = 0;
    lowest_ = std::numeric_limits<int64_t>::max();
    highest_ = std::numeric_limits<int64_t>::min();
    loss_ = {};
}

}  // namespace meter
