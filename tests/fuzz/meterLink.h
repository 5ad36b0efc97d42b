// What comes over the socket between kestor-meter and the station, from a fuzzer's input.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>

#include "framing.h"

namespace fuzzing {

// Calls `receive` with what arrives at once. The input's first byte is of flags: 1, what follows comes as it
// is, else it is records of two bytes of length and a message each; 2, it comes byte by byte; 4, `hello`
// comes first.
template <typename Receive>
void forEachArrival(const uint8_t* data, std::size_t size, const std::string& hello, Receive receive) {
    std::string_view input(reinterpret_cast<const char*>(data), size);
    if (input.empty())
        return;
    const int flags = input[0];
    input.remove_prefix(1);
    std::string bytes = (flags & 4) != 0 ? hello : "";
    if ((flags & 1) != 0)
        bytes += input;
    while ((flags & 1) == 0 && input.size() > 2) {
        const std::size_t wanted =
            static_cast<std::size_t>(static_cast<uint8_t>(input[0])) << 8 | static_cast<uint8_t>(input[1]);
        const std::string_view message = input.substr(2, wanted);
        const auto length = static_cast<uint32_t>(message.size());
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes += static_cast<char>(length >> shift & 0xFF);
        bytes += message;
        input.remove_prefix(2 + message.size());
    }
    const std::size_t step = (flags & 2) != 0 ? 1 : std::max<std::size_t>(bytes.size(), 1);
    for (std::size_t at = 0; at < bytes.size(); at += step) {
        // A copy of exactly the size: a read behind it is seen.
        const std::string arrived = bytes.substr(at, step);
        receive(std::string_view(arrived));
    }
}

}  // namespace fuzzing
