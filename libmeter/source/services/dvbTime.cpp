#include "services/dvbTime.h"

namespace meter {

std::optional<uint32_t> bcdSeconds(Bytes bytes, std::size_t offset) {
    const uint32_t bcd = u24At(bytes, offset);
    const auto two = [bcd](unsigned shift) { return (bcd >> (shift + 4) & 0xF) * 10 + (bcd >> shift & 0xF); };
    for (unsigned shift = 0; shift < 24; shift += 4)
        if ((bcd >> shift & 0xF) > 9)
            return std::nullopt;
    if (two(8) > 59 || two(0) > 59)
        return std::nullopt;
    return two(16) * 3600 + two(8) * 60 + two(0);
}

std::optional<int64_t> utcTime(Bytes bytes, std::size_t offset) {
    constexpr int64_t kUnixEpochMjd = 40587;
    constexpr uint32_t kSecondsPerDay = 86400;
    if (offset + 5 > bytes.size())
        return std::nullopt;
    const auto seconds = bcdSeconds(bytes, offset + 2);
    if (!seconds || *seconds >= kSecondsPerDay)
        return std::nullopt;
    return (u16At(bytes, offset) - kUnixEpochMjd) * kSecondsPerDay + *seconds;
}

}  // namespace meter
