#include "basics/jsonWriter.h"

#include <cmath>

namespace basics {

void appendJsonString(std::string& text, std::string_view utf8) {
    constexpr std::string_view kHex = "0123456789abcdef";
    text += '"';
    for (const char character : utf8) {
        const auto code = static_cast<uint8_t>(character);
        if (character == '"' || character == '\\') {
            text.append(1, '\\').append(1, character);
        } else if (code < 0x20) {
            text.append("\\u00").append(1, kHex[code >> 4]).append(1, kHex[code & 0xF]);
        } else {
            text += character;
        }
    }
    text += '"';
}

std::string jsonNumber(double number) {
    constexpr double kExactIntegers = 9007199254740992.0;  // up to here every integer is a double of its own
    if (!std::isfinite(number)) {
        return "null";
    }
    std::array<char, 32> digits{};
    char* const end = digits.data() + digits.size();
    const bool whole = std::fabs(number) < kExactIntegers && number == std::trunc(number);
    const auto written = whole ? std::to_chars(digits.data(), end, static_cast<int64_t>(number))
                               : std::to_chars(digits.data(), end, number);
    return {digits.data(), written.ptr};
}

}  // namespace basics
