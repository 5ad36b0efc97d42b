// Times and durations as people type them.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

// This machine's, in whole seconds.
std::chrono::sys_seconds currentTime();

// "90m", "2h", "1h30m", "1d", "45s": from a second to ten years; nothing for any other text.
std::optional<std::chrono::seconds> parseDuration(std::string_view text);

// A date and time, "2026-11-22 22:00" or "2026-11-22T22:00:00": of this machine's time zone, or of the one
// that is named behind it ("Z", "+01:00"). "22:00" alone is the first one behind `after`, here. Nothing for
// any other text, a day that no month has, and a time that the clocks left out.
std::optional<std::chrono::sys_seconds> parseTime(const std::string& text, std::chrono::sys_seconds after);

// A day, week or month of this machine's time zone.
struct Period {
    std::chrono::sys_seconds since;
    std::chrono::sys_seconds until;
};
// "today" until `now`, "day", "week" (from Monday) or "month": the last whole one before `now`. Nothing for
// any other text.
std::optional<Period> parsePeriod(std::string_view text, std::chrono::sys_seconds now);

// "2026-11-22T21:00:00Z"
std::string rfc3339(std::chrono::sys_seconds time);
