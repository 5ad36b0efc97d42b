// Times of service information (ETSI EN 300 468 annex C).
#pragma once

#include <cstdint>
#include <optional>

#include "fields/bytes.h"

namespace meter {

// UTC_time, 40 bits at `offset`: Modified Julian Date and six BCD digits. Seconds since the Unix epoch;
// nothing where it is not defined (all ones) or no time of day.
std::optional<int64_t> utcTime(Bytes bytes, std::size_t offset);
// Six BCD digits at `offset`: hours, minutes, seconds.
std::optional<uint32_t> bcdSeconds(Bytes bytes, std::size_t offset);

}  // namespace meter
