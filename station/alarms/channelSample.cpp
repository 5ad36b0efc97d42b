#include "alarms/channelSample.h"

#include <algorithm>

namespace station {

namespace {

using records::Kind;

constexpr std::size_t kFirstCounter = *records::columnIndex(Kind::kStream, "packetsLost");
static_assert(std::ranges::equal(std::span(records::kStreamColumns).subspan(kFirstCounter, kSampleCounters),
                                 records::kCounterColumns, {}, &records::Column::name,
                                 &records::Column::name));

// ISO/IEC 13818-1, table 2-34; ETSI EN 300 468 for private data with a descriptor that tells its coding.
constexpr std::array<int64_t, 13> kVideoAndAudioTypes = {0x01, 0x02, 0x03, 0x04, 0x0F, 0x10, 0x11,
                                                         0x1B, 0x24, 0x33, 0x42, 0x81, 0x87};
constexpr int64_t kPrivateDataType = 0x06;
constexpr std::array<uint64_t, 4> kAudioDescriptorTags = {0x6A, 0x7A, 0x7B, 0x7C};

constexpr int64_t kNitPid = 0x0010;

uint64_t unsignedColumn(const Record& record, records::ColumnName name) {
    return static_cast<uint64_t>(record.integer(name));
}

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

void takePid(ChannelSample& sample, const Record& pid) {
    if (const double score = pid.fraction("mosScore"); score > 0) {
        sample.mos = std::min(sample.mos.value_or(score), score);
    }
    if (pid.integer("pid") == kNitPid) {
        sample.pmtErrorsApart += unsignedColumn(pid, "PMT_error");
    }
    if (const uint64_t errors = unsignedColumn(pid, "PTS_error"); errors != 0 && !carriesVideoOrAudio(pid)) {
        sample.ptsErrorsApart += errors;
    }
}

void takeMeasures(ChannelSample& sample, const Record& stream) {
    sample.bitRate = static_cast<double>(unsignedColumn(stream, "bitRate"));
    sample.delayFactor = stream.fraction("mdiDelayFactor");
    sample.jitterVariance = stream.fraction("jitterVariance");
    sample.interArrival = static_cast<double>(unsignedColumn(stream, "jitterMeanInterArrival"));
    sample.qualityIndex = stream.fraction("transportQualityIndex");
    sample.wrongSource = stream.integer("wrongSource") != 0;
    sample.ttl = static_cast<int>(stream.integer("ttl"));
    sample.dscp = static_cast<int>(stream.integer("dscp"));
}

uint64_t growth(uint64_t before, uint64_t after) {
    return after > before ? after - before : 0;
}

// The column's growth without what the PIDs left apart contribute. A PID that changes sides takes its past
// errors along, so the column's own growth is the bound.
uint64_t growthWithoutApart(const ChannelSample& sample, const ChannelSample& previous, std::size_t counter,
                            uint64_t ChannelSample::*apart) {
    return std::min(sample.increments[counter],
                    growth(previous.totals[counter] - std::min(previous.totals[counter], previous.*apart),
                           sample.totals[counter] - std::min(sample.totals[counter], sample.*apart)));
}

void takeIncrements(ChannelSample& sample, const ChannelSample& previous) {
    for (std::size_t i = 0; i < kSampleCounters; ++i) {
        sample.increments[i] = growth(previous.totals[i], sample.totals[i]);
    }
    sample.pmtErrors =
        growthWithoutApart(sample, previous, sampleCounter("PMT_error"), &ChannelSample::pmtErrorsApart);
    sample.ptsErrors =
        growthWithoutApart(sample, previous, sampleCounter("PTS_error"), &ChannelSample::ptsErrorsApart);
}

}  // namespace

std::optional<std::size_t> findSampleCounter(std::string_view column) {
    const auto found = std::ranges::find(records::kCounterColumns, column, &records::Column::name);
    return found == records::kCounterColumns.end()
               ? std::nullopt
               : std::optional<std::size_t>(found - records::kCounterColumns.begin());
}

std::string_view sampleCounterColumn(std::size_t index) {
    return records::kCounterColumns.at(index).name;
}

ChannelSample makeSample(const Record& stream, std::span<const Record> pids, const ChannelSample* previous,
                         std::chrono::steady_clock::duration sincePrevious) {
    ChannelSample sample;
    for (std::size_t i = 0; i < kSampleCounters; ++i) {
        sample.totals[i] = static_cast<uint64_t>(stream.integer(kFirstCounter + i));
    }
    takeMeasures(sample, stream);
    for (const Record& pid : pids) {
        takePid(sample, pid);
    }
    const uint64_t received = sample.totals[kPacketsReceivedCounter];
    const uint64_t receivedBefore = previous != nullptr ? previous->totals[kPacketsReceivedCounter] : 0;
    sample.first = receivedBefore == 0 || received < receivedBefore;
    sample.signal = sample.first ? received > 0 : received > receivedBefore;
    if (previous != nullptr) {
        sample.seconds = std::chrono::duration<double>(sincePrevious).count();
        if (!sample.first) {
            takeIncrements(sample, *previous);
        }
    }
    return sample;
}

}  // namespace station
