// What the probe measures, and how it is taken from its records.
#pragma once

#include <algorithm>
#include <array>
#include <cstdlib>
#include <span>

#include "measures/measure.h"
#include "recordColumns.h"
#include "recordParser.h"

namespace station {

using records::Record;

struct ProbeMeasure {
    Measure measure;
    // Of a level that the stream's record does not have; NaN while it is not known.
    double (*ofPids)(std::span<const Record> pids) = nullptr;
    // Of a counter: how much of it a faultless channel has; that is no fault.
    uint64_t (*faultless)(std::span<const Record> pids) = nullptr;
};

namespace probe {

bool withPackets(const ChannelSample& sample, double value);
bool notZero(const ChannelSample& sample, double value);
// Above 0, which the probe says once it has enough of a signal.
bool aboveZero(const ChannelSample& sample, double value);
// The bit rate is 0 where packets came and their span was too short to tell it; what depends on it says
// nothing then.
bool withRate(const ChannelSample& sample, double value);
// No packets are 0 bit/s, but packets without a rate are a rate that is not known.
bool withRateOrSilent(const ChannelSample& sample, double value);
// The first block of datagrams is complete. Its mean may well be 0, since it counts whole milliseconds.
bool withBlock(const ChannelSample& sample, double value);
// Without a join time the column counts from 1970, and a packet before the join makes it wrap around.
bool joined(const ChannelSample& sample, double value);

double lowestScore(std::span<const Record> pids);
// A network information table may come every 10 s (ETSI TS 101 211).
uint64_t rareTables(std::span<const Record> pids);
// Subtitles come when somebody speaks.
uint64_t rarePictures(std::span<const Record> pids);

// A record column as a measure: its name, unit and meaning are the column's.
constexpr Measure column(MeasureKind kind, std::string_view name, Measure measure) {
    for (const auto& columns : {std::span<const records::Column>(records::kStreamColumns),
                                std::span<const records::Column>(records::kKnownPidColumns)}) {
        const auto found = std::ranges::find(columns, name, &records::Column::name);
        if (found != columns.end()) {
            measure.name = found->name;
            measure.unit = found->unit;
            measure.meaning = found->meaning;
            measure.kind = kind;
            measure.source = Source::kProbe;
            return measure;
        }
    }
    std::abort();  // does not compile
}
constexpr Measure counter(std::string_view name, const Measure& measure = {}) {
    return column(MeasureKind::kCounter, name, measure);
}
constexpr Measure level(std::string_view name, const Measure& measure) {
    return column(MeasureKind::kLevel, name, measure);
}
constexpr Measure state(std::string_view name, const Measure& measure) {
    return column(MeasureKind::kState, name, measure);
}

}  // namespace probe

// Those that the history keeps stand in the order in which it lists them.
inline constexpr std::array kProbeMeasures = std::to_array<ProbeMeasure>({
    {probe::level("bitRate", {.title = "Bit rate",
                              .judged = probe::withRate,
                              .keeping = Keeping::kFloat,
                              .kept = probe::withRateOrSilent,
                              .listed = true,
                              .wall = {.field = "bitRate", .label = "bit rate", .heading = "Bit rate"},
                              .metric = {"kestor_stream_bitrate_bps",
                                         "Bit rate since the previous snapshot, lost packets included."}})},
    {probe::counter("packetsLost",
                    {.title = "Packets lost",
                     .keeping = Keeping::kSum,
                     .listed = true,
                     .wall = {"lostLastMinute", "lost", "Lost, 1 min", "Packets lost in the last minute"},
                     .metric = {"kestor_stream_lost_packets_total",
                                "Transport packets missing by the continuity counter."}})},
    {probe::counter("Continuity_count_error", {.title = "Continuity errors",
                                               .keeping = Keeping::kSum,
                                               .listed = true,
                                               .wall = {"continuityLastMinute", "CC", "CC, 1 min",
                                                        "Continuity errors in the last minute"}})},
    {probe::counter("PCR_error", {.title = "PCR errors", .keeping = Keeping::kSum})},
    {probe::level("mdiDelayFactor", {.title = "Delay factor",
                                     .keeping = Keeping::kCompact,
                                     .kept = probe::aboveZero,
                                     .metric = {"kestor_stream_delay_factor_seconds",
                                                "Delay factor of the Media Delivery Index (RFC 4445).",
                                                probe::notZero, 1000}})},
    {probe::level("jitterVariance",
                  {.title = "Jitter variance",
                   .keeping = Keeping::kCompact,
                   .kept = probe::aboveZero,
                   .metric = {"kestor_stream_jitter_variance",
                              "Variance of the times between datagrams over the last block of 4096, in "
                              "square milliseconds.",
                              probe::withBlock}})},
    {probe::level("transportQualityIndex",
                  {.title = "Quality index",
                   .judged = probe::withRate,
                   .keeping = Keeping::kIndex,
                   .kept = probe::withRateOrSilent,
                   .wall = {"qualityIndex", "quality", "Quality", "Transport quality index, 1 to 5", 1},
                   .metric = {"kestor_stream_quality_index",
                              "Transport quality index, 1 (bad) to 5, from bit rate and loss since the "
                              "previous snapshot.",
                              probe::withPackets}})},
    {probe::counter("packetsReceived",
                    {.title = "Packets received",
                     .keeping = Keeping::kSum,
                     .metric = {"kestor_stream_packets_total", "Transport packets received."}})},

    {.measure = probe::level("mosScore", {.judged = probe::withRate}), .ofPids = probe::lowestScore},
    {probe::level("jitterMeanInterArrival",
                  {.metric = {"kestor_stream_interarrival_seconds",
                              "Mean time between datagrams over the last block of 4096, in steps of a "
                              "millisecond.",
                              probe::withBlock, 1000}})},
    {probe::level("jitterVarianceMaximum", {})},
    {probe::level("igmpLatency",
                  {.metric = {"kestor_stream_join_latency_seconds", "Time from the join to the first packet.",
                              probe::joined, 1000}})},
    {probe::counter("packetsOutOfSequence",
                    {.metric = {"kestor_stream_out_of_sequence_packets_total",
                                "Packets with payload and an unexpected continuity counter."}})},
    {probe::counter("packetsScrambled",
                    {.metric = {"kestor_stream_scrambled_packets_total",
                                "Scrambled packets (transport_scrambling_control other than 0)."}})},
    {probe::counter("TS_sync_loss")},
    {probe::counter("Sync_byte_error")},
    {probe::counter("PAT_error")},
    {probe::counter("PAT_error_2")},
    {.measure = probe::counter("PMT_error"), .faultless = probe::rareTables},
    {probe::counter("PMT_error_2")},
    {probe::counter("PID_error")},
    {probe::counter("Transport_error")},
    {probe::counter("CRC_error")},
    {probe::counter("PCR_repetition_error")},
    {probe::counter("PCR_discontinuity_indicator_error")},
    {probe::counter("PCR_accuracy_error")},
    {.measure = probe::counter("PTS_error"), .faultless = probe::rarePictures},
    {probe::counter("CAT_error")},
    {probe::state("wrongSource", {.metric = {"kestor_stream_wrong_source",
                                             "1 once a datagram came from another source than the first."}})},
    {probe::state("ttl", {.metric = {"kestor_stream_ttl", "IPv4 time to live of the latest datagram.",
                                     probe::withPackets}})},
    {probe::state("dscp", {.metric = {"kestor_stream_dscp",
                                      "Differentiated services code point of the latest datagram.",
                                      probe::withPackets}})},
});

}  // namespace station
