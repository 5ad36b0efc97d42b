// One raised alarm.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "alarms/alarmType.h"
#include "channels/channel.h"
#include "common/clock.h"

namespace station {

struct Acknowledgement {
    WallTime time;
    std::string by;      // who said it, or empty
    std::string remark;  // may be empty

    bool operator==(const Acknowledgement&) const = default;
};

// One raised alarm.
struct Alarm {
    static constexpr std::size_t kTextBytes = 1000;  // of `text`; beyond, it is cut

    int64_t id = 0;  // of the event that raised it
    std::size_t type = 0;
    std::optional<Group> group;  // nothing for an alarm of the probe
    Severity severity = Severity::kWarning;
    WallTime raised;
    double value = 0;  // the measure at the last look; count in the window for counters
    double peak = 0;   // the worst so far: highest, or lowest for kLow
    std::optional<Acknowledgement> acknowledged;
    std::string text{};  // sentences for an operator, of when it was raised: "12 packets lost within 10 s"

    // At most kTextBytes of it, without control characters.
    void setText(std::string_view raise);

    bool operator==(const Alarm&) const = default;
};

// What a channel is shown as. Waiting: nothing is known yet, since no packet of it came since it was told to
// the probe, and no alarm is raised either.
enum class ChannelStatus : uint8_t { kOk, kAlarm, kWaiting, kDisabled };
std::string_view channelStatusName(ChannelStatus status);  // "ok", "alarm", "waiting", "disabled"

}  // namespace station
