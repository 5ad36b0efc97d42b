// How alarms are told: sentences for operators.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "alarms/alarm.h"

namespace station {

std::string raisedText(std::size_t type, const AlarmRule& rule, double value, uint64_t errorSeconds);
std::string clearedText(std::size_t type, const AlarmRule& rule, const Alarm& alarm,
                        std::chrono::milliseconds duration);
// Of a property.
std::string changedText(std::size_t type, int before, int after);

}  // namespace station
