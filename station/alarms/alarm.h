// One raised alarm.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "alarms/alarmType.h"
#include "alarms/subject.h"
#include "common/clock.h"

namespace station {

struct Acknowledgement {
    WallTime time;
    std::string by;      // who said it, or empty
    std::string remark;  // may be empty

    bool operator==(const Acknowledgement&) const = default;
};

// Until when nobody is told of an alarm.
struct Shelved {
    WallTime until;
    std::string by;      // who said it, or empty
    std::string remark;  // may be empty

    bool operator==(const Shelved&) const = default;
};

// One raised alarm.
struct Alarm {
    static constexpr std::size_t kTextBytes = 1000;  // of `text`; beyond, it is cut

    int64_t id = 0;  // of the event that raised it
    std::size_t type = 0;
    Subject about = Source::kProbe;
    Severity severity = Severity::kWarning;
    WallTime raised;
    double value = 0;  // the measure at the last look; count in the window for counters
    double peak = 0;   // the worst so far: highest, or lowest for kLow
    std::optional<Acknowledgement> acknowledged;
    Source source = Source::kProbe;  // whose figures judged it last
    // As it is shown; the engine knows nothing of the two.
    std::optional<Shelved> shelved{};
    int64_t incident = 0;  // Incident::id; 0: it is by itself
    std::string text{};    // sentences for an operator, of when it was raised: "12 packets lost within 10 s"

    // At most kTextBytes of it, without control characters.
    void setText(std::string_view raise);

    bool operator==(const Alarm&) const = default;
};

// What a channel is shown as. Waiting: nothing is known yet, since no packet of it came since it was told to
// the probe, and no alarm is raised either.
enum class ChannelStatus : uint8_t { kOk, kAlarm, kWaiting, kDisabled };
std::string_view channelStatusName(ChannelStatus status);  // "ok", "alarm", "waiting", "disabled"

}  // namespace station
