// kestorctl: tells the probe what to monitor and shows what it finds, through the station where one runs.
#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <set>

#include "completion.h"
#include "controllerLink.h"
#include "groupText.h"
#include "scan.h"
#include "stationClient.h"
#include "stationCommands.h"
#include "watch.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kLongestLatencyMs = 60'000;
constexpr int kMostEvents = 1000;
constexpr double kShortestTimeoutS = 0.1;
constexpr double kLongestTimeoutS = 86'400;
// The heading in --help of the commands that only a station answers.
constexpr const char* kNeedsStation = "With a station";

using configuration::ConfigurationMessage;

std::string checkGroup(const std::string& text) {
    return isGroup(text) ? "" : text + " " + groupProblem(text);
}

std::string checkAlarmId(const std::string& text) {
    int64_t id = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && id > 0 ? "" : text + " is no alarm's id: kestorctl alarms shows them";
}

// A range alone lets "nan" pass.
std::string checkTimeout(std::string& text) {
    const double seconds = strtod(text.c_str(), nullptr);
    return seconds >= kShortestTimeoutS && seconds <= kLongestTimeoutS
               ? ""
               : text + " is not within 0.1 to 86400 s";
}

// Every group once: a repeated one is fatal to a probe that scans.
std::vector<std::string> unique(const std::vector<std::string>& groups) {
    std::vector<std::string> result;
    std::set<std::string> seen;
    for (const std::string& group : groups) {
        if (seen.insert(group).second) {
            result.push_back(group);
        }
    }
    return result;
}

// Answers the probe's next request and says what it was told.
int tell(const ConfigurationMessage& message, const std::string& said, std::chrono::milliseconds timeout,
         bool json) {
    ControllerLink link;
    if (!link.waitForRequest(timeout)) {
        throw LinkError("no request from a probe within " + std::to_string(timeout.count() / 1000) +
                        " s; is kestor running?");
    }
    link.answer(message);
    if (json) {
        puts(nlohmann::ordered_json({{"sent", said}}).dump().c_str());
    } else {
        printf("sent: %s\n", said.c_str());
    }
    return 0;
}

struct Arguments {
    double timeoutS = 10;
    std::vector<std::string> groups;
    std::string onOff;
    int igmpLatencyMs = 0;
    bool once = false;
    bool json = false;
    std::string station = kStationSocket;
    std::string m3u;
    StationRequest request;

    std::chrono::milliseconds timeout() const {
        return std::chrono::milliseconds(static_cast<int64_t>(timeoutS * 1000));
    }
};

void addGroups(CLI::App& command, Arguments& arguments) {
    command.add_option("GROUP", arguments.groups, "Multicast groups as dotted quads")
        ->required()
        ->check(checkGroup);
}

void addLatency(CLI::App& command, const std::string& name, Arguments& arguments, bool required) {
    command
        .add_option(
            name, arguments.igmpLatencyMs,
            "Milliseconds that a channel scan waits for one frame; a group is given up after ten times "
            "as many waits and one more")
        ->required(required)
        ->check(CLI::Range(1, kLongestLatencyMs));
}

// What a probe is told directly.
int tellProbe(const std::string& command, const std::vector<std::string>& groups,
              const Arguments& arguments) {
    ConfigurationMessage message;
    std::string said = command;
    if (command == "clear") {
        message.mutable_clear()->set_clearall(true);
    } else if (command == "passive") {
        message.mutable_response()->set_passive_monitoring(arguments.onOff == "on");
        said += " " + arguments.onOff;
    } else if (command == "igmp-latency") {
        message.mutable_response()->set_igmp_latency(arguments.igmpLatencyMs);
        said += " " + std::to_string(arguments.igmpLatencyMs);
    } else {
        auto& response = *message.mutable_response();
        for (const std::string& group : groups) {
            (command == "add" ? response.add_append() : response.add_remove())->set_multicastgroup(group);
            said += " " + group;
        }
    }
    return tell(message, said, arguments.timeout(), arguments.json);
}

int scan(const std::vector<std::string>& groups, const Arguments& arguments, bool stationRuns) {
    if (stationRuns) {
        throw LinkError(
            "kestor-station holds the probe's controller port; stop it (systemctl stop kestor-station), "
            "scan with kestor -c, and start it again");
    }
    const auto latency = arguments.igmpLatencyMs > 0 ? std::optional(arguments.igmpLatencyMs) : std::nullopt;
    return runScan({groups, latency, arguments.json, arguments.timeout(), arguments.m3u});
}

int run(const CLI::App& app, Arguments arguments) {
    const CLI::App& command = *app.get_subcommands().front();
    const std::string name = command.get_name();
    const std::vector<std::string> groups = unique(arguments.groups);
    if (name == "watch") {
        return runWatch({arguments.once, arguments.json, arguments.timeout(), arguments.station});
    }
    auto station = StationClient::find(arguments.station, arguments.timeout());
    if (name == "scan") {
        return scan(groups, arguments, station.has_value());
    }
    if (station) {
        StationRequest& request = arguments.request;
        request.command = name;
        request.groups = groups;
        request.on = arguments.onOff == "on";
        request.latencyMs = arguments.igmpLatencyMs;
        request.json = arguments.json;
        return runStationCommand(*station, request);
    }
    if (command.get_group() == kNeedsStation) {
        throw LinkError(arguments.station.empty()
                            ? name + " is answered by a station alone; --station names its socket"
                            : "no station listens at " + arguments.station + "; is kestor-station running?");
    }
    return tellProbe(name, groups, arguments);
}

void declareStationCommands(CLI::App& app, StationRequest& request) {
    const auto add = [&](const char* name, const char* description) {
        return app.add_subcommand(name, description)->group(kNeedsStation);
    };
    add("status", "Probe, channels and alarms in four lines");
    add("channels", "All channels with their state");
    add("alarms", "The alarms that are raised");
    CLI::App* events = add("events", "What happened, newest last");
    events->add_flag("--follow", request.follow, "And go on as it happens");
    events->add_option("--limit", request.limit, "How many of the past")
        ->capture_default_str()
        ->check(CLI::Range(1, kMostEvents));
    CLI::App* acknowledge = add("ack", "Acknowledge an alarm");
    acknowledge->add_option("ID", request.id, "As kestorctl alarms shows it")
        ->required()
        ->check(checkAlarmId);
    acknowledge->add_option("--remark", request.remark, "What is known or done about it");
    acknowledge->add_option("--by", request.by, "Who says it")->envname("USER");
    add("reload", "Read the configuration and the playlists again");
    add("import", "Watch what a playlist names")
        ->add_option("PLAYLIST", request.file, "M3U file; - for standard input")
        ->required();
    add("export", "The channels as a playlist");
}

void declare(CLI::App& app, Arguments& arguments) {
    app.set_version_flag("--version", "kestorctl " KESTOR_VERSION);
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option("--timeout", arguments.timeoutS, "Seconds to wait for the probe")
        ->capture_default_str()
        ->check(CLI::Validator(checkTimeout, "0.1 to 86400"));

    app.add_option("--station", arguments.station, "The station's socket; \"\" for the probe itself")
        ->capture_default_str()
        ->envname("KESTOR_STATION");
    app.add_flag("--json", arguments.json, "JSON, an object a line");

    addGroups(*app.add_subcommand("add", "Monitor groups"), arguments);
    addGroups(*app.add_subcommand("remove", "Stop monitoring groups"), arguments);
    app.add_subcommand("clear", "Start all counters afresh");
    app.add_subcommand("passive", "Join groups without IGMP membership")
        ->add_option("STATE", arguments.onOff, "on or off")
        ->required()
        ->check(CLI::IsMember({"on", "off"}));
    addLatency(*app.add_subcommand("igmp-latency", "Set the wait of channel scans"), "MS", arguments, true);

    CLI::App* watch = app.add_subcommand("watch", "Show the live results");
    watch->add_flag("--once", arguments.once, "One snapshot, then end");

    CLI::App* scan = app.add_subcommand("scan", "Find out which groups carry traffic (for kestor -c)");
    addGroups(*scan, arguments);
    addLatency(*scan, "--igmp-latency", arguments, false);
    scan->add_option("--m3u", arguments.m3u, "Write the groups that carry traffic as a playlist");
    declareStationCommands(app, arguments.request);
    addCompletion(app);
    app.footer(
        "Examples:\n"
        "  kestorctl add 239.1.1.1 239.1.1.2       watch two groups\n"
        "  kestorctl watch                         the live table\n"
        "  kestorctl import channels.m3u           watch what a playlist names\n"
        "  kestorctl events --follow               what happens, as it happens\n"
        "  kestorctl ack 17 --remark 'on it'       acknowledge an alarm\n"
        "  kestorctl --json channels               for programs");
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        CLI::App app("Controls a kestor probe on this machine and shows its results", "kestorctl");
        Arguments arguments;
        declare(app, arguments);
        try {
            app.parse(argc, argv);
        } catch (const CLI::RequiredError& error) {
            // What is no command is told by its name, not by a command that is missing.
            const auto unknown = app.get_subcommands().empty() ? app.remaining() : std::vector<std::string>();
            if (unknown.empty()) {
                return app.exit(error) == 0 ? 0 : kExitUsage;
            }
            const std::string& first = unknown.front();
            fprintf(stderr, "%s is no %s of kestorctl\nRun with --help for more information.\n",
                    first.c_str(), first.starts_with('-') ? "option" : "command");
            return kExitUsage;
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? 0 : kExitUsage;
        }
        return run(app, arguments);
    } catch (const std::exception& error) {
        fprintf(stderr, "kestorctl: %s\n", error.what());
        return kExitFailed;
    }
}
