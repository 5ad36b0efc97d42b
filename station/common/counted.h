// Numbers of things in sentences.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace station {

// "1 channel", "2 channels".
inline std::string counted(uint64_t count, std::string_view what) {
    return std::to_string(count) + " " + std::string(what) + (count == 1 ? "" : "s");
}

}  // namespace station
