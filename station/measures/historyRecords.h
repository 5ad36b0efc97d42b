// How the history keeps measures: what a second and a minute are in memory, by the table of measures.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>

#include "measures/channelSample.h"

namespace station::past {

inline constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();
inline constexpr uint16_t kUnknownCode = 0xFFFF;

// A value of at least 0 in 16 bits, in the order of the values: 0, then numbers from 2^-16 to 2^48 with ten
// bits behind the leading one, taken from the single-precision number. Beyond, the nearest of these.
class CompactLevel {
  public:
    static uint16_t encode(double value) {
        if (!std::isfinite(value)) {
            return kUnknownCode;
        }
        if (value < kSmallest) {
            return 0;
        }
        const auto bits = std::bit_cast<uint32_t>(static_cast<float>(std::min(value, kLargest)));
        return static_cast<uint16_t>(((bits + kRounding - kOffset) >> kDroppedBits) + 1);
    }
    static double decode(uint16_t code) {
        if (code == kUnknownCode) {
            return kUnknown;
        }
        return code == 0 ? 0.0
                         : std::bit_cast<float>((static_cast<uint32_t>(code - 1) << kDroppedBits) + kOffset);
    }

  private:
    static constexpr double kSmallest = 0x1p-16;
    static constexpr double kLargest = 0x1p47;
    static constexpr uint32_t kDroppedBits = 13;
    static constexpr uint32_t kRounding = 1U << (kDroppedBits - 1);
    static constexpr uint32_t kOffset = std::bit_cast<uint32_t>(0x1p-16F);
    static_assert(((std::bit_cast<uint32_t>(0x1p47F) - kOffset) >> kDroppedBits) + 1 < kUnknownCode);
};

// A value of either sign in 16 bits: its sign, then 0 or a number from 2^-10 to 2^20 as above.
class CompactSigned {
  public:
    static uint16_t encode(double value) {
        if (!std::isfinite(value)) {
            return kUnknownCode;
        }
        const double size = std::abs(value);
        if (size < kSmallest) {
            return 0;
        }
        const auto bits = std::bit_cast<uint32_t>(static_cast<float>(std::min(size, kLargest)));
        const uint32_t code = ((bits + kRounding - kOffset) >> kDroppedBits) + 1;
        return static_cast<uint16_t>(code | (value < 0 ? kNegative : 0));
    }
    static double decode(uint16_t code) {
        if (code == kUnknownCode) {
            return kUnknown;
        }
        const uint32_t size = code & ~kNegative;
        const double value = size == 0 ? 0.0 : std::bit_cast<float>(((size - 1) << kDroppedBits) + kOffset);
        return (code & kNegative) != 0 ? -value : value;
    }

  private:
    static constexpr uint32_t kNegative = 0x8000;
    static constexpr double kSmallest = 0x1p-10;
    static constexpr double kLargest = 0x1p20;
    static constexpr uint32_t kDroppedBits = 13;
    static constexpr uint32_t kRounding = 1U << (kDroppedBits - 1);
    static constexpr uint32_t kOffset = std::bit_cast<uint32_t>(0x1p-10F);
    static_assert(((std::bit_cast<uint32_t>(0x1p20F) - kOffset) >> kDroppedBits) + 1 < kNegative - 1);
};

// An index from 0 to 6 in steps of 0.0001.
class CompactIndex {
  public:
    static uint16_t encode(double value) {
        return std::isfinite(value) ? static_cast<uint16_t>(std::lround(std::clamp(value, 0.0, 6.0) * kSteps))
                                    : kUnknownCode;
    }
    static double decode(uint16_t code) {
        return code == kUnknownCode ? kUnknown : code / kSteps;
    }

  private:
    static constexpr double kSteps = 10'000;
};

// A measure that is kept, and its place: of counters among the sums, of levels among the levels.
struct Kept {
    const Measure* measure;
    std::size_t place;
    std::size_t cell;  // of levels: among the numbers of their kind of keeping, whole floats or codes
    // Both sources measure it: the one that judges the channel has the place, under either's name.
    bool shared = false;
};

// Those that need a place.
constexpr std::size_t countKept(bool (*counts)(Keeping)) {
    return static_cast<std::size_t>(std::ranges::count_if(
        kMeasures, [&](const Measure& one) { return one.insteadOf.empty() && counts(one.keeping); }));
}
inline constexpr std::size_t kSums = countKept([](Keeping keeping) { return keeping == Keeping::kSum; });
inline constexpr std::size_t kFloats = countKept([](Keeping keeping) { return keeping == Keeping::kFloat; });
inline constexpr std::size_t kCodes = countKept([](Keeping keeping) { return keeping > Keeping::kFloat; });
inline constexpr std::size_t kKeptLevels = kFloats + kCodes;
inline constexpr auto kAllKept = static_cast<std::size_t>(
    std::ranges::count_if(kMeasures, [](const Measure& one) { return one.keeping != Keeping::kNone; }));

// In the order of the table of measures.
inline constexpr auto kKept = [] {
    std::array<Kept, kAllKept> kept{};
    std::size_t next = 0;
    std::size_t sums = 0;
    std::size_t levels = 0;
    std::size_t floats = 0;
    std::size_t codes = 0;
    for (const Measure& one : kMeasures) {
        if (one.keeping != Keeping::kNone && !one.insteadOf.empty()) {
            for (std::size_t i = 0; i < next; ++i) {
                if (kept[i].measure->name == one.insteadOf) {
                    kept[i].shared = true;
                    kept[next++] = {&one, kept[i].place, kept[i].cell, true};
                    break;
                }
            }
        } else if (one.keeping == Keeping::kSum) {
            kept[next++] = {&one, sums++, 0};
        } else if (one.keeping != Keeping::kNone) {
            kept[next++] = {&one, levels++, one.keeping == Keeping::kFloat ? floats++ : codes++};
        }
    }
    return kept;
}();

using LevelValues = std::array<double, kKeptLevels>;  // by place
using Sums = std::array<uint32_t, kSums>;             // by place

inline bool isSum(const Kept& kept) {
    return kept.measure->keeping == Keeping::kSum;
}

// Whether a source has the place; `judges`: it judges the channel.
inline bool writes(const Kept& kept, Source source, bool judges) {
    return kept.measure->source == source && (judges || !kept.shared);
}

// Unknown for what others write.
inline LevelValues levelsOf(const ChannelSample& sample, bool judges) {
    LevelValues values;
    values.fill(kUnknown);
    for (const Kept& kept : kKept) {
        if (!isSum(kept) && writes(kept, sample.source, judges)) {
            const Measure& measure = *kept.measure;
            values[kept.place] = sample.knows(measure, measure.kept) ? sample.level(measure) : kUnknown;
        }
    }
    return values;
}

inline void addTo(Sums& sums, const ChannelSample& sample, bool judges) {
    for (const Kept& kept : kKept) {
        if (isSum(kept) && writes(kept, sample.source, judges)) {
            sums[kept.place] = static_cast<uint32_t>(std::min<uint64_t>(
                sums[kept.place] + sample.count(*kept.measure).growth, std::numeric_limits<uint32_t>::max()));
        }
    }
}

// The levels of a second, or one statistic of those of a minute.
struct PackedLevels {
    std::array<float, kFloats>& floats;
    std::array<uint16_t, kCodes>& codes;

    // Of what all sources measure, or what one alone writes.
    void pack(const LevelValues& values, std::optional<Source> source = {}, bool judges = true) const {
        for (const Kept& kept : kKept) {
            if (source && !writes(kept, *source, judges)) {
                continue;
            }
            const double value = isSum(kept) ? 0 : values[kept.place];
            switch (kept.measure->keeping) {
                case Keeping::kFloat:
                    floats[kept.cell] = static_cast<float>(value);
                    break;
                case Keeping::kCompact:
                    codes[kept.cell] = CompactLevel::encode(value);
                    break;
                case Keeping::kSigned:
                    codes[kept.cell] = CompactSigned::encode(value);
                    break;
                case Keeping::kIndex:
                    codes[kept.cell] = CompactIndex::encode(value);
                    break;
                case Keeping::kSum:
                case Keeping::kNone:
                    break;
            }
        }
    }
};

inline double unpack(const Kept& kept, const std::array<float, kFloats>& floats,
                     const std::array<uint16_t, kCodes>& codes) {
    switch (kept.measure->keeping) {
        case Keeping::kFloat:
            return floats[kept.cell];
        case Keeping::kSigned:
            return CompactSigned::decode(codes[kept.cell]);
        case Keeping::kIndex:
            return CompactIndex::decode(codes[kept.cell]);
        default:
            return CompactLevel::decode(codes[kept.cell]);
    }
}

// A source's bits in `known`: of what it alone measures, and of what is shared. They are on the disk: a
// source that is added has those behind.
constexpr uint8_t bitOf(Source source, bool shared) {
    const auto number = static_cast<unsigned>(source);
    return static_cast<uint8_t>(1U << (number / 2 * 4 + number % 2 + (shared ? 2 : 0)));
}
static_assert(kSources <= 4, "eight bits, two a source");
constexpr uint8_t bitsOf(Source source, bool judges) {
    return static_cast<uint8_t>(bitOf(source, false) | (judges ? bitOf(source, true) : 0));
}
// Whether somebody wrote it: of what is shared anybody for the probe's name, the meter for its own.
inline bool isKnown(const Kept& kept, uint16_t known) {
    const Source source = kept.measure->source;
    const auto others =
        static_cast<uint16_t>(kept.shared && source == Source::kProbe ? bitOf(Source::kMeter, true) : 0);
    return (known & (bitOf(source, kept.shared) | others)) != 0;
}

// All zero: nothing is known.
struct SecondRecord {
    uint32_t wall;  // begin, seconds since the epoch
    std::array<float, kFloats> floats;
    Sums sums;
    std::array<uint16_t, kCodes> codes;
    uint16_t known;  // by whom: bitOf

    void pack(const LevelValues& values, std::optional<Source> source = {}, bool judges = true) {
        PackedLevels{floats, codes}.pack(values, source, judges);
    }
    double level(const Kept& kept) const {
        return unpack(kept, floats, codes);
    }
};

enum Statistic : uint8_t { kMinimum, kMean, kMaximum };
inline constexpr std::size_t kStatistics = 3;

struct MinuteRecord {
    uint32_t wall;
    std::array<std::array<float, kFloats>, kStatistics> floats;
    Sums sums;
    std::array<std::array<uint16_t, kCodes>, kStatistics> codes;
    uint8_t known;           // by whom: bitOf
    uint8_t worst : 2;       // StripCell
    uint8_t badSeconds : 6;  // with an alarm or without signal: 0 to 60

    void pack(Statistic statistic, const LevelValues& values) {
        PackedLevels{floats[statistic], codes[statistic]}.pack(values);
    }
    double level(const Kept& kept, Statistic statistic) const {
        return unpack(kept, floats[statistic], codes[statistic]);
    }
};

// What came of a level in the second or minute that is not over yet.
struct Gathered {
    double sum;
    double minimum;
    double maximum;
    uint32_t count;

    void add(double value) {
        if (!std::isfinite(value)) {
            return;
        }
        minimum = count == 0 ? value : std::min(minimum, value);
        maximum = count == 0 ? value : std::max(maximum, value);
        sum += value;
        ++count;
    }
    double mean() const {
        // Rounding must not lead out of the range.
        return count == 0 ? kUnknown : std::clamp(sum / count, minimum, maximum);
    }
    double lowest() const {
        return count == 0 ? kUnknown : minimum;
    }
    double highest() const {
        return count == 0 ? kUnknown : maximum;
    }
};
using GatheredLevels = std::array<Gathered, kKeptLevels>;

template <double (Gathered::*Value)() const>
LevelValues valuesOf(const GatheredLevels& gathered) {
    LevelValues values;
    for (std::size_t i = 0; i < kKeptLevels; ++i) {
        values[i] = (gathered[i].*Value)();
    }
    return values;
}

template <typename Record, std::size_t Size>
struct Ring {
    std::array<Record, Size> records;
    int64_t last;  // index of the newest record

    Record& at(int64_t index) {
        return records[static_cast<std::size_t>(index) % Size];
    }
    // Null where nothing was kept.
    const Record* find(int64_t index) const {
        return index > last || index <= last - static_cast<int64_t>(Size)
                   ? nullptr
                   : &records[static_cast<std::size_t>(index) % Size];
    }
    // Makes the index the newest; what lies between is unknown.
    void advance(int64_t index) {
        for (int64_t i = std::max(last + 1, index - static_cast<int64_t>(Size) + 1); i <= index; ++i) {
            at(i) = Record{};
        }
        last = index;
    }
};

}  // namespace station::past
