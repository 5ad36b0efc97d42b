// What a day, week or month was like: availability, outages, alarms.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

#include "stationClient.h"

struct ReportRequest {
    std::string period = "day";  // as parsePeriod() takes it; `since` goes before it
    std::string since;
    std::string until;
    std::string group;
    std::string label;  // NAME or NAME=VALUE
    bool csv = false;
    bool outages = false;  // the table of outages, as CSV
};

// Adds the options of `command`. Their mistakes are thrown as CLI::ParseError while the command line is
// parsed. `request` is to outlive `command`.
void declareReport(CLI::App& command, ReportRequest& request);

// Prints it and returns the exit status. Throws LinkError when the station does not answer or refuses.
int runReport(StationClient& station, const ReportRequest& request, bool json);
