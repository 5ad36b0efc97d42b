// Reports of one stream that came twice, at other times.
#pragma once

#include <nlohmann/json.hpp>

namespace test {

// What does not depend on when datagrams arrived.
inline nlohmann::json comparable(const nlohmann::json& report) {
    using nlohmann::json;
    json kept = {{"group", report.at("group")},
                 {"flow", report.at("flow")},
                 {"packets", report.at("packets")},
                 {"cues", report.at("cues")},
                 {"cueErrors", report.at("cueErrors")}};
    kept["transport"] = report.at("transport").at("transportStreamId");
    kept["packets"]["lost"].erase("longestMs");
    for (const json& check : report.at("checks"))
        kept["checks"].push_back(
            {check.at("id"), check.at("applicable"), check.at("count"), check.at("pids")});
    for (const json& clock : report.at("clocks"))
        kept["clocks"].push_back({clock.at("pid"), clock.at("accuracy"), clock.at("intervalHighestMs"),
                                  clock.at("signalled"), clock.at("unsignalled")});
    for (const json& pid : report.at("pids"))
        kept["pids"].push_back({pid.at("pid"), pid.at("kind"), pid.at("packets"), pid.at("continuityErrors"),
                                pid.at("lost"), pid.at("repeated"), pid.at("referenced")});
    for (const json& change : report.at("changes"))
        kept["changes"].push_back(change.at("text"));
    for (const json& service : report.at("services"))
        kept["services"].push_back(
            {service.at("program"), service.at("pmtPid"), service.at("streams").size()});
    return kept;
}

}  // namespace test
