// What the last picture of each channel was.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>

#include "exchange.h"

namespace pictured {

struct Difference {
    double mean = 0;  // of absolute differences of luma, 0 to 255
    double peak = 0;
    int64_t since = 0;  // when the other picture was taken, ns
};
Difference compare(const Raster& one, const Raster& other);

// A raster a channel (2.3 KiB), of those that are listed. One thread.
class History {
  public:
    // Differences from the channel's last picture, which this one is from here on; none with another size, or
    // without a last.
    std::optional<Difference> take(uint32_t group, int64_t takenNs, uint32_t width, uint32_t height,
                                   const Raster& raster);
    // Forgets channels for which `listed` is false.
    template <typename Listed>
    void keep(Listed listed) {
        std::erase_if(last_, [&listed](const auto& entry) { return !listed(entry.first); });
    }

  private:
    struct Last {
        int64_t takenNs = 0;
        uint32_t width = 0;
        uint32_t height = 0;
        Raster raster{};
    };
    std::map<uint32_t, Last> last_;
};

}  // namespace pictured
