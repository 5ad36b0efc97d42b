// Texts that come from and go to the outside.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "common/clock.h"

namespace station {

// "2026-11-21T22:52:44.123Z" (RFC 3339, UTC, milliseconds).
std::string rfc3339(WallTime time);
// The time of such a text, with or without a fraction, with "Z" or a numeric offset; nothing when it is none
// or lies outside of the years 1970 to 9999.
std::optional<WallTime> parseRfc3339(std::string_view text);

// Whether the bytes are well-formed UTF-8 (no surrogates, no overlong forms, at most U+10FFFF).
bool isUtf8(std::string_view bytes);
// The text when it is UTF-8, else its bytes read as Latin-1 (ISO 8859-1) and written as UTF-8.
std::string toUtf8(std::string_view bytes);
// The text without control characters (below U+0020, U+007F to U+009F), cut to so many bytes at a character's
// boundary. REQUIRES: UTF-8.
std::string printable(std::string_view text, std::size_t limit);

// The whole text as a number, or nothing.
std::optional<int64_t> parseInteger(std::string_view text);

}  // namespace station
