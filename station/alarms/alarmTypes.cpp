#include <algorithm>
#include <array>
#include <vector>

#include "alarms/alarm.h"

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
    {"probe_silent", "The probe delivers no results, so nothing is known about any channel.", kCondition, "",
     "", true, condition(kCritical, {2s, 0s})},
    {"probe_not_asking",
     "The probe delivers results, but does not ask what to watch: changes do not reach it.", kCondition, "",
     "", true, condition(kMajor, {3s, 0s})},
    {"second_asker", "Something else than the probe asks what to watch as well, and is told nothing.",
     kCondition, "", "", true, condition(kMajor, {2s, 0s})},
    {"probe_restarted", "The probe was started anew; its counters begin at zero.", kEvent, "", "", true,
     event(kMinor, 0s)},
    {"delivery_failing",
     "A webhook does not take what it is to be told, so whoever relies on it hears nothing.", kCondition, "",
     "", true, condition(kMajor, {60s, 0s})},
    {"no_signal", "No packets of the channel arrive.", kCondition, "", "packetsReceived", false,
     condition(kCritical, {1s, 2s})},
    {"bitrate_low", "The bit rate is lower than the channel's profile expects.", kLow, "bit/s", "bitRate",
     false, off(level(kMajor, {1'000'000, 1'200'000}, {5s, 10s}))},
    {"bitrate_high", "The bit rate is higher than the channel's profile expects.", kHigh, "bit/s", "bitRate",
     false, off(level(kMinor, {20'000'000, 18'000'000}, {5s, 10s}))},
    {"packets_lost", "Many transport packets are missing, or some in every second.", kCounter, "packet",
     "packetsLost", false, counter(kMajor, 100, 5, 10s)},
    {"continuity", "A continuity counter is not the expected one: packets were lost, repeated or reordered.",
     kCounter, "error", "Continuity_count_error", false, counter(kWarning, 1, 0, 10s)},
    {"sync_loss", "Transport packets do not follow one another every 188 bytes.", kCounter, "error",
     "TS_sync_loss", false, counter(kMajor, 1, 0, 10s)},
    {"sync_byte", "A transport packet does not begin with 0x47.", kCounter, "error", "Sync_byte_error", false,
     counter(kMinor, 1, 0, 10s)},
    {"pat", "The program association table is missing, late or cannot be decoded.", kCounter, "error",
     "PAT_error", false, counter(kMajor, 0, 2, 10s)},
    {"pmt", "A program map table is missing, late or scrambled.", kCounter, "error", "PMT_error", false,
     counter(kMajor, 0, 3, 10s)},
    {"transport", "Packets are marked as damaged (transport_error_indicator) by equipment before the probe.",
     kCounter, "error", "Transport_error", false, counter(kMinor, 1, 0, 10s)},
    {"crc", "Tables are damaged or incomplete.", kCounter, "error", "CRC_error", false,
     counter(kMinor, 1, 0, 10s)},
    {"pcr_repetition", "Program clock references arrive over 40 ms apart.", kCounter, "error",
     "PCR_repetition_error", false, off(counter(kWarning, 100, 0, 10s))},
    {"pcr_discontinuity", "The program clock jumps without being announced.", kCounter, "error",
     "PCR_discontinuity_indicator_error", false, counter(kMinor, 1, 0, 10s)},
    {"pcr_accuracy", "Program clock references arrive over 500 ns off their place.", kCounter, "error",
     "PCR_accuracy_error", false, off(counter(kWarning, 250, 0, 10s))},
    {"pts", "Presentation time stamps of video or audio are over 700 ms apart.", kCounter, "error",
     "PTS_error", false, counter(kWarning, 0, 2, 10s)},
    {"cat", "Packets are scrambled and no valid conditional access table comes.", kCounter, "error",
     "CAT_error", false, counter(kMinor, 0, 3, 10s)},
    {"scrambled", "Packets are scrambled on a channel that is meant to be clear.", kCounter, "packet",
     "packetsScrambled", false, off(counter(kMajor, 1, 0, 10s))},
    {"delay_factor", "Packets arrive in bursts: a receiver needs a larger buffer (RFC 4445).", kHigh, "ms",
     "mdiDelayFactor", false, level(kWarning, {1'500, 1'000}, {60s, 30s})},
    {"jitter", "The times between datagrams vary much.", kHigh, "ms^2", "jitterVariance", false,
     level(kWarning, {2'500, 2'000}, {0s, 10s})},
    {"quality_index", "The transport quality index is low: packets are lost.", kLow, "",
     "transportQualityIndex", false, level(kMinor, {3.0, 3.5}, {3s, 10s})},
    {"mos", "The mean opinion score of an elementary stream is low: packets of it are lost.", kLow, "",
     "mosScore", false, level(kMinor, {3.0, 3.5}, {3s, 10s})},
    {"wrong_source", "Another source sends to the channel's group; its packets are not analysed.", kCondition,
     "", "wrongSource", false, condition(kMajor, {0s, 0s})},
    {"ttl_changed", "The time to live of the datagrams changed: they come by another way.", kEvent, "", "ttl",
     false, event(kWarning, 60s)},
    {"dscp_changed", "The differentiated services code point of the datagrams changed.", kEvent, "", "dscp",
     false, event(kWarning, 60s)},
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
