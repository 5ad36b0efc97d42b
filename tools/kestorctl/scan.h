// The operator's view of a channel scan.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "controllerLink.h"

struct ScanOptions {
    std::vector<std::string> groups;  // each once
    std::optional<int> igmpLatencyMs;
    bool json = false;
    std::chrono::milliseconds timeout;  // how long the probe may stay away
    std::string m3u;  // file for the groups that carry traffic, as a playlist; empty for none
};

// Has the probe scan the groups and prints each result; returns the exit status: 0 when all groups were
// reported. Throws LinkError when the probe does not ask (any more) or does not scan.
int runScan(const ScanOptions& options);
