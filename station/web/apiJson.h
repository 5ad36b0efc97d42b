// The answers of the API as JSON; docs/api.yaml describes them.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "state/commands.h"
#include "state/state.h"
#include "web/server.h"

namespace station {

std::string statusJson(const StationState& state);
std::string channelsJson(const StationState& state);
std::string channelJson(const StationState& state, const ChannelState& channel);
// A report of the meter: the document that kestor-measure --json prints, and what it prints without.
std::string meterReportJson(const MeterReport& report);
std::string meterReportText(const MeterReport& report);
// Newest first; where none are kept those of the report, when they came being unknown.
std::string cuesJson(const std::vector<MeterCue>& cues, const std::optional<MeterReport>& report);
std::string alarmsJson(const StationState& state);
std::string incidentsJson(const StationState& state);
std::string passedJson(const StationState& state);
std::string shelvedJson(const StationState& state);
std::string handledJson(const Answer& answer);
std::string alarmJson(const StationState& state, const Alarm& alarm);
std::string alarmTypesJson();
std::string metaJson(const StationState& state);
std::string maintenanceJson(const Maintenance& window);
std::string maintenanceListJson(const StationState& state);

std::string eventsJson(std::span<const Event> events);
// A line an event under a line of names (RFC 4180). What a spreadsheet would take for a formula is quoted for
// it.
std::string eventsCsv(std::span<const Event> events);

std::string overviewJson(WallTime time, const QueryOverview& query, std::span<const OverviewRow> rows);
std::string importJson(const Answer& answer);
std::string useJson(const StationUse& use, const ProbeState& probe, const EventStore::Statistics& store,
                    const MinuteStore::Statistics& history,
                    std::span<const Delivery::ReceiverStatistics> delivery, const ServerStatistics& server);

// Data of the event stream's events.
std::string streamSnapshotJson(const StationState& state);
std::string streamAlarmJson(const StationState& state);
std::string streamChannelsJson(const StationState& state);

}  // namespace station
