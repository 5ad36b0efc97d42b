// What the meter measures, and how it is taken from its reports.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "basics/tr101290.h"
#include "measures/measure.h"

namespace metering {
class GroupReport;
}

namespace station {

struct MeterMeasure {
    static constexpr int kNoCheck = -1;

    Measure measure;
    // A counter of a check: its place in basics::kChecks. It has seconds as well.
    int check = kNoCheck;
    // Others, by kind; what has none is made of reports that follow one another.
    uint64_t (*count)(const metering::GroupReport& report) = nullptr;
    double (*level)(const metering::GroupReport& report) = nullptr;  // NaN while it is not known
    int (*state)(const metering::GroupReport& report) = nullptr;
    bool (*has)(const metering::GroupReport& report) = nullptr;  // of counters; null: always
    // Packets that this machine lost do not bring it about.
    bool ownLossNever = false;
};

namespace metered {

// For Measure::judged.
bool undisturbed(const ChannelSample& sample, double value);
bool beyondOwnLoss(const ChannelSample& sample, double value);  // packets lost

bool hasLoss(const metering::GroupReport& report);
bool hasRtp(const metering::GroupReport& report);

uint64_t received(const metering::GroupReport& report);
uint64_t lost(const metering::GroupReport& report);  // at least 0
uint64_t lossEvents(const metering::GroupReport& report);
uint64_t repeated(const metering::GroupReport& report);
uint64_t scrambled(const metering::GroupReport& report);
uint64_t otherSources(const metering::GroupReport& report);
uint64_t rtpLost(const metering::GroupReport& report);  // at least 0
uint64_t rtpLossEvents(const metering::GroupReport& report);
uint64_t rtpOutOfOrder(const metering::GroupReport& report);
uint64_t rtpRepeated(const metering::GroupReport& report);
uint64_t serviceInformation(const metering::GroupReport& report);

double bitrate(const metering::GroupReport& report);
double nullShare(const metering::GroupReport& report);
double delayFactor(const metering::GroupReport& report);
double mediaLoss(const metering::GroupReport& report);
double accuracy(const metering::GroupReport& report);
double clockJitter(const metering::GroupReport& report);
double clockOffset(const metering::GroupReport& report);
double interArrivalMean(const metering::GroupReport& report);
double interArrivalHighest(const metering::GroupReport& report);
double rtpJitter(const metering::GroupReport& report);
double utcOffset(const metering::GroupReport& report);

constexpr Measure measure(MeasureKind kind, std::string_view name, std::string_view unit,
                          std::string_view meaning, Measure measure = {}) {
    measure.name = name;
    measure.unit = unit;
    measure.meaning = meaning;
    measure.kind = kind;
    measure.source = Source::kMeter;
    return measure;
}
constexpr MeterMeasure counter(std::string_view name, std::string_view unit, std::string_view meaning,
                               uint64_t (*count)(const metering::GroupReport&), Measure more = {}) {
    return {.measure = measure(MeasureKind::kCounter, name, unit, meaning, more), .count = count};
}
constexpr MeterMeasure level(std::string_view name, std::string_view unit, std::string_view meaning,
                             double (*level)(const metering::GroupReport&), Measure more = {}) {
    more.judged = undisturbed;
    return {.measure = measure(MeasureKind::kLevel, name, unit, meaning, more), .level = level};
}
constexpr MeterMeasure state(std::string_view name, std::string_view meaning, Measure more = {}) {
    return {.measure = measure(MeasureKind::kState, name, "", meaning, more)};
}
constexpr MeterMeasure check(std::string_view name, std::string_view meaning, Measure more = {}) {
    const std::string_view bare = name.substr(std::string_view("meter.").size());
    for (std::size_t i = 0; i < basics::kChecks.size(); ++i) {
        if (basics::kChecks[i].name == bare) {
            return {.measure = measure(MeasureKind::kCounter, name, "error", meaning, more),
                    .check = static_cast<int>(i)};
        }
    }
    std::abort();  // does not compile
}
constexpr MeterMeasure where(bool (*has)(const metering::GroupReport&), MeterMeasure row) {
    row.has = has;
    return row;
}
constexpr MeterMeasure judgedWhen(Known judged, MeterMeasure row) {
    row.measure.judged = judged;
    return row;
}
constexpr MeterMeasure notByOwnLoss(MeterMeasure row) {
    row.ownLossNever = true;
    return row;
}

}  // namespace metered

// The figures of docs/measures.md.
inline constexpr std::array kMeterMeasures = std::to_array<MeterMeasure>({
    metered::level("meter.bitrate", "bit/s", "Bit rate of the last second.", metered::bitrate,
                   {.title = "Bit rate by the meter", .keeping = Keeping::kFloat, .insteadOf = "bitRate"}),
    metered::level("meter.nullShare", "", "Share of null packets.", metered::nullShare),
    metered::level(
        "meter.delayFactor", "ms", "Delay factor of the last second (RFC 4445).", metered::delayFactor,
        {.title = "Delay factor by the meter", .keeping = Keeping::kCompact, .insteadOf = "mdiDelayFactor"}),
    metered::level("meter.mediaLoss", "packet",
                   "Transport packets lost or out of order in the last second (RFC 4445).",
                   metered::mediaLoss),
    metered::judgedWhen(metered::beyondOwnLoss,
                        metered::level("meter.lossRun", "packet",
                                       "Longest run of packets lost in the last second.", nullptr)),
    metered::level("meter.pcrAccuracy", "ns",
                   "Largest distance of a PCR from its place, of the last second; constant bit rate alone.",
                   metered::accuracy, {.title = "PCR accuracy", .keeping = Keeping::kCompact}),
    metered::level("meter.pcrJitter", "ms", "Largest spread of arrival against a clock in the last second.",
                   metered::clockJitter, {.title = "PCR jitter", .keeping = Keeping::kCompact}),
    metered::level("meter.pcrOffset", "ppm", "Frequency offset of the clock that is off furthest.",
                   metered::clockOffset, {.title = "PCR frequency offset", .keeping = Keeping::kSigned}),
    metered::level("meter.interArrivalMean", "ms", "Mean time between datagrams in the last second.",
                   metered::interArrivalMean),
    metered::level("meter.interArrivalHighest", "ms", "Longest time between datagrams in the last second.",
                   metered::interArrivalHighest,
                   {.title = "Longest wait for a datagram", .keeping = Keeping::kCompact}),
    metered::level("meter.rtpJitter", "ms", "Inter-arrival jitter of RTP (RFC 3550).", metered::rtpJitter),
    metered::level("meter.utcOffset", "ms", "The stream's time of day less this machine's.",
                   metered::utcOffset),

    metered::counter(
        "meter.packets", "packet", "Transport packets received.", metered::received,
        {.title = "Packets received by the meter", .keeping = Keeping::kSum, .insteadOf = "packetsReceived"}),
    metered::where(
        metered::hasLoss,
        metered::counter(
            "meter.packetsLost", "packet",
            "Transport packets lost, by the best basis there is.", metered::lost,
            {.title = "Packets lost by the meter", .keeping = Keeping::kSum, .insteadOf = "packetsLost"})),
    metered::where(metered::hasLoss,
                   metered::counter("meter.lossEvents", "", "Runs of loss.", metered::lossEvents)),
    metered::counter("meter.packetsRepeated", "packet", "Packets sent twice, which is legal.",
                     metered::repeated),
    metered::notByOwnLoss(
        metered::counter("meter.packetsScrambled", "packet", "Scrambled packets.", metered::scrambled)),
    metered::notByOwnLoss(metered::counter("meter.otherSources", "datagram",
                                           "Datagrams to the group from other source addresses.",
                                           metered::otherSources)),
    metered::where(metered::hasRtp, metered::counter("meter.rtpLost", "datagram",
                                                     "RTP datagrams lost (RFC 3550).", metered::rtpLost)),
    metered::where(metered::hasRtp, metered::counter("meter.rtpLossEvents", "", "Runs of lost RTP datagrams.",
                                                     metered::rtpLossEvents)),
    metered::where(metered::hasRtp, metered::counter("meter.rtpOutOfOrder", "datagram",
                                                     "RTP datagrams out of order.", metered::rtpOutOfOrder)),
    metered::where(metered::hasRtp, metered::counter("meter.rtpRepeated", "datagram",
                                                     "RTP datagrams that came twice.", metered::rtpRepeated)),
    metered::notByOwnLoss(metered::counter("meter.cues", "cue", "Cues (SCTE 35).", nullptr)),

    metered::check("meter.TS_sync_loss", "Packets do not begin with their sync byte in a row."),
    metered::notByOwnLoss(metered::check("meter.Sync_byte_error", "Packets without sync byte.")),
    metered::check("meter.PAT_error_2", "No PAT for over 0.5 s, another table in its place, or scrambled."),
    metered::check("meter.Continuity_count_error", "Continuity counters that do not fit.",
                   {.title = "Continuity errors by the meter",
                    .keeping = Keeping::kSum,
                    .insteadOf = "Continuity_count_error"}),
    metered::check("meter.PMT_error_2", "A program without PMT for over 0.5 s, or a scrambled one."),
    metered::check("meter.PID_error", "A video or audio PID without packets for too long."),
    metered::notByOwnLoss(
        metered::check("meter.Transport_error", "Packets marked as damaged by equipment upstream.")),
    metered::check("meter.CRC_error", "Sections with a wrong checksum."),
    metered::check("meter.PCR_repetition_error", "PCRs too far apart."),
    metered::check("meter.PCR_discontinuity_indicator_error", "Steps of a PCR that were not announced."),
    metered::check("meter.PCR_accuracy_error", "PCRs over 500 ns off their place."),
    metered::check("meter.PTS_error", "Time stamps of video or audio over 700 ms apart."),
    metered::check("meter.CAT_error", "Scrambled packets without a CAT, or another table in its place."),
    metered::check("meter.NIT_actual_error", "NIT missing, repeated too soon, or another table there."),
    metered::check("meter.NIT_other_error", "NIT of other networks over 10 s apart."),
    metered::check("meter.SI_repetition_error", "Tables of service information too seldom or too often."),
    metered::notByOwnLoss(metered::check("meter.Unreferenced_PID", "PIDs that no table refers to.")),
    metered::check("meter.SDT_actual_error", "SDT missing, repeated too soon, or another table there."),
    metered::check("meter.SDT_other_error", "SDT of other streams over 10 s apart."),
    metered::check("meter.EIT_actual_error",
                   "EIT present/following missing, repeated too soon, or another table there."),
    metered::check("meter.EIT_other_error", "EIT of other streams over 10 s apart."),
    metered::check("meter.EIT_PF_error", "One of EIT present and following without the other."),
    metered::check("meter.RST_error", "RST repeated too soon, or another table there."),
    metered::check("meter.TDT_error", "TDT missing, repeated too soon, or another table there."),
    metered::counter("meter.serviceInformation", "error",
                     "Errors of service information: the checks 3.1 to 3.8 but 3.4.a.",
                     metered::serviceInformation),

    metered::state("meter.lossBasis",
                   "What the count of lost packets goes by: 1 counter, 2 clock, 3 RTP; -1: not known."),
    metered::state("meter.constant", "1 while the bit rate is constant, 0 while it is not; -1: not known."),
    metered::state("meter.notConstant",
                   "1 while a bit rate that was constant for a minute is no longer; -1: not known."),
    metered::state("meter.videoMissing",
                   "Video streams without packets for 2 s that had some; -1: not known."),
    metered::state("meter.audioMissing",
                   "Audio streams without packets for 2 s that had some; -1: not known."),
});

}  // namespace station
