// What was lost of a channel in minutes that the history has.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "channels/channel.h"
#include "common/clock.h"
#include "store/spans.h"

namespace station {

// Transport packets, by whoever judged the channel then.
struct LossSum {
    uint64_t minutes = 0;  // that are known
    uint64_t lost = 0;
    uint64_t received = 0;
    double worstPercent = 0;  // of a minute
    WallTime worst{};         // its begin; the epoch where nothing was lost

    void add(WallTime minute, uint64_t lostThen, uint64_t receivedThen) {
        ++minutes;
        lost += lostThen;
        received += receivedThen;
        const auto percent = percentOf(lostThen, receivedThen);
        if (lostThen > 0 && percent && *percent > worstPercent) {
            worstPercent = *percent;
            worst = minute;
        }
    }
    // Of all; nothing where no packet was to come.
    std::optional<double> meanPercent() const {
        return percentOf(lost, received);
    }

  private:
    static std::optional<double> percentOf(uint64_t lost, uint64_t received) {
        constexpr double kPercent = 100;
        const double all = static_cast<double>(lost) + static_cast<double>(received);
        return all > 0 ? std::optional(kPercent * static_cast<double>(lost) / all) : std::nullopt;
    }
};

// What the history is asked: of each channel, minutes that lie whole in its times count.
struct LossQuestion {
    Span time;
    std::map<Group, Spans> counted;
};
using LossSums = std::map<Group, LossSum>;  // of channels with a minute that is known
// What there is, and an empty problem; or what went wrong.
using LossAnswer = std::function<void(LossSums&&, const std::string& problem)>;

}  // namespace station
