#include "support/stationTool.h"

#include <fstream>
#include <sstream>

namespace test {

std::vector<std::string> stationCommand(const std::string& configuration) {
    std::ofstream("/tmp/station.toml", std::ios::trunc) << configuration;
    return {"kestor-station", "--config", "/tmp/station.toml", "--state",
            "/tmp/state",     "--socket", "/tmp/station.sock"};
}

ToolResult kestorctl(std::vector<std::string> arguments, std::chrono::milliseconds patience) {
    arguments.insert(arguments.begin(), "kestorctl");
    Process tool(arguments);
    const int status = tool.wait(patience).value_or(-1000);
    return {status, tool.out(), tool.err()};
}

std::vector<nlohmann::json> kestorctlObjects(std::vector<std::string> command) {
    command.insert(command.begin(), "--json");
    std::istringstream lines(kestorctl(std::move(command)).out);
    std::vector<nlohmann::json> all;
    for (std::string line; std::getline(lines, line);)
        all.push_back(nlohmann::json::parse(line, nullptr, false));
    return all;
}

nlohmann::json kestorctlObject(std::vector<std::string> command) {
    const std::vector<nlohmann::json> all = kestorctlObjects(std::move(command));
    return !all.empty() && all.front().is_object() ? all.front() : nlohmann::json::object();
}

}  // namespace test
