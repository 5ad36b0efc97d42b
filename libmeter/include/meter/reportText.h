// A report as people read it.
#pragma once

#include <string>

#include "meter/report.h"

namespace meter {

inline constexpr std::size_t kTextWidth = 100;  // characters a line has at most

// Several lines, each with its end; `path` names a channel that has no group. Control characters in texts of
// the stream are shown as spaces.
std::string reportText(const Report& report, const std::string& path);

}  // namespace meter
