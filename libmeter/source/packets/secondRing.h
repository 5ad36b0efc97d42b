// Numbers of the latest minute, one a second.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace meter {

inline constexpr std::size_t kMinuteSeconds = 60;

class SecondRing {
  public:
    // So many whole seconds ended with `value` each.
    void push(uint32_t value, int64_t seconds = 1) {
        for (int64_t i = std::min<int64_t>(seconds, kMinuteSeconds); i > 0; --i) {
            if (value > UINT16_MAX && !high_) {
                high_ = std::make_unique<Halves>();
            }
            low_[next_] = static_cast<uint16_t>(value);
            if (high_) {
                (*high_)[next_] = static_cast<uint16_t>(value >> 16);
            }
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
        return at((next_ + kMinuteSeconds - 1) % kMinuteSeconds);
    }
    uint32_t lowest() const {
        uint32_t lowest = UINT32_MAX;
        for (std::size_t i = 0; i < size_; ++i) {
            lowest = std::min(lowest, at(i));
        }
        return lowest;
    }
    uint32_t highest() const {
        uint32_t highest = 0;
        for (std::size_t i = 0; i < size_; ++i) {
            highest = std::max(highest, at(i));
        }
        return highest;
    }

  private:
    using Halves = std::array<uint16_t, kMinuteSeconds>;

    uint32_t at(std::size_t place) const {
        return low_[place] | (high_ ? uint32_t{(*high_)[place]} << 16 : 0);
    }

    Halves low_;
    std::unique_ptr<Halves> high_;  // none before a value needs it: below 98 Mbit/s of transport packets
    uint8_t next_ = 0;
    uint8_t size_ = 0;
};

}  // namespace meter
