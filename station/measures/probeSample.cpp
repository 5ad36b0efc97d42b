#include "measures/probeSample.h"

#include <algorithm>
#include <array>

#include "tr101290Checks.h"

namespace station {

namespace probe {

namespace {

// ISO/IEC 13818-1, table 2-34; ETSI EN 300 468 for private data with a descriptor that tells its coding.
constexpr std::array<int64_t, 13> kVideoAndAudioTypes = {0x01, 0x02, 0x03, 0x04, 0x0F, 0x10, 0x11,
                                                         0x1B, 0x24, 0x33, 0x42, 0x81, 0x87};
constexpr int64_t kPrivateDataType = 0x06;
constexpr std::array<uint64_t, 4> kAudioDescriptorTags = {0x6A, 0x7A, 0x7B, 0x7C};

constexpr int64_t kNitPid = 0x0010;

constexpr const Measure& kBitRate = measureOf("bitRate");
constexpr const Measure& kPacketsReceived = measureOf("packetsReceived");
constexpr const Measure& kMeanInterArrival = measureOf("jitterMeanInterArrival");
constexpr const Measure& kVarianceMaximum = measureOf("jitterVarianceMaximum");

bool carriesVideoOrAudio(const Record& pid) {
    if (!pid.has("streamType")) {
        return false;
    }
    const int64_t type = pid.integer("streamType");
    if (type == kPrivateDataType) {
        const auto tags = pid.descriptorTags();
        return std::ranges::find_first_of(tags, kAudioDescriptorTags) != tags.end();
    }
    return std::ranges::find(kVideoAndAudioTypes, type) != kVideoAndAudioTypes.end();
}

}  // namespace

bool withPackets(const ChannelSample& sample, double /*value*/) {
    return sample.count(kPacketsReceived).total != 0;
}

bool notZero(const ChannelSample& /*sample*/, double value) {
    return value != 0;
}

bool aboveZero(const ChannelSample& sample, double value) {
    return sample.signal && value > 0;
}

bool withRate(const ChannelSample& sample, double /*value*/) {
    return sample.level(kBitRate) > 0;
}

bool withRateOrSilent(const ChannelSample& sample, double value) {
    return withRate(sample, value) || !sample.signal;
}

bool withBlock(const ChannelSample& sample, double /*value*/) {
    return sample.level(kMeanInterArrival) != 0 || sample.level(kVarianceMaximum) != 0;
}

bool joined(const ChannelSample& sample, double value) {
    constexpr double kNoLatency = 1e11;  // three years, in ms
    return withPackets(sample, value) && value < kNoLatency;
}

double lowestScore(std::span<const Record> pids) {
    double lowest = std::numeric_limits<double>::quiet_NaN();
    for (const Record& pid : pids) {
        if (const double score = pid.fraction("mosScore"); score > 0) {
            lowest = std::isnan(lowest) ? score : std::min(lowest, score);
        }
    }
    return lowest;
}

uint64_t rareTables(std::span<const Record> pids) {
    uint64_t errors = 0;
    for (const Record& pid : pids) {
        errors += pid.integer("pid") == kNitPid ? static_cast<uint64_t>(pid.integer("PMT_error")) : 0;
    }
    return errors;
}

uint64_t rarePictures(std::span<const Record> pids) {
    uint64_t errors = 0;
    for (const Record& pid : pids) {
        const auto late = static_cast<uint64_t>(pid.integer("PTS_error"));
        errors += late != 0 && !carriesVideoOrAudio(pid) ? late : 0;
    }
    return errors;
}

}  // namespace probe

namespace {

static_assert(std::ranges::all_of(records::kChecks, [](const records::Check& check) {
    return measureOf(check.column).kind == MeasureKind::kCounter;
}));

// A row of the table, and where the stream's record has it.
struct Taken {
    Measure measure;
    std::size_t column;  // unless the PIDs tell it
    double (*ofPids)(std::span<const Record>);
    uint64_t (*faultless)(std::span<const Record>);
};

constexpr auto kTakenRows = [] {
    std::array<Taken, kProbeMeasures.size()> taken{};
    for (std::size_t i = 0; i < taken.size(); ++i) {
        const ProbeMeasure& row = kProbeMeasures[i];
        taken[i] = {measureOf(row.measure.name), 0, row.ofPids, row.faultless};
        if (row.ofPids == nullptr) {
            taken[i].column = records::columnIndex(records::Kind::kStream, row.measure.name).value();
        }
    }
    return taken;
}();

uint64_t growth(uint64_t before, uint64_t after) {
    return after > before ? after - before : 0;
}

void takeValues(ChannelSample& sample, const Record& stream, std::span<const Record> pids) {
    for (const Taken& one : kTakenRows) {
        switch (one.measure.kind) {
            case MeasureKind::kCounter: {
                Count& count = sample.count(one.measure);
                count.total = static_cast<uint64_t>(stream.integer(one.column));
                count.faultless = one.faultless != nullptr ? one.faultless(pids) : 0;
                break;
            }
            case MeasureKind::kLevel:
                sample.level(one.measure) =
                    one.ofPids != nullptr ? one.ofPids(pids) : stream.number(one.column);
                break;
            case MeasureKind::kState:
                sample.state(one.measure) = static_cast<int>(stream.integer(one.column));
                break;
        }
    }
}

void takeGrowth(Count& count, const Count& previous) {
    count.growth = growth(previous.total, count.total);
    // A PID that begins to carry what may be rare takes its past errors along, so the counter's own growth
    // is the bound.
    count.faults =
        std::min(count.growth, growth(previous.total - std::min(previous.total, previous.faultless),
                                      count.total - std::min(count.total, count.faultless)));
    count.faultySeconds = count.faults > 0 ? 1 : 0;
}

}  // namespace

ChannelSample makeSample(const Record& stream, std::span<const Record> pids, const ChannelSample* previous,
                         std::chrono::steady_clock::duration sincePrevious) {
    constexpr const Measure& kPackets = measureOf("packetsReceived");
    ChannelSample sample;
    takeValues(sample, stream, pids);
    sample.received = sample.count(kPackets).total;
    const uint64_t before = previous != nullptr ? previous->received : 0;
    sample.first = before == 0 || sample.received < before;
    sample.signal = sample.first ? sample.received > 0 : sample.received > before;
    if (previous != nullptr) {
        sample.seconds = std::chrono::duration<double>(sincePrevious).count();
        if (!sample.first) {
            for (std::size_t i = 0; i < kCounters; ++i) {
                takeGrowth(sample.counts[i], previous->counts[i]);
            }
        }
    }
    return sample;
}

}  // namespace station
