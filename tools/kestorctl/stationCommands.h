// What an operator asks of a station.
#pragma once

#include <string>
#include <vector>

#include "stationClient.h"

struct StationRequest {
    std::string command;  // "add", "remove", "clear", "passive", "igmp-latency", "status", "channels", ...
    std::vector<std::string> groups;
    bool on = false;
    int latencyMs = 0;
    std::string file;  // of import; "-" for standard input
    int limit = 100;
    bool follow = false;
    bool json = false;
};

// Does it, prints what came of it, and returns the exit status. Throws LinkError when the station refuses.
int runStationCommand(StationClient& station, const StationRequest& request);
