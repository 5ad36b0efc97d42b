#include "alarms/alarmMeasure.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <vector>

namespace station {

namespace {

// The rate is 0 where packets came and their span was too short to tell it; the index is 1 then.
bool rateKnown(const ChannelSample& sample) {
    return sample.bitRate > 0;
}

std::optional<double> bitRate(const ChannelSample& sample) {
    return rateKnown(sample) ? std::optional(sample.bitRate) : std::nullopt;
}

std::optional<double> qualityIndex(const ChannelSample& sample) {
    return rateKnown(sample) ? std::optional(sample.qualityIndex) : std::nullopt;
}

std::optional<double> mos(const ChannelSample& sample) {
    return rateKnown(sample) ? sample.mos : std::nullopt;
}

std::optional<double> delayFactor(const ChannelSample& sample) {
    return sample.delayFactor;
}

std::optional<double> jitterVariance(const ChannelSample& sample) {
    return sample.jitterVariance;
}

template <std::size_t Counter>
uint64_t counter(const ChannelSample& sample) {
    return sample.increments[Counter];
}

constexpr AlarmMeasure level(std::string_view type, Hold hold,
                             std::optional<double> (*level)(const ChannelSample&), std::string_view what) {
    return {.type = type, .hold = hold, .level = level, .one = what};
}

constexpr AlarmMeasure errors(std::string_view type, Hold hold, uint64_t (*errors)(const ChannelSample&),
                              std::string_view one, std::string_view many) {
    return {.type = type, .hold = hold, .errors = errors, .one = one, .many = many};
}

constexpr std::array kMeasures = std::to_array<AlarmMeasure>({
    {.type = "probe_silent"},
    {.type = "probe_not_asking"},
    {.type = "second_asker"},
    {.type = "probe_restarted"},
    {.type = "delivery_failing"},
    {.type = "no_signal"},
    level("bitrate_low", Hold::kWithoutSignal, bitRate, "bit rate"),
    level("bitrate_high", Hold::kWithoutSignal, bitRate, "bit rate"),
    errors("packets_lost", Hold::kNever, counter<sampleCounter("packetsLost")>, "packet lost",
           "packets lost"),
    errors("continuity", Hold::kNever, counter<sampleCounter("Continuity_count_error")>, "continuity error",
           "continuity errors"),
    errors("sync_loss", Hold::kNever, counter<sampleCounter("TS_sync_loss")>, "loss of synchronisation",
           "losses of synchronisation"),
    errors("sync_byte", Hold::kNever, counter<sampleCounter("Sync_byte_error")>, "wrong sync byte",
           "wrong sync bytes"),
    errors("pat", Hold::kGap, counter<sampleCounter("PAT_error")>, "PAT error", "PAT errors"),
    errors(
        "pmt", Hold::kGap, [](const ChannelSample& sample) { return sample.pmtErrors; }, "PMT error",
        "PMT errors"),
    errors("transport", Hold::kNever, counter<sampleCounter("Transport_error")>, "damaged packet",
           "damaged packets"),
    errors("crc", Hold::kGap, counter<sampleCounter("CRC_error")>, "table error", "table errors"),
    errors("pcr_repetition", Hold::kGap, counter<sampleCounter("PCR_repetition_error")>, "late PCR",
           "late PCRs"),
    errors("pcr_discontinuity", Hold::kGap, counter<sampleCounter("PCR_discontinuity_indicator_error")>,
           "PCR jump", "PCR jumps"),
    errors("pcr_accuracy", Hold::kSettling, counter<sampleCounter("PCR_accuracy_error")>, "inaccurate PCR",
           "inaccurate PCRs"),
    errors(
        "pts", Hold::kGap, [](const ChannelSample& sample) { return sample.ptsErrors; }, "late time stamp",
        "late time stamps"),
    errors("cat", Hold::kNever, counter<sampleCounter("CAT_error")>, "CAT error", "CAT errors"),
    errors("scrambled", Hold::kNever, counter<sampleCounter("packetsScrambled")>, "scrambled packet",
           "scrambled packets"),
    level("delay_factor", Hold::kSettling, delayFactor, "delay factor"),
    level("jitter", Hold::kSettling, jitterVariance, "inter-arrival variance"),
    level("quality_index", Hold::kWithoutSignal, qualityIndex, "transport quality index"),
    level("mos", Hold::kWithoutSignal, mos, "mean opinion score"),
    {.type = "wrong_source"},
    {.type = "ttl_changed",
     .property = [](const ChannelSample& sample) { return sample.ttl; },
     .one = "time to live"},
    {.type = "dscp_changed",
     .property = [](const ChannelSample& sample) { return sample.dscp; },
     .one = "code point"},
});

struct ConditionTexts {
    std::string_view type;
    std::string_view raised;
    std::string_view cleared;
};
constexpr std::array<ConditionTexts, 6> kConditions = {{
    {"probe_silent", "the probe delivers no results", "the probe delivers results again"},
    {"probe_not_asking", "the probe does not ask what to watch", "the probe asks again"},
    {"second_asker",
     "two ask at the controller's port, and the one that came first is told what to watch: stop the other "
     "(kestor -s -s, or a probe that was started by hand?)",
     "one alone asks at the controller's port"},
    {"delivery_failing", "a webhook cannot be told", "webhooks take notifications again"},
    {"no_signal", "no packets arrive", "packets arrive again"},
    {"wrong_source", "another source sends to the group",
     "no other source was seen since the counters were cleared"},
}};

std::string number(double value) {
    std::array<char, 48> text{};
    // Whole numbers as such; of the rest what an operator can use.
    const bool whole = value == std::floor(value) && std::abs(value) < 1e15;
    std::snprintf(text.data(), text.size(), whole ? "%.0f" : "%.4g", value);
    return text.data();
}

std::string seconds(std::chrono::milliseconds time) {
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "%.1f s", std::chrono::duration<double>(time).count());
    return text.data();
}

std::string withUnit(double value, std::string_view unit) {
    return unit.empty() ? number(value) : number(value) + " " + std::string(unit);
}

std::string counted(const AlarmMeasure& measure, double count) {
    return number(count) + " " + std::string(count == 1 ? measure.one : measure.many);
}

const ConditionTexts& conditionTexts(std::string_view type) {
    const auto* const found = std::ranges::find(kConditions, type, &ConditionTexts::type);
    return *found;
}

}  // namespace

std::span<const AlarmMeasure> alarmMeasures() {
    return kMeasures;
}

std::string raisedText(std::size_t type, const AlarmRule& rule, double value, uint64_t errorSeconds) {
    const AlarmType& alarmType = alarmTypes()[type];
    const AlarmMeasure& measure = kMeasures.at(type);
    switch (alarmType.kind) {
        case AlarmKind::kHigh:
        case AlarmKind::kLow:
            return std::string(measure.one) + " " + withUnit(value, alarmType.unit) +
                   (alarmType.kind == AlarmKind::kHigh ? " is above " : " is below ") +
                   withUnit(rule.raiseLevel, alarmType.unit);
        case AlarmKind::kCounter: {
            std::string text = counted(measure, value);
            if (errorSeconds > 1) {
                text += " in " + std::to_string(errorSeconds) + " seconds";
            }
            return text + " within " + std::to_string(rule.window.count()) + " s";
        }
        case AlarmKind::kCondition:
            return std::string(conditionTexts(alarmType.name).raised);
        case AlarmKind::kEvent:
            break;
    }
    return std::string(alarmType.meaning);
}

std::string clearedText(std::size_t type, const AlarmRule& rule, const Alarm& alarm,
                        std::chrono::milliseconds duration) {
    const AlarmType& alarmType = alarmTypes()[type];
    const AlarmMeasure& measure = kMeasures.at(type);
    const std::string after = " after " + seconds(duration);
    switch (alarmType.kind) {
        case AlarmKind::kHigh:
        case AlarmKind::kLow:
            return std::string(measure.one) + " is " + withUnit(alarm.value, alarmType.unit) + after +
                   ", was " + withUnit(alarm.peak, alarmType.unit) + " at worst";
        case AlarmKind::kCounter:
            return counted(measure, alarm.value) + " within " + std::to_string(rule.window.count()) + " s" +
                   after + ", " + number(alarm.peak) + " at worst";
        case AlarmKind::kCondition:
            return std::string(conditionTexts(alarmType.name).cleared) + after;
        case AlarmKind::kEvent:
            break;
    }
    return {};
}

std::string changedText(std::size_t type, int before, int after) {
    return std::string(kMeasures.at(type).one) + " changed from " + std::to_string(before) + " to " +
           std::to_string(after);
}

}  // namespace station
