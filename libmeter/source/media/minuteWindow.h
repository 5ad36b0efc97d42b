// Lowest, highest and mean of values over the last minute, by whole seconds.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>

namespace meter {

class MinuteWindow {
  public:
    struct Summary {
        uint32_t lowest = 0;
        uint32_t highest = 0;
        uint64_t sum = 0;
        uint32_t count = 0;
    };

    void add(uint32_t value) {
        if (!seconds_)
            seconds_ = std::make_unique<Summary[]>(kSeconds);
        merge(seconds_[current_], {value, value, value, 1});
    }
    // A second ended; what is older than a minute is forgotten.
    void secondEnded() {
        current_ = (current_ + 1) % kSeconds;
        if (seconds_)
            seconds_[current_] = {};
    }
    std::optional<Summary> summary() const {
        Summary all;
        for (std::size_t i = 0; seconds_ && i < kSeconds; ++i)
            merge(all, seconds_[i]);
        return all.count > 0 ? std::optional(all) : std::nullopt;
    }

  private:
    static constexpr std::size_t kSeconds = 61;  // the one that runs and the sixty before

    static void merge(Summary& all, const Summary& part) {
        if (part.count == 0)
            return;
        all.lowest = all.count == 0 ? part.lowest : std::min(all.lowest, part.lowest);
        all.highest = std::max(all.highest, part.highest);
        all.sum += part.sum;
        all.count += part.count;
    }

    std::unique_ptr<Summary[]> seconds_;
    std::size_t current_ = 0;
};

}  // namespace meter
