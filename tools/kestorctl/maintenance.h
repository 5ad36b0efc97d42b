// Maintenance windows: times in which the station records alarms and tells nobody.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <string>
#include <vector>

#include "stationClient.h"

struct MaintenanceRequest {
    std::vector<std::string> groups;   // add
    std::vector<std::string> windows;  // end: IDs and groups
    std::vector<std::string> labels;   // "NAME=VALUE", all of which a channel has to have
    bool all = false;
    int64_t incident = 0;  // add: the channels of its alarms; 0: none
    std::string from;
    std::string until;
    std::string duration;
    std::string remark;
    std::string by;
};

// When it ends that `request` describes, by --for or --until: of a window, or of what is shelved. Throws
// CLI::ValidationError for what makes no time ahead.
std::chrono::sys_seconds endOf(const MaintenanceRequest& request);
// "site=north" as an option's text: what is wrong, or nothing.
std::string checkLabel(const std::string& text);
// Throws CLI::ValidationError where they ask for two values of one label, which no channel has.
void checkLabels(const std::vector<std::string>& labels);
// {"site": "north"}.
nlohmann::ordered_json labelsJson(const std::vector<std::string>& labels);

// Adds the subcommands of `command` and their options. Their mistakes, in what belongs together as well, are
// thrown as CLI::ParseError while the command line is parsed. `request` is to outlive `command`.
void declareMaintenance(CLI::App& command, MaintenanceRequest& request);

// Does what `action` ("list", "add", "end") asks for, prints it and returns the exit status: 1 when some of
// it was refused, which is said on standard error. Throws LinkError when the station does not answer or there
// is nothing to do it to.
int runMaintenance(StationClient& station, const std::string& action, const MaintenanceRequest& request,
                   bool json);
