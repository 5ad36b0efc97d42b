#include "report/jsonWriter.h"

namespace meter {

namespace {

// Every integer up to here is a double of its own.
constexpr double kExactIntegers = 9007199254740992.0;

bool needsEscape(char character) {
    return character == '"' || character == '\\' || static_cast<uint8_t>(character) < 0x20;
}

void appendEscaped(std::string& text, std::string_view raw) {
    constexpr std::string_view kHex = "0123456789abcdef";
    for (const char character : raw) {
        const auto code = static_cast<uint8_t>(character);
        if (code < 0x20) {
            text.append("\\u00").append(1, kHex[code >> 4]).append(1, kHex[code & 0xF]);
        } else {
            text.append(needsEscape(character) ? "\\" : "").append(1, character);
        }
    }
}

}  // namespace

JsonWriter& JsonWriter::value(double number) {
    if (!std::isfinite(number)) {
        return value(nullptr);
    }
    if (std::fabs(number) < kExactIntegers && number == std::trunc(number)) {
        return value(static_cast<int64_t>(number));  // without an exponent
    }
    std::array<char, 32> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    return plain({digits.data(), end});
}

JsonWriter& JsonWriter::value(std::string_view text) {
    separate();
    text_ += '"';
    appendEscaped(text_, text);
    text_ += '"';
    afterValue_ = true;
    return *this;
}

}  // namespace meter
