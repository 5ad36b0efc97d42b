// Numbers of the latest minute, one a second.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

namespace meter {

inline constexpr std::size_t kMinuteSeconds = 60;

class SecondRing {
  public:
    // So many whole seconds ended with `value` each.
    void push(uint32_t value, int64_t seconds = 1) {
        for (int64_t i = std::min<int64_t>(seconds, kMinuteSeconds); i > 0; --i) {
            values_[next_] = value;
            next_ = static_cast<uint8_t>((next_ + 1U) % kMinuteSeconds);
            size_ = static_cast<uint8_t>(std::min<std::size_t>(size_ + 1U, kMinuteSeconds));
        }
    }
    void clear() {
        size_ = 0;
        next_ = 0;
    }
    bool empty() const {
        return size_ == 0;
    }
    // REQUIRES: not empty.
    uint32_t latest() const {
        return values_[(next_ + kMinuteSeconds - 1) % kMinuteSeconds];
    }
    uint32_t lowest() const {
        return *std::min_element(values_.begin(), values_.begin() + size_);
    }
    uint32_t highest() const {
        return *std::max_element(values_.begin(), values_.begin() + size_);
    }

  private:
    std::array<uint32_t, kMinuteSeconds> values_;
    uint8_t next_ = 0;
    uint8_t size_ = 0;
};

}  // namespace meter
