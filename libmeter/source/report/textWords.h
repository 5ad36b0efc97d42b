// Words and figures that the parts of a report's text share.
#pragma once

#include <optional>
#include <string>

#include "meter/report.h"
#include "report/textLines.h"

namespace meter {

inline constexpr const char* kUnknown = "-";

inline std::string megabits(uint64_t bps) {
    return formatted("%.3f", static_cast<double>(bps) / 1e6);
}

template <typename Value, typename Text>
std::string shown(const std::optional<Value>& maybe, Text&& text) {
    return maybe ? text(*maybe) : std::string(kUnknown);
}

inline std::string tenths(double value) {
    return formatted("%.1f", value);
}

// "3 bursts", "1 burst".
inline std::string counted(uint64_t count, const char* one, const char* many) {
    return grouped(count) + " " + (count == 1 ? one : many);
}

inline void append(std::string& list, const std::string& item, const char* separator = ", ") {
    if (!item.empty()) {
        list += (list.empty() ? "" : separator) + item;
    }
}

inline std::string heading(const char* text) {
    return std::string("\n") + text + "\n";
}

// A file without a clock, and nobody said its bit rate.
inline bool isTimeless(const Report& report) {
    return !report.flow && report.seconds == 0;
}

}  // namespace meter
