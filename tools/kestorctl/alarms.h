// What is said about alarms: that somebody knows, or that nobody is to be told for a while.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <string>
#include <vector>

#include "maintenance.h"
#include "stationClient.h"

struct AlarmsRequest {
    std::vector<int64_t> ids;
    std::vector<std::string> groups;
    int64_t incident = 0;     // 0: none
    std::string alarm;        // of those, only this type
    MaintenanceRequest said;  // its labels, duration, until, by and remark
};

// Adds the options of "ack", "unack", "shelve" or "unshelve". Mistakes, in what belongs together as well, are
// thrown as CLI::ParseError while the command line is parsed. `request` is to outlive `command`.
void declareAlarms(CLI::App& command, AlarmsRequest& request);

// Does what the command of that name asks for, in one call, prints what came of it and returns the exit
// status. Throws LinkError when the station refuses.
int runAlarms(StationClient& station, const std::string& command, const AlarmsRequest& request, bool json);
// Lists what is shelved.
int showShelved(StationClient& station, bool json);
