// What another program says of itself, for the log.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

namespace meterd {

// Without control characters, which a log does not take, and no longer than a line of it.
inline std::string shown(std::string text) {
    constexpr std::size_t kShownBytes = 200;
    std::erase_if(text, [](char byte) { return byte < ' ' || byte > '~'; });
    text.resize(std::min(text.size(), kShownBytes));
    return text;
}

}  // namespace meterd
