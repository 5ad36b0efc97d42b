#include "measures/history.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <type_traits>

#include "measures/historyRecords.h"

namespace station {

namespace {

using namespace past;

constexpr std::size_t kFullHistories = 3000;  // keep a day of minutes each, within the budget
constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kStripSeconds = 300;
constexpr int64_t kStripMinutes = kStripSeconds / 60;
static_assert(kStripCells <= kDayCells);
constexpr int64_t kReleasedAtOnce = 30;     // minutes
constexpr std::size_t kFewestMinutes = 60;  // whatever the budget says

// All that is kept, by HistoryMetric.
constexpr auto kMetrics = [] {
    std::array<HistoryMetricName, kKept.size()> metrics{};
    for (std::size_t i = 0; i < kKept.size(); ++i) {
        const Measure& measure = *kKept[i].measure;
        metrics[i] = {static_cast<HistoryMetric>(i),    measure.name,  measure.unit,
                      measure.keeping == Keeping::kSum, measure.title, measure.meaning};
    }
    return metrics;
}();

const Kept& keptOf(HistoryMetric metric) {
    return kKept.at(static_cast<std::size_t>(metric));
}

constexpr std::size_t wholePages(std::size_t bytes, std::size_t page) {
    return (bytes + page - 1) / page * page;
}

int64_t floorDivide(int64_t value, int64_t divisor) {
    return value / divisor - (value % divisor < 0 ? 1 : 0);
}

int64_t steadyMs(const Now& now) {
    return std::chrono::floor<std::chrono::milliseconds>(now.steady.time_since_epoch()).count();
}

int64_t wallMs(const Now& now) {
    return now.wall.time_since_epoch().count();
}

}  // namespace

// Time is counted on a scale that runs with the steady clock and showed the wall clock's time at the first
// sample: its seconds and minutes are those of the wall clock unless that was set since.
struct History::Rings {
    bool begun;
    int64_t offset;  // ms from the steady clock to the scale
    int64_t firstSecond;
    int64_t firstMinute;  // that something may be known of; earlier than the first second's where restored
    int64_t begunMinute;  // of the first second
    int64_t takenMinute;  // the last one that takeMinutes() gave
    int64_t lastBadSecond;
    std::array<int64_t, kSources> lastSampleSecond;  // by Source
    GatheredLevels second;
    GatheredLevels minute;
    Ring<SecondRecord, kSecondsKept> seconds;
    Ring<MinuteRecord, kMinutesKept> minutes;
    Ring<DayCell, kDayCells> strip;

    int64_t minutesForgotten;  // of kMinutesKept
    int64_t releasedUntil;     // minutes before that have given their memory back

    int64_t oldestMinute() const {
        return minutes.last - static_cast<int64_t>(kMinutesKept) + 1 + minutesForgotten;
    }
    void note(StripCell state, int64_t index);
    void releaseMinutes();
    void releaseSlots(std::size_t from, std::size_t to);

    int64_t scaleMs(const Now& now) const {
        return steadyMs(now) + offset;
    }
    int64_t secondOf(const Now& now) const {
        return floorDivide(scaleMs(now), kMsPerSecond);
    }
    // Where what is shown ends: a second whose sample may still come is not unknown yet.
    int64_t newestSecond(const Now& now) const {
        const int64_t current = secondOf(now);
        return current <= seconds.last + 1 ? seconds.last : current;
    }
    // The wall clock's time, in seconds, at the begin of a second on the scale.
    static uint32_t stampOf(int64_t second, int64_t scale, const Now& now) {
        const int64_t begin = wallMs(now) - (scale - second * kMsPerSecond);
        return static_cast<uint32_t>(std::clamp<int64_t>(floorDivide(begin + kMsPerSecond / 2, kMsPerSecond),
                                                         0, std::numeric_limits<uint32_t>::max()));
    }

    void begin(const Now& now);
    void enterSecond(int64_t index, const Now& now);
    void fillSkippedSecond(int64_t index, const ChannelSample& sample, const LevelValues& levels,
                           bool judges);
    void enterMinute(int64_t index, const Now& now);
    void writeSecond(int64_t index);
    void writeMinute(int64_t index);
};

void History::Rings::begin(const Now& now) {
    begun = true;
    offset = wallMs(now) - steadyMs(now);
    const int64_t index = secondOf(now);
    firstSecond = index;
    lastSampleSecond.fill(index);
    // One before the first, so that entering it clears it.
    seconds.last = index - 1;
    begunMinute = firstMinute = floorDivide(index, 60);
    takenMinute = minutes.last = begunMinute - 1;
    strip.last = floorDivide(index, kStripSeconds) - 1;
    lastBadSecond = index - 1;
}

// The state of a second.
void History::Rings::note(StripCell state, int64_t index) {
    MinuteRecord& minuteRecord = minutes.at(floorDivide(index, 60));
    DayCell& cell = strip.at(floorDivide(index, kStripSeconds));
    minuteRecord.worst = std::max<uint8_t>(minuteRecord.worst, static_cast<uint8_t>(state)) & 3U;
    cell.worst = std::max(cell.worst, state);
    if ((state == StripCell::kAlarm || state == StripCell::kNoSignal) && index > lastBadSecond) {
        ++minuteRecord.badSeconds;
        ++cell.badSeconds;
        lastBadSecond = index;
    }
}

void History::Rings::enterSecond(int64_t index, const Now& now) {
    seconds.advance(index);
    second = {};
    seconds.at(index).wall = stampOf(index, scaleMs(now), now);
}

// Snapshots come a little less often than once a second, so now and then a second has none.
void History::Rings::fillSkippedSecond(int64_t index, const ChannelSample& sample, const LevelValues& levels,
                                       bool judges) {
    if (index != lastSampleSecond[static_cast<std::size_t>(sample.source)] + 2 || sample.first ||
        sample.seconds >= 2.0) {
        return;
    }
    SecondRecord& skipped = seconds.at(index - 1);
    skipped.wall = seconds.at(index).wall - 1;
    skipped.known |= bitsOf(sample.source, judges);
    skipped.pack(levels, sample.source, judges);
}

void History::Rings::enterMinute(int64_t index, const Now& now) {
    minutes.advance(index);
    minute = {};
    minutes.at(index).wall = stampOf(index * 60, scaleMs(now), now);
    if (oldestMinute() - releasedUntil >= kReleasedAtOnce) {
        releaseMinutes();
    }
}

// Gives the pages back that hold nothing but minutes which are not kept.
void History::Rings::releaseMinutes() {
    const auto first = static_cast<std::size_t>(minutes.last + 1) % kMinutesKept;
    const auto count = static_cast<std::size_t>(minutesForgotten);
    releaseSlots(first, std::min(first + count, kMinutesKept));
    if (first + count > kMinutesKept) {
        releaseSlots(0, first + count - kMinutesKept);
    }
    releasedUntil = oldestMinute();
}

void History::Rings::releaseSlots(std::size_t from, std::size_t to) {
    if (from == to) {
        return;
    }
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    auto* const first = reinterpret_cast<char*>(minutes.records.data() + from);
    auto* const last = reinterpret_cast<char*>(minutes.records.data() + to);
    const auto roundUp = [page](char* at) {
        return at + (page - reinterpret_cast<std::uintptr_t>(at) % page) % page;
    };
    char* const begin = std::min(roundUp(first), last);
    char* const end = std::max(begin, last - reinterpret_cast<std::uintptr_t>(last) % page);
    // All of it is zero afterwards, which is what is not known: pages when they are touched again, and at
    // both ends what shares a page with minutes that are kept.
    std::memset(first, 0, static_cast<std::size_t>(begin - first));
    if (begin < end) {
        madvise(begin, static_cast<std::size_t>(end - begin), MADV_DONTNEED);
    }
    std::memset(end, 0, static_cast<std::size_t>(last - end));
}

void History::Rings::writeSecond(int64_t index) {
    seconds.at(index).pack(valuesOf<&Gathered::mean>(second));
}

void History::Rings::writeMinute(int64_t index) {
    MinuteRecord& record = minutes.at(index);
    record.pack(kMinimum, valuesOf<&Gathered::lowest>(minute));
    record.pack(kMean, valuesOf<&Gathered::mean>(minute));
    record.pack(kMaximum, valuesOf<&Gathered::highest>(minute));
}

std::size_t minutesKept(std::size_t channels) {
    constexpr std::size_t kPage = 4096;
    // Pages that are partly in use: two at the ends of the minutes, one where what is released late ends.
    constexpr std::size_t kSlack = 3 * kPage + kReleasedAtOnce * sizeof(MinuteRecord);
    const std::size_t each = kHistoryBudget / std::max<std::size_t>(channels, 1);
    if (each >= History::bytes()) {
        return kMinutesKept;
    }
    const std::size_t fixed = History::bytes() - kMinutesKept * sizeof(MinuteRecord) + kSlack;
    const std::size_t left = each > fixed ? each - fixed : 0;
    return std::clamp<std::size_t>(left / sizeof(MinuteRecord), kFewestMinutes, kMinutesKept);
}

void History::keepMinutes(std::size_t minutes) {
    rings_->minutesForgotten =
        static_cast<int64_t>(kMinutesKept - std::clamp<std::size_t>(minutes, 1, kMinutesKept));
    if (rings_->begun) {
        rings_->releaseMinutes();
    }
}

std::span<const HistoryMetricName> historyMetrics() {
    return kMetrics;
}

HistoryMetric historyMetric(std::string_view name) {
    const auto* const found = std::ranges::find(kMetrics, name, &HistoryMetricName::name);
    if (found == kMetrics.end()) {
        std::abort();
    }
    return found->metric;
}

std::string_view stripCellName(StripCell cell) {
    constexpr std::array<std::string_view, 4> kNames = {"no_data", "ok", "alarm", "no_signal"};
    return kNames.at(static_cast<std::size_t>(cell));
}

History::History() {
    static_assert(std::is_trivially_copyable_v<Rings> && std::is_trivially_destructible_v<Rings>);
    static_assert((wholePages(sizeof(Rings), 4096) + 256) * kFullHistories <= kHistoryBudget,
                  "256 for the handle and its count");
    // Straight from the kernel, zero-filled: a page takes memory when it is first written. Huge pages would
    // be written whole.
    void* block = mmap(nullptr, sizeof(Rings), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) {
        throw std::bad_alloc();
    }
    madvise(block, sizeof(Rings), MADV_NOHUGEPAGE);
    rings_ = std::shared_ptr<Rings>(static_cast<Rings*>(block),
                                    [](Rings* rings) { munmap(rings, sizeof(Rings)); });
}

std::size_t History::bytes() {
    constexpr std::size_t kSharedCount = 48;  // with what the allocator adds
    const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
    return sizeof(History) + wholePages(sizeof(Rings), page) + kSharedCount;
}

void History::add(const ChannelSample& sample, StripCell state, const Now& now, bool judges) {
    Rings& rings = *rings_;
    if (!rings.begun) {
        rings.begin(now);
    }
    const LevelValues levels = levelsOf(sample, judges);
    const int64_t second = std::max(rings.secondOf(now), rings.seconds.last);
    const int64_t minute = floorDivide(second, 60);
    const int64_t cell = floorDivide(second, kStripSeconds);
    if (second > rings.seconds.last) {
        rings.enterSecond(second, now);
    }
    rings.fillSkippedSecond(second, sample, levels, judges);
    if (minute > rings.minutes.last) {
        rings.enterMinute(minute, now);
    }
    if (cell > rings.strip.last) {
        rings.strip.advance(cell);
    }
    for (std::size_t i = 0; i < kKeptLevels; ++i) {
        rings.second[i].add(levels[i]);
        rings.minute[i].add(levels[i]);
    }
    rings.seconds.at(second).known |= bitsOf(sample.source, judges);
    rings.minutes.at(minute).known |= bitsOf(sample.source, judges);
    addTo(rings.seconds.at(second).sums, sample, judges);
    addTo(rings.minutes.at(minute).sums, sample, judges);
    rings.writeSecond(second);
    rings.writeMinute(minute);
    rings.note(state, second);
    rings.lastSampleSecond[static_cast<std::size_t>(sample.source)] = second;
}

namespace {

HistoryPoint pointOf(const SecondRecord& record, const Kept& kept) {
    const double value = isSum(kept) ? record.sums[kept.place] : record.level(kept);
    return {{}, value, value, value};
}

HistoryPoint pointOf(const MinuteRecord& record, const Kept& kept) {
    if (isSum(kept)) {
        const double value = record.sums[kept.place];
        return {{}, value, value, value};
    }
    return {{}, record.level(kept, kMinimum), record.level(kept, kMean), record.level(kept, kMaximum)};
}

// From the oldest record that is kept to the index `newest`. What is unknown is stamped from what came
// before.
template <typename Record, std::size_t Size>
std::vector<HistoryPoint> collect(const Ring<Record, Size>& ring, const Kept& kept, int64_t first,
                                  int64_t newest, std::chrono::seconds step, WallTime since) {
    std::vector<HistoryPoint> points;
    std::optional<WallTime> time;
    for (int64_t i = std::max(first, newest - static_cast<int64_t>(Size) + 1); i <= newest; ++i) {
        const Record* record = ring.find(i);
        HistoryPoint point{{}, kUnknown, kUnknown, kUnknown};
        if (record != nullptr && record->known != 0) {
            if (isKnown(kept, record->known)) {
                point = pointOf(*record, kept);
            }
            point.time = WallTime(std::chrono::seconds(record->wall));
        } else if (time) {
            point.time = *time + step;
        } else {
            continue;
        }
        time = point.time;
        if (point.time >= since) {
            points.push_back(point);
        }
    }
    return points;
}

}  // namespace

std::vector<HistoryPoint> History::points(HistoryMetric metric, int resolution, WallTime since,
                                          const Now& now) const {
    const Rings& rings = *rings_;
    if (!rings.begun) {
        return {};
    }
    const Kept& kept = keptOf(metric);
    const int64_t newest = rings.newestSecond(now);
    if (resolution == 1) {
        return collect(rings.seconds, kept, rings.firstSecond, newest, std::chrono::seconds(1), since);
    }
    const int64_t oldest = std::max(rings.firstMinute, rings.oldestMinute());
    return collect(rings.minutes, kept, oldest, floorDivide(newest, 60), std::chrono::seconds(60), since);
}

std::vector<float> History::spark(HistoryMetric metric, std::size_t cells, std::size_t secondsEach,
                                  const Now& now) const {
    const Rings& rings = *rings_;
    std::vector<float> means(cells, std::numeric_limits<float>::quiet_NaN());
    if (!rings.begun) {
        return means;
    }
    const Kept& kept = keptOf(metric);
    const auto each = static_cast<int64_t>(secondsEach);
    const int64_t newest = rings.newestSecond(now);
    const int64_t newestCell = floorDivide(newest, each);
    for (std::size_t i = 0; i < cells; ++i) {
        const int64_t begin = (newestCell - static_cast<int64_t>(cells - 1 - i)) * each;
        Gathered gathered{};
        for (int64_t second = std::max(begin, newest - static_cast<int64_t>(kSecondsKept) + 1);
             second < begin + each; ++second) {
            const SecondRecord* record = rings.seconds.find(second);
            if (record != nullptr && isKnown(kept, record->known)) {
                gathered.add(pointOf(*record, kept).mean);
            }
        }
        means[i] = static_cast<float>(gathered.mean());
    }
    return means;
}

uint64_t History::sum(HistoryMetric metric, std::chrono::seconds time, const Now& now) const {
    const Rings& rings = *rings_;
    if (!rings.begun) {
        return 0;
    }
    const std::size_t place = keptOf(metric).place;
    const int64_t newest = rings.newestSecond(now);
    const int64_t span = std::min<int64_t>(time.count(), kSecondsKept);
    uint64_t total = 0;
    for (int64_t second = newest - span + 1; second <= rings.seconds.last; ++second) {
        if (const SecondRecord* record = rings.seconds.find(second)) {
            total += record->sums[place];
        }
    }
    return total;
}

std::array<StripCell, kStripCells> History::strip(const Now& now) const {
    const std::array<DayCell, kDayCells> all = day(now);
    std::array<StripCell, kStripCells> cells{};
    std::transform(all.end() - kStripCells, all.end(), cells.begin(),
                   [](const DayCell& cell) { return cell.worst; });
    return cells;
}

std::array<DayCell, kDayCells> History::day(const Now& now) const {
    const Rings& rings = *rings_;
    std::array<DayCell, kDayCells> cells{};
    if (!rings.begun) {
        return cells;
    }
    const int64_t newest = floorDivide(rings.newestSecond(now), kStripSeconds);
    for (std::size_t i = 0; i < kDayCells; ++i) {
        const DayCell* cell = rings.strip.find(newest - static_cast<int64_t>(kDayCells - 1 - i));
        cells[i] = cell != nullptr ? *cell : DayCell{};
    }
    return cells;
}

void History::takeMinutes(std::vector<MinuteRecord>& into, const Now& now) {
    Rings& rings = *rings_;
    if (!rings.begun) {
        return;
    }
    const int64_t last = std::min(rings.minutes.last, floorDivide(rings.secondOf(now), 60) - 1);
    for (int64_t i = std::max(rings.takenMinute + 1, rings.oldestMinute()); i <= last; ++i) {
        if (const MinuteRecord& minute = rings.minutes.at(i); minute.known != 0) {
            into.push_back(minute);
        }
    }
    rings.takenMinute = std::max(rings.takenMinute, last);
}

void History::restore(std::span<const MinuteRecord> minutes, const Now& now) {
    Rings& rings = *rings_;
    if (!rings.begun) {
        rings.begin(now);
    }
    for (const MinuteRecord& minute : minutes) {
        const int64_t index = floorDivide(int64_t{minute.wall} + 30, 60);
        if (index >= rings.begunMinute || index < rings.oldestMinute() ||
            rings.minutes.at(index).known != 0) {
            continue;
        }
        rings.minutes.at(index) = minute;
        rings.firstMinute = std::min(rings.firstMinute, index);
        const int64_t cellIndex = floorDivide(index, kStripMinutes);
        if (rings.strip.find(cellIndex) != nullptr) {
            DayCell& cell = rings.strip.at(cellIndex);
            cell.worst = std::max(cell.worst, static_cast<StripCell>(minute.worst));
            cell.badSeconds = static_cast<uint16_t>(cell.badSeconds + minute.badSeconds);
        }
    }
}

std::vector<HistoryPoint> pointsOf(std::span<const MinuteRecord> minutes, HistoryMetric metric) {
    const Kept& kept = keptOf(metric);
    std::vector<HistoryPoint> points;
    points.reserve(minutes.size());
    for (const MinuteRecord& minute : minutes) {
        HistoryPoint point{{}, kUnknown, kUnknown, kUnknown};
        if (isKnown(kept, minute.known)) {
            point = pointOf(minute, kept);
        }
        point.time = WallTime(std::chrono::seconds(minute.wall));
        points.push_back(point);
    }
    return points;
}

}  // namespace station
