// Times of service information (ETSI EN 300 468 annex C) and how times are written.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "fields/bytes.h"
#include "fields/moment.h"

namespace meter {

// UTC_time, 40 bits at `offset`: Modified Julian Date and six BCD digits. Seconds since the Unix epoch;
// nothing where it is not defined (all ones) or no time of day.
std::optional<int64_t> utcTime(Bytes bytes, std::size_t offset);
// Six BCD digits at `offset`: hours, minutes, seconds.
std::optional<uint32_t> bcdSeconds(Bytes bytes, std::size_t offset);
// RFC 3339 in UTC with whole seconds: "2024-05-01T20:15:00Z".
std::string rfc3339(int64_t unixSeconds);

}  // namespace meter
