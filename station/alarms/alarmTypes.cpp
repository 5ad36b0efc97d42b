#include <algorithm>
#include <array>
#include <vector>

#include "alarms/alarm.h"
#include "alarms/measures.h"
#include "common/text.h"

namespace station {

namespace {

using namespace std::chrono_literals;

constexpr std::array<std::string_view, 4> kSeverityNames = {"critical", "major", "minor", "warning"};
constexpr std::array<std::string_view, 5> kKindNames = {"high", "low", "counter", "condition", "event"};
constexpr std::array<std::string_view, 4> kStatusNames = {"ok", "alarm", "waiting", "disabled"};

struct Levels {
    double raise;
    double clear;
};
struct Delays {
    std::chrono::milliseconds raise;
    std::chrono::milliseconds clear;
};

constexpr AlarmRule level(Severity severity, Levels levels, Delays delays) {
    AlarmRule rule;
    rule.severity = severity;
    rule.raiseLevel = levels.raise;
    rule.clearLevel = levels.clear;
    rule.raiseDelay = delays.raise;
    rule.clearDelay = delays.clear;
    return rule;
}

constexpr AlarmRule condition(Severity severity, Delays delays) {
    return level(severity, {}, delays);
}

constexpr AlarmRule counter(Severity severity, uint64_t count, uint64_t errorSeconds,
                            std::chrono::seconds window) {
    AlarmRule rule;
    rule.severity = severity;
    rule.count = count;
    rule.errorSeconds = errorSeconds;
    rule.window = window;
    return rule;
}

constexpr AlarmRule event(Severity severity, std::chrono::milliseconds apart) {
    return level(severity, {}, {0ms, apart});
}

constexpr AlarmRule off(AlarmRule rule) {
    rule.enabled = false;
    return rule;
}

using enum AlarmKind;
using enum Severity;

// A channel without faults raises nothing with these, also where it is coded at a varying bit rate: then the
// delay factor, which assumes a constant one, goes beyond 2 s after a change and the inter-arrival variance
// to 200 ms^2. A profile for channels of constant bit rate sets the two much lower. Tables and clock
// references late by their arrival, and those off their place by 500 ns, come with every sender that is not
// built for it.
constexpr std::array kTypes = std::to_array<AlarmType>({
    {.name = "probe_silent",
     .meaning = "The probe delivers no results, so nothing is known about any channel.",
     .kind = kCondition,
     .ofProbe = true,
     .defaults = condition(kCritical, {2s, 0s}),
     .look = &ProbeLook::silent,
     .raised = "the probe delivers no results",
     .cleared = "the probe delivers results again"},
    {.name = "probe_not_asking",
     .meaning = "The probe delivers results, but does not ask what to watch: changes do not reach it.",
     .kind = kCondition,
     .ofProbe = true,
     .defaults = condition(kMajor, {3s, 0s}),
     .look = &ProbeLook::notAsking,
     .raised = "the probe does not ask what to watch",
     .cleared = "the probe asks again"},
    {.name = "second_asker",
     .meaning = "Something other than the probe also asks what to watch, and is told nothing.",
     .kind = kCondition,
     .ofProbe = true,
     .defaults = condition(kMajor, {2s, 0s}),
     .look = &ProbeLook::secondAsker,
     .raised = "two ask at the controller's port, and the one that came first is told what to watch: stop "
               "the other (kestor -s -s, or a probe that was started by hand?)",
     .cleared = "one alone asks at the controller's port"},
    {.name = "probe_restarted",
     .meaning = "The probe was restarted; its counters start from zero.",
     .kind = kEvent,
     .ofProbe = true,
     .defaults = event(kMinor, 0s)},
    {.name = "delivery_failing",
     .meaning = "A webhook does not accept notifications, so whoever relies on it hears nothing.",
     .kind = kCondition,
     .ofProbe = true,
     .defaults = condition(kMajor, {60s, 0s}),
     .raised = "a webhook cannot be told",
     .cleared = "webhooks take notifications again"},
    {.name = "not_joined",
     .meaning = "Groups are not joined on the interface that the probe captures, so they do not come.",
     .kind = kCondition,
     .ofProbe = true,
     .defaults = condition(kCritical, {5s, 2s}),
     .raised = "groups are not joined on the interface that the probe captures",
     .cleared = "all groups without signal are joined on the interface that the probe captures"},
    {.name = "link_down",
     .meaning = "The interface that the probe captures has no link, or is down or gone.",
     .kind = kCondition,
     .ofProbe = true,
     .defaults = condition(kCritical, {1s, 5s}),
     .raised = "the interface that the probe captures has no link",
     .cleared = "the interface that the probe captures has its link"},
    {.name = "machine_drops",
     .meaning = "This machine itself dropped packets, so losses may be its own.",
     .kind = kCounter,
     .ofProbe = true,
     .defaults = counter(kMajor, 10, 0, 10s),
     .unit = "packet",
     .what = "packet dropped by this machine",
     .many = "packets dropped by this machine"},
    {.name = "no_signal",
     .meaning = "No packets of the channel arrive.",
     .kind = kCondition,
     .defaults = condition(kCritical, {1s, 2s}),
     .measure = measure("packetsReceived"),
     .raised = "no packets arrive",
     .cleared = "packets arrive again"},
    {.name = "bitrate_low",
     .meaning = "The bit rate is lower than the channel's profile expects.",
     .kind = kLow,
     .defaults = off(level(kMajor, {1'000'000, 1'200'000}, {5s, 10s})),
     .measure = measure("bitRate"),
     .unit = "bit/s",
     .hold = Hold::kWithoutSignal,
     .what = "bit rate"},
    {.name = "bitrate_high",
     .meaning = "The bit rate is higher than the channel's profile expects.",
     .kind = kHigh,
     .defaults = off(level(kMinor, {20'000'000, 18'000'000}, {5s, 10s})),
     .measure = measure("bitRate"),
     .unit = "bit/s",
     .hold = Hold::kWithoutSignal,
     .what = "bit rate"},
    {.name = "packets_lost",
     .meaning = "Many transport packets are missing, or a few again and again.",
     .kind = kCounter,
     .defaults = counter(kMajor, 100, 5, 10s),
     .measure = measure("packetsLost"),
     .unit = "packet",
     .what = "packet lost",
     .many = "packets lost"},
    {.name = "continuity",
     .meaning = "A continuity counter has an unexpected value: packets were lost, repeated or reordered.",
     .kind = kCounter,
     .defaults = counter(kWarning, 1, 0, 10s),
     .measure = measure("Continuity_count_error"),
     .unit = "error",
     .what = "continuity error",
     .many = "continuity errors"},
    {.name = "sync_loss",
     .meaning = "Transport packets do not follow one another every 188 bytes.",
     .kind = kCounter,
     .defaults = counter(kMajor, 1, 0, 10s),
     .measure = measure("TS_sync_loss"),
     .unit = "error",
     .what = "loss of synchronisation",
     .many = "losses of synchronisation"},
    {.name = "sync_byte",
     .meaning = "A transport packet does not begin with 0x47.",
     .kind = kCounter,
     .defaults = counter(kMinor, 1, 0, 10s),
     .measure = measure("Sync_byte_error"),
     .unit = "error",
     .what = "wrong sync byte",
     .many = "wrong sync bytes"},
    {.name = "pat",
     .meaning = "The program association table is missing, late or cannot be decoded.",
     .kind = kCounter,
     .defaults = counter(kMajor, 0, 2, 10s),
     .measure = measure("PAT_error"),
     .unit = "error",
     .hold = Hold::kGap,
     .what = "PAT error",
     .many = "PAT errors"},
    {.name = "pmt",
     .meaning = "A program map table is missing, late or scrambled.",
     .kind = kCounter,
     .defaults = counter(kMajor, 0, 3, 10s),
     .measure = measure("PMT_error"),
     .unit = "error",
     .hold = Hold::kGap,
     .what = "PMT error",
     .many = "PMT errors"},
    {.name = "transport",
     .meaning = "Equipment upstream of the probe marked packets as damaged (transport_error_indicator).",
     .kind = kCounter,
     .defaults = counter(kMinor, 1, 0, 10s),
     .measure = measure("Transport_error"),
     .unit = "error",
     .what = "damaged packet",
     .many = "damaged packets"},
    {.name = "crc",
     .meaning = "Tables are damaged or incomplete.",
     .kind = kCounter,
     .defaults = counter(kMinor, 1, 0, 10s),
     .measure = measure("CRC_error"),
     .unit = "error",
     .hold = Hold::kGap,
     .what = "table error",
     .many = "table errors"},
    {.name = "pcr_repetition",
     .meaning = "Program clock references arrive more than 40 ms apart.",
     .kind = kCounter,
     .defaults = off(counter(kWarning, 100, 0, 10s)),
     .measure = measure("PCR_repetition_error"),
     .unit = "error",
     .hold = Hold::kGap,
     .what = "late PCR",
     .many = "late PCRs"},
    {.name = "pcr_discontinuity",
     .meaning = "The program clock jumps without announcement.",
     .kind = kCounter,
     .defaults = counter(kMinor, 1, 0, 10s),
     .measure = measure("PCR_discontinuity_indicator_error"),
     .unit = "error",
     .hold = Hold::kGap,
     .what = "PCR jump",
     .many = "PCR jumps"},
    {.name = "pcr_accuracy",
     .meaning = "Program clock references deviate from their place by more than 500 ns.",
     .kind = kCounter,
     .defaults = off(counter(kWarning, 250, 0, 10s)),
     .measure = measure("PCR_accuracy_error"),
     .unit = "error",
     .hold = Hold::kSettling,
     .what = "inaccurate PCR",
     .many = "inaccurate PCRs"},
    {.name = "pts",
     .meaning = "Presentation time stamps of video or audio are more than 700 ms apart.",
     .kind = kCounter,
     .defaults = counter(kWarning, 0, 2, 10s),
     .measure = measure("PTS_error"),
     .unit = "error",
     .hold = Hold::kGap,
     .what = "late time stamp",
     .many = "late time stamps"},
    {.name = "cat",
     .meaning = "Packets are scrambled and no valid conditional access table arrives.",
     .kind = kCounter,
     .defaults = counter(kMinor, 0, 3, 10s),
     .measure = measure("CAT_error"),
     .unit = "error",
     .what = "CAT error",
     .many = "CAT errors"},
    {.name = "scrambled",
     .meaning = "Packets are scrambled on a channel that is meant to be clear.",
     .kind = kCounter,
     .defaults = off(counter(kMajor, 1, 0, 10s)),
     .measure = measure("packetsScrambled"),
     .unit = "packet",
     .what = "scrambled packet",
     .many = "scrambled packets"},
    {.name = "delay_factor",
     .meaning = "Packets arrive in bursts: a receiver needs a larger buffer (RFC 4445).",
     .kind = kHigh,
     .defaults = level(kWarning, {1'500, 1'000}, {60s, 30s}),
     .measure = measure("mdiDelayFactor"),
     .unit = "ms",
     .hold = Hold::kSettling,
     .what = "delay factor"},
    {.name = "jitter",
     .meaning = "The times between datagrams vary a lot.",
     .kind = kHigh,
     .defaults = level(kWarning, {2'500, 2'000}, {0s, 10s}),
     .measure = measure("jitterVariance"),
     .unit = "ms^2",
     .hold = Hold::kSettling,
     .what = "inter-arrival variance"},
    {.name = "quality_index",
     .meaning = "The transport quality index is low: packets are lost.",
     .kind = kLow,
     .defaults = level(kMinor, {3.0, 3.5}, {3s, 10s}),
     .measure = measure("transportQualityIndex"),
     .hold = Hold::kWithoutSignal,
     .what = "transport quality index"},
    {.name = "mos",
     .meaning = "The mean opinion score of an elementary stream is low: packets of it are lost.",
     .kind = kLow,
     .defaults = level(kMinor, {3.0, 3.5}, {3s, 10s}),
     .measure = measure("mosScore"),
     .hold = Hold::kWithoutSignal,
     .what = "mean opinion score"},
    {.name = "wrong_source",
     .meaning = "Another source sends to the channel's group; its packets are not analysed.",
     .kind = kCondition,
     .defaults = condition(kMajor, {0s, 0s}),
     .measure = measure("wrongSource"),
     .raised = "another source sends to the group",
     .cleared = "no other source was seen since the counters were cleared"},
    {.name = "ttl_changed",
     .meaning = "The time to live of the datagrams changed: they take another route.",
     .kind = kEvent,
     .defaults = event(kWarning, 60s),
     .measure = measure("ttl"),
     .what = "time to live"},
    {.name = "dscp_changed",
     .meaning = "The differentiated services code point of the datagrams changed.",
     .kind = kEvent,
     .defaults = event(kWarning, 60s),
     .measure = measure("dscp"),
     .what = "code point"},
});

template <std::size_t Size>
std::optional<std::size_t> indexOf(const std::array<std::string_view, Size>& names, std::string_view name) {
    const auto found = std::ranges::find(names, name);
    return found == names.end() ? std::nullopt : std::optional<std::size_t>(found - names.begin());
}

}  // namespace

std::string_view severityName(Severity severity) {
    return kSeverityNames.at(static_cast<std::size_t>(severity));
}

std::optional<Severity> parseSeverity(std::string_view name) {
    const auto index = indexOf(kSeverityNames, name);
    return index ? std::optional(static_cast<Severity>(*index)) : std::nullopt;
}

std::string_view alarmKindName(AlarmKind kind) {
    return kKindNames.at(static_cast<std::size_t>(kind));
}

void Alarm::setText(std::string_view raise) {
    text = printable(toUtf8(raise), kTextBytes);
}

std::string_view channelStatusName(ChannelStatus status) {
    return kStatusNames.at(static_cast<std::size_t>(status));
}

std::span<const AlarmType> alarmTypes() {
    return kTypes;
}

std::optional<std::size_t> findAlarmType(std::string_view name) {
    const auto found = std::ranges::find(kTypes, name, &AlarmType::name);
    return found == kTypes.end() ? std::nullopt : std::optional<std::size_t>(found - kTypes.begin());
}

RuleSet defaultRules() {
    RuleSet rules;
    rules.reserve(kTypes.size());
    for (const AlarmType& type : kTypes) {
        rules.push_back(type.defaults);
    }
    return rules;
}

}  // namespace station
