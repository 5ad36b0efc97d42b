// What a time was like, for those who were promised a service: availability, outages, alarms.
//
// A channel's time is split in five, which add up to the report's:
//   not watched  it was no channel of the station, or disabled
//   maintenance  a window of it, or of all channels, held; nothing that happens there counts
//   unknown      no snapshot came, or the interface had no link, or what was kept of the time is gone
//   outage       no_signal was raised
//   available    the rest
// Availability is available time by available time and outage together.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "alarms/alarm.h"
#include "store/event.h"
#include "store/lossSum.h"
#include "store/spans.h"

namespace station {

// What events.db is asked.
struct ReportQuestion {
    Span time;
    std::optional<Group> group{};  // nothing: all channels
};

// An alarm that was raised for some time, or happened.
struct AlarmTime {
    std::size_t type = 0;
    std::optional<Group> group{};  // nothing: of the probe or this machine
    WallTime raised{};
    std::optional<WallTime> cleared{};       // nothing: it is raised still
    std::optional<double> peak{};            // the worst measure
    bool momentary = false;                  // of kind kEvent
    Severity severity = Severity::kWarning;  // when it was raised
};

// What events.db has of a time, in any order.
struct ReportRows {
    WallTime knownSince{};         // events or windows from before were deleted
    WallTime watchedKnownSince{};  // who was watched before was deleted of some channels
    std::vector<Span> observed{};
    std::map<Group, std::vector<Span>> watched{};
    std::vector<Maintenance> maintenance{};
    std::vector<AlarmTime> alarms{};
    std::map<Group, std::string> names{};  // of channels with alarms, as they were called last
};

// A channel that there is.
struct ReportedChannel {
    Group group;
    std::string name{};
    Labels labels{};
};

struct ReportTimes {
    std::chrono::milliseconds available{0};
    std::chrono::milliseconds outage{0};
    std::chrono::milliseconds unknown{0};
    std::chrono::milliseconds maintenance{0};
    std::chrono::milliseconds notWatched{0};
    std::chrono::milliseconds withErrors{0};  // of `available`: another alarm of the channel was raised

    // 0 to 100; nothing where nothing was observed.
    std::optional<double> percent() const;
    ReportTimes& operator+=(const ReportTimes& other);
    bool operator==(const ReportTimes&) const = default;
};

// Alarms of a type, as far as they lie in observed time outside of maintenance.
struct AlarmSum {
    std::size_t type = 0;
    uint64_t count = 0;
    std::chrono::milliseconds total{0};
    std::chrono::milliseconds longest{0};
    std::optional<double> worst{};  // measure: highest, or lowest for kLow
};

struct Outage {
    WallTime from;                      // when no_signal was raised, also before the report's time
    std::optional<WallTime> until;      // nothing: it is raised still
    std::chrono::milliseconds counted;  // of the report's time, what was observed, outside of maintenance
};

struct ChannelReport {
    ReportedChannel channel;
    bool present = true;  // it is a channel of the station still
    ReportTimes times{};
    uint64_t outages = 0;
    std::chrono::milliseconds longestOutage{0};
    std::vector<Outage> listed{};  // oldest first
    std::vector<AlarmSum> alarms{};
    Spans counted{};                // observed, outside of maintenance
    std::optional<LossSum> loss{};  // nothing where the history has no minute of that
};

struct LabelTotal {
    std::string value;  // empty: channels without the label
    uint64_t channels = 0;
    uint64_t outages = 0;
    ReportTimes times{};
};

struct Report {
    static constexpr std::size_t kOutages = 20'000;  // listed in all; beyond, the latest are counted alone

    Span time;
    std::vector<ChannelReport> channels{};  // in the order of groups
    LabelTotal total{};
    std::vector<LabelTotal> byLabel{};  // in the order of values
    std::vector<AlarmSum> alarms{};     // of the probe and this machine
    uint64_t outagesLeftOut = 0;
    std::string lossProblem{};  // why no loss is known; empty where what is known is there
};

// What is asked besides the rows.
struct ReportScope {
    Span time;
    std::string label{};       // totals by its values; empty: none
    bool channelsGone = true;  // with those that are no channels any more
};

// Reads no clock. `channels` are those that are to be in it, in any order.
Report makeReport(const ReportRows& rows, std::vector<ReportedChannel> channels, const ReportScope& scope);

}  // namespace station
