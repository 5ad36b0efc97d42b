// A cue as JSON, as reports have it.
#pragma once

#include <string>
#include <string_view>

#include "meter/report.h"

namespace meter {

// An object on one line; `first` are members that stand in front (`"time":null`), or nothing.
std::string cueJson(const CueReport& cue, std::string_view first = {});

}  // namespace meter
