#include "fields/wallClock.h"

#include <array>
#include <chrono>
#include <cstdio>

namespace meter {
namespace {

// Without the letter of the zone.
std::string dateAndTime(int64_t unixSeconds) {
    using namespace std::chrono;
    const sys_seconds time{seconds{unixSeconds}};
    const auto day = floor<days>(time);
    const year_month_day date{day};
    const hh_mm_ss clock{time - day};
    std::array<char, 64> text;
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                  static_cast<int>(clock.seconds().count()));
    return text.data();
}

}  // namespace

std::string rfc3339(int64_t unixSeconds) {
    return dateAndTime(unixSeconds) + "Z";
}

std::string rfc3339Milliseconds(Nanoseconds wall) {
    const int64_t ms = (wall >= 0 ? wall : wall - (kNsPerMs - 1)) / kNsPerMs;
    const int64_t seconds = (ms >= 0 ? ms : ms - 999) / 1000;
    std::array<char, 8> fraction;
    std::snprintf(fraction.data(), fraction.size(), ".%03dZ", static_cast<int>(ms - seconds * 1000));
    return dateAndTime(seconds) + fraction.data();
}

}  // namespace meter
