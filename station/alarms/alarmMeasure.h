// What each alarm type looks at in a sample, and how its changes are told.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "alarms/alarm.h"
#include "alarms/channelSample.h"

namespace station {

// When a measure says nothing about the channel.
enum class Hold : uint8_t {
    kNever,
    kWithoutSignal,  // nothing arrives that could be good or bad
    kGap,            // counts what the interruption itself does, which no_signal tells: held until it is over
    kSettling,       // a statistic of arrivals, which an interruption spoils until its blocks are renewed
};

struct AlarmMeasure {
    std::string_view type;
    Hold hold = Hold::kNever;
    // The one that the type's kind needs; null for conditions and for what is not of a channel.
    std::optional<double> (*level)(const ChannelSample&) = nullptr;  // nothing while it is not known
    uint64_t (*errors)(const ChannelSample&) = nullptr;              // kCounter: since the previous sample
    int (*property)(const ChannelSample&) = nullptr;                 // kEvent: happens when it changes
    std::string_view one{};   // kCounter: "packet lost"; else what is measured: "bit rate"
    std::string_view many{};  // kCounter: "packets lost"
};

// One a type, in the order of alarmTypes().
std::span<const AlarmMeasure> alarmMeasures();

// Sentences for operators.
std::string raisedText(std::size_t type, const AlarmRule& rule, double value, uint64_t errorSeconds);
std::string clearedText(std::size_t type, const AlarmRule& rule, const Alarm& alarm,
                        std::chrono::milliseconds duration);
std::string changedText(std::size_t type, int before, int after);

}  // namespace station
