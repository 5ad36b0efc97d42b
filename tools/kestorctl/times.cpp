#include "times.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <ctime>

namespace {

using std::chrono::seconds;
using std::chrono::sys_seconds;

constexpr seconds kLongest = std::chrono::hours(24 * 3660);
constexpr int kHoursADay = 24;
constexpr int kMinutesAnHour = 60;
constexpr int kFirstYear = 1900;  // of struct tm

// Of this machine's zone; nothing where no clock shows that.
std::optional<sys_seconds> localTime(tm fields) {
    const tm wanted = fields;
    fields.tm_isdst = -1;
    const time_t time = mktime(&fields);
    const bool kept = fields.tm_mday == wanted.tm_mday && fields.tm_mon == wanted.tm_mon &&
                      fields.tm_hour == wanted.tm_hour && fields.tm_min == wanted.tm_min;
    return kept ? std::optional(sys_seconds(seconds(time))) : std::nullopt;
}

std::optional<sys_seconds> zonedTime(tm fields, seconds ahead) {
    const int day = fields.tm_mday;
    const time_t time = timegm(&fields);
    return fields.tm_mday == day ? std::optional(sys_seconds(seconds(time)) - ahead) : std::nullopt;
}

// Takes a text from its beginning, a piece at a time. After a piece that is not there all further ones fail.
class Pieces {
  public:
    explicit Pieces(std::string_view text) : rest_(text) {}

    // Exactly so many digits.
    int number(std::size_t digits) {
        int value = 0;
        const auto end =
            std::from_chars(rest_.data(), rest_.data() + std::min(digits, rest_.size()), value).ptr;
        take(static_cast<std::size_t>(end - rest_.data()) == digits && rest_[0] != '-', digits);
        return value;
    }
    // One of these letters.
    void oneOf(std::string_view letters) {
        take(!rest_.empty() && letters.find(rest_[0]) != std::string_view::npos, 1);
    }
    bool next(std::string_view letters) const {
        return !rest_.empty() && letters.find(rest_[0]) != std::string_view::npos;
    }
    bool ended() const {
        return well_ && rest_.empty();
    }

  private:
    void take(bool there, std::size_t size) {
        well_ = well_ && there;
        rest_.remove_prefix(well_ ? size : rest_.size());
    }

    std::string_view rest_;
    bool well_ = true;
};

// "22:00" or "22:00:30"
void readClock(Pieces& pieces, tm& fields) {
    fields.tm_hour = pieces.number(2);
    pieces.oneOf(":");
    fields.tm_min = pieces.number(2);
    if (pieces.next(":")) {
        pieces.oneOf(":");
        fields.tm_sec = pieces.number(2);
    }
}

// "Z" or "+01:00": how far it is ahead of UTC.
seconds readZone(Pieces& pieces) {
    if (pieces.next("Zz")) {
        pieces.oneOf("Zz");
        return {};
    }
    const bool behind = pieces.next("-");
    pieces.oneOf("+-");
    const std::chrono::hours hours(pieces.number(2));
    pieces.oneOf(":");
    const seconds ahead = hours + std::chrono::minutes(pieces.number(2));
    return behind ? -ahead : ahead;
}

bool inRange(const tm& fields) {
    return fields.tm_mon >= 0 && fields.tm_mon < 12 && fields.tm_mday >= 1 && fields.tm_mday <= 31 &&
           fields.tm_hour < kHoursADay && fields.tm_min < kMinutesAnHour && fields.tm_sec < 60;
}

// The first time behind `after` at which clocks here show this.
sys_seconds nextTime(const tm& clock, sys_seconds after) {
    const time_t from = std::chrono::system_clock::to_time_t(after);
    tm fields{};
    localtime_r(&from, &fields);
    fields.tm_hour = clock.tm_hour;
    fields.tm_min = clock.tm_min;
    fields.tm_sec = clock.tm_sec;
    fields.tm_isdst = -1;
    tm today = fields;
    if (const sys_seconds time{seconds(mktime(&today))}; time > after) {
        return time;
    }
    ++fields.tm_mday;
    return sys_seconds(seconds(mktime(&fields)));
}

}  // namespace

sys_seconds currentTime() {
    return std::chrono::floor<seconds>(std::chrono::system_clock::now());
}

std::optional<seconds> parseDuration(std::string_view text) {
    seconds sum{};
    while (!text.empty()) {
        int number = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
        if (error != std::errc() || number < 0 || end == text.data() + text.size()) {
            return std::nullopt;
        }
        constexpr std::string_view kUnits = "smhd";
        constexpr std::array<int64_t, 4> kSeconds = {1, 60, 3600, 86'400};
        const std::size_t unit = kUnits.find(*end);
        if (unit == std::string_view::npos) {
            return std::nullopt;
        }
        sum += seconds(number * kSeconds.at(unit));
        text.remove_prefix(static_cast<std::size_t>(end + 1 - text.data()));
        if (sum > kLongest) {
            return std::nullopt;
        }
    }
    return sum > seconds(0) ? std::optional(sum) : std::nullopt;
}

std::optional<sys_seconds> parseTime(const std::string& text, sys_seconds after) {
    tm fields{};
    fields.tm_mday = 1;
    if (Pieces clock(text); text.find(':') == 2) {
        readClock(clock, fields);
        return clock.ended() && inRange(fields) ? std::optional(nextTime(fields, after)) : std::nullopt;
    }
    Pieces pieces(text);
    fields.tm_year = pieces.number(4) - kFirstYear;
    pieces.oneOf("-");
    fields.tm_mon = pieces.number(2) - 1;
    pieces.oneOf("-");
    fields.tm_mday = pieces.number(2);
    pieces.oneOf(" Tt");
    readClock(pieces, fields);
    if (pieces.ended() && inRange(fields)) {
        return localTime(fields);
    }
    const seconds ahead = readZone(pieces);
    return pieces.ended() && inRange(fields) ? zonedTime(fields, ahead) : std::nullopt;
}

std::optional<Period> parsePeriod(std::string_view text, sys_seconds now) {
    const time_t from = std::chrono::system_clock::to_time_t(now);
    tm today{};
    localtime_r(&from, &today);
    // Midnight of a day of that month, which mktime() takes from beyond its ends as well.
    const auto midnight = [&today](int month, int day) {
        tm fields{};
        fields.tm_year = today.tm_year;
        fields.tm_mon = month;
        fields.tm_mday = day;
        fields.tm_isdst = -1;
        return sys_seconds(seconds(mktime(&fields)));
    };
    const auto days = [&](int since, int until) {
        return Period{midnight(today.tm_mon, today.tm_mday + since),
                      midnight(today.tm_mon, today.tm_mday + until)};
    };
    constexpr int kWeek = 7;
    if (text == "today") {
        return Period{days(0, 0).since, now};
    }
    if (text == "day") {
        return days(-1, 0);
    }
    if (text == "week") {
        const int sinceMonday = (today.tm_wday + kWeek - 1) % kWeek;
        return days(-sinceMonday - kWeek, -sinceMonday);
    }
    if (text == "month") {
        return Period{midnight(today.tm_mon - 1, 1), midnight(today.tm_mon, 1)};
    }
    return std::nullopt;
}

std::string rfc3339(sys_seconds time) {
    const time_t count = std::chrono::system_clock::to_time_t(time);
    tm fields{};
    gmtime_r(&count, &fields);
    std::array<char, 32> text{};
    strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &fields);
    return text.data();
}
