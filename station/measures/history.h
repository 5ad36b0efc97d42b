// The recent past of every channel, in memory.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "common/clock.h"
#include "measures/channelSample.h"

namespace station {

// A measure that the history keeps: a place in historyMetrics().
enum class HistoryMetric : uint8_t {};
// REQUIRES: the history keeps a measure of that name ("bitRate").
HistoryMetric historyMetric(std::string_view name);

struct HistoryMetricName {
    HistoryMetric metric;
    std::string_view name;  // the record column's: "bitRate", "packetsLost", ...
    std::string_view unit;
    bool counter;            // points are sums; else minimum, mean and maximum
    std::string_view title;  // for people: "Bit rate"
    std::string_view meaning;
};
std::span<const HistoryMetricName> historyMetrics();

inline constexpr std::size_t kSecondsKept = 600;      // a value a second for ten minutes
inline constexpr std::size_t kMinutesKept = 24 * 60;  // a value a minute for 24 hours
inline constexpr std::size_t kStripCells = 96;        // the state of five minutes each, for eight hours
inline constexpr std::size_t kDayCells = 288;         // the same for 24 hours

// The worst that was in five minutes, for a strip.
enum class StripCell : uint8_t { kNoData, kOk, kAlarm, kNoSignal };
std::string_view stripCellName(StripCell cell);  // "no_data", "ok", "alarm", "no_signal"

// Five minutes of a day.
struct DayCell {
    StripCell worst : 2 = StripCell::kNoData;
    uint16_t badSeconds : 14 = 0;  // with an alarm or without signal: 0 to 300
};

namespace past {
struct MinuteRecord;  // a minute as it is kept: historyRecords.h
}

struct HistoryPoint {
    WallTime time;  // the second's or minute's begin
    // A value that is not known is NaN. With resolution 1 and for counters all three are the same.
    double minimum;
    double mean;
    double maximum;
};

// What the histories of all channels take together at most, the pages that their ends lie on included.
inline constexpr std::size_t kHistoryBudget = std::size_t{540} << 20;
// So many minutes are kept of each of that many channels: a day of up to some 3700 channels, then less, so
// that the budget holds; some two hours at 10,000.
std::size_t minutesKept(std::size_t channels);

// Points of a metric as points() gives them, one a minute that is given.
std::vector<HistoryPoint> pointsOf(std::span<const past::MinuteRecord> minutes, HistoryMetric metric);

// One channel's past: at most 149 KiB, all of it allocated at the start, whose pages take memory as time
// fills them (some 27 KiB after ten minutes, 4 KiB more an hour). Levels other than the bit rate are kept
// with at least three significant digits, sums are exact. One thread.
class History {
  public:
    History();
    // A sample at its time. Samples may come at any pace; a second with several keeps their mean (sum for
    // counters), a second without any is unknown, but for a single one that the next sample covers: it has
    // that sample's levels and no counts. A wall clock that steps moves the stamps of what comes, never what
    // was kept. `judges`: the sample's source judges the channel; it alone writes what both sources measure,
    // which is read under the probe's name, and where the meter wrote it under the meter's too.
    void add(const ChannelSample& sample, StripCell state, const Now& now, bool judges = true);

    // Points from `since` on, oldest first, up to the second or minute of `now`; nothing before the first
    // sample. resolution: 1 or 60. Minutes are those of the wall clock at the first sample; the last one has
    // just begun.
    std::vector<HistoryPoint> points(HistoryMetric metric, int resolution, WallTime since,
                                     const Now& now) const;
    // The last `cells` means of `secondsEach`, newest last, NaN where unknown: a sparkline. Of counters: the
    // mean a second. Cells begin at whole multiples of their length, so that they stand still until the next
    // begins. REQUIRES: secondsEach > 0. What lies more than kSecondsKept back is unknown.
    std::vector<float> spark(HistoryMetric metric, std::size_t cells, std::size_t secondsEach,
                             const Now& now) const;
    // Sum of a counter over the last seconds (at most kSecondsKept).
    uint64_t sum(HistoryMetric metric, std::chrono::seconds time, const Now& now) const;
    std::array<StripCell, kStripCells> strip(const Now& now) const;  // newest last
    std::array<DayCell, kDayCells> day(const Now& now) const;        // newest last

    // Appends the minutes that are over, that something is known of and that no call took before, oldest
    // first.
    void takeMinutes(std::vector<past::MinuteRecord>& into, const Now& now);
    // Minutes of before this history began, as takeMinutes() of another one gave them: they are in points(),
    // strip() and day() from here on. What is known already, lies too far back or in the future stays out.
    void restore(std::span<const past::MinuteRecord> minutes, const Now& now);

    // Of minutes that lie further back nothing is known from here on, and their memory is given back within
    // an hour. REQUIRES: 1 to kMinutesKept.
    void keepMinutes(std::size_t minutes);

    static std::size_t bytes();  // that one takes, all in

  private:
    struct Rings;
    std::shared_ptr<Rings> rings_;
};

}  // namespace station
