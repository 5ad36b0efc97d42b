#include "history.h"

#include <algorithm>
#include <cstdlib>

namespace pictured {

Difference compare(const Raster& one, const Raster& other) {
    int total = 0;
    int peak = 0;
    for (std::size_t i = 0; i < one.size(); ++i) {
        const int difference = std::abs(int{one[i]} - int{other[i]});
        total += difference;
        peak = std::max(peak, difference);
    }
    return {static_cast<double>(total) / static_cast<double>(one.size()), static_cast<double>(peak)};
}

std::optional<Difference> History::take(uint32_t group, int64_t takenNs, uint32_t width, uint32_t height,
                                        const Raster& raster) {
    const auto [entry, isNew] = last_.try_emplace(group);
    Last& last = entry->second;
    std::optional<Difference> difference;
    if (!isNew && last.width == width && last.height == height) {
        difference = compare(last.raster, raster);
        difference->since = last.takenNs;
    }
    last = {takenNs, width, height, raster};
    return difference;
}

}  // namespace pictured
