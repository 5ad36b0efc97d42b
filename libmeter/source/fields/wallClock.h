// Wall clock times as texts.
#pragma once

#include <cstdint>
#include <string>

#include "fields/moment.h"

namespace meter {

// RFC 3339 in UTC: "2024-05-01T20:15:00Z". Seconds since the Unix epoch.
std::string rfc3339(int64_t unixSeconds);
// With milliseconds: "2024-05-01T20:15:00.123Z". `wall`: since the Unix epoch.
std::string rfc3339Milliseconds(Nanoseconds wall);

}  // namespace meter
