// What people are told of a type of alarm beside its meaning: a title, and where to look first.
#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace station {

struct AlarmGuide {
    std::string_view name;                 // of the type
    std::string_view title;                // "Packets lost", for lists and tiles
    std::array<std::string_view, 3> look;  // sentences for an operator, the likeliest first
};

// REQUIRES: an index into alarmTypes(). Every type has a guide.
const AlarmGuide& guideOf(std::size_t type);

}  // namespace station
