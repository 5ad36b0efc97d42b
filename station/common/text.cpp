#include "common/text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>

namespace station {

namespace {

using std::chrono::milliseconds;

// Whole decimal digits, exactly as many; -1 when there are others.
int digits(std::string_view text, std::size_t from, std::size_t count) {
    int value = 0;
    for (std::size_t i = from; i < from + count; ++i) {
        if (i >= text.size() || text[i] < '0' || text[i] > '9') {
            return -1;
        }
        value = value * 10 + (text[i] - '0');
    }
    return value;
}

bool isAt(std::string_view text, std::size_t at, std::string_view allowed) {
    return at < text.size() && allowed.find(text[at]) != std::string_view::npos;
}

// The length of the well-formed character at the start (Unicode, table 3-7), 0 when there is none.
std::size_t characterLength(std::string_view bytes) {
    const auto at = [&](std::size_t i) { return static_cast<uint8_t>(bytes[i]); };
    const uint8_t lead = at(0);
    if (lead < 0x80) {
        return 1;
    }
    const std::size_t length = lead >= 0xC2 && lead <= 0xDF   ? 2
                               : lead >= 0xE0 && lead <= 0xEF ? 3
                               : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                              : 0;
    if (length == 0 || bytes.size() < length) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((at(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    const bool overlong = (lead == 0xE0 && at(1) < 0xA0) || (lead == 0xF0 && at(1) < 0x90);
    const bool outside = (lead == 0xED && at(1) > 0x9F) || (lead == 0xF4 && at(1) > 0x8F);
    return overlong || outside ? 0 : length;
}

// Offset of a zone designator in minutes; nothing when the text is none.
std::optional<int> zoneMinutes(std::string_view zone) {
    if (zone == "Z" || zone == "z") {
        return 0;
    }
    const int hours = digits(zone, 1, 2);
    const int minutes = digits(zone, 4, 2);
    if (zone.size() != 6 || !isAt(zone, 0, "+-") || !isAt(zone, 3, ":") || hours < 0 || hours > 23 ||
        minutes < 0 || minutes > 59) {
        return std::nullopt;
    }
    return (zone[0] == '-' ? -1 : 1) * (hours * 60 + minutes);
}

}  // namespace

std::string rfc3339(WallTime time) {
    const auto day = std::chrono::floor<std::chrono::days>(time);
    const std::chrono::year_month_day date(day);
    const std::chrono::hh_mm_ss clock(time - day);
    std::array<char, 40> text{};
    const int length = snprintf(
        text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ", static_cast<int>(date.year()),
        static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
        static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
        static_cast<int>(clock.seconds().count()), static_cast<int>(clock.subseconds().count()));
    return {text.data(), static_cast<std::size_t>(length)};
}

std::optional<WallTime> parseRfc3339(std::string_view text) {
    using namespace std::chrono;
    const year_month_day date(year(digits(text, 0, 4)), month(static_cast<unsigned>(digits(text, 5, 2))),
                              day(static_cast<unsigned>(digits(text, 8, 2))));
    const int hour = digits(text, 11, 2);
    const int minute = digits(text, 14, 2);
    const int second = digits(text, 17, 2);
    if (!date.ok() || date.year() < year(1970) || !isAt(text, 4, "-") || !isAt(text, 7, "-") ||
        !isAt(text, 10, "Tt ") || !isAt(text, 13, ":") || !isAt(text, 16, ":") || hour < 0 || hour > 23 ||
        minute < 0 || minute > 59 || second < 0 || second > 60) {
        return std::nullopt;
    }
    std::size_t next = 19;
    milliseconds fraction{0};
    if (isAt(text, next, ".")) {
        int scale = 100;
        const std::size_t first = ++next;
        for (; isAt(text, next, "0123456789"); ++next) {
            fraction += milliseconds((text[next] - '0') * scale);
            scale /= 10;
        }
        if (next == first) {
            return std::nullopt;
        }
    }
    const auto zone = next <= text.size() ? zoneMinutes(text.substr(next)) : std::nullopt;
    if (!zone) {
        return std::nullopt;
    }
    const WallTime time =
        sys_days(date) + hours(hour) + minutes(minute) + seconds(second) + fraction - minutes(*zone);
    if (time < WallTime{}) {
        return std::nullopt;
    }
    return time;
}

bool isUtf8(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t length = characterLength(bytes);
        if (length == 0) {
            return false;
        }
        bytes.remove_prefix(length);
    }
    return true;
}

std::string toUtf8(std::string_view bytes) {
    if (isUtf8(bytes)) {
        return std::string(bytes);
    }
    std::string text;
    for (const char byte : bytes) {
        const auto code = static_cast<uint8_t>(byte);
        if (code < 0x80) {
            text += byte;
        } else {
            text += static_cast<char>(0xC0 | code >> 6);
            text += static_cast<char>(0x80 | (code & 0x3F));
        }
    }
    return text;
}

std::string printable(std::string_view text, std::size_t limit) {
    std::string result;
    while (!text.empty()) {
        const std::size_t length = std::max<std::size_t>(characterLength(text), 1);
        const auto first = static_cast<uint8_t>(text[0]);
        const bool control = first < 0x20 || first == 0x7F ||
                             (length == 2 && first == 0xC2 && static_cast<uint8_t>(text[1]) < 0xA0);
        if (!control) {
            if (result.size() + length > limit) {
                break;
            }
            result += text.substr(0, length);
        }
        text.remove_prefix(length);
    }
    return result;
}

std::optional<int64_t> parseInteger(std::string_view text) {
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

}  // namespace station
