// kestorctl, which speaks to the station at /tmp/station.sock (e2e/main.cpp).
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/process.h"

namespace test {

// kestor-station with this configuration, as /tmp/station.toml, and a state directory of its own.
std::vector<std::string> stationCommand(const std::string& configuration = "");

struct ToolResult {
    int status;  // -1000: it did not end
    std::string out;
    std::string err;
};
ToolResult kestorctl(std::vector<std::string> arguments, std::chrono::milliseconds patience = 40s);

// What kestorctl --json prints, a value a line.
std::vector<nlohmann::json> kestorctlObjects(std::vector<std::string> command);
// The first of them; empty where it is no object.
nlohmann::json kestorctlObject(std::vector<std::string> command);

}  // namespace test
