// kestorctl: tells the probe what to monitor and shows what it finds, through the station where one runs.
#include <CLI/CLI.hpp>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <set>

#include "alarms.h"
#include "arguments.h"
#include "completion.h"
#include "controllerLink.h"
#include "doctor/doctor.h"
#include "maintenance.h"
#include "report.h"
#include "scan.h"
#include "stationClient.h"
#include "stationCommands.h"
#include "usage.h"
#include "watch.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitUnknown = 3;  // of a monitoring plugin: it could not check
constexpr int kLongestLatencyMs = 60'000;
constexpr int kMostEvents = 1000;
constexpr double kShortestTimeoutS = 0.1;
constexpr double kLongestTimeoutS = 86'400;
// The heading in --help of the commands that only a station answers.
constexpr const char* kNeedsStation = "With a station";

using configuration::ConfigurationMessage;

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
    probelink::ControllerLink link;
    if (!link.waitForRequest(timeout)) {
        throw probelink::LinkError("no request from a probe within " +
                                   std::to_string(timeout.count() / 1000) + " s; is kestor running?");
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
    MaintenanceRequest maintenance;
    AlarmsRequest alarms;
    ReportRequest report;

    std::chrono::milliseconds timeout() const {
        return std::chrono::milliseconds(static_cast<int64_t>(timeoutS * 1000));
    }
};

void addGroups(CLI::App& command, Arguments& arguments) {
    command.add_option("GROUP", arguments.groups, "Multicast groups, such as 239.1.1.1.")
        ->type_name("GROUP")
        ->required()
        ->check(checkGroup);
}

void addLatency(CLI::App& command, const std::string& name, Arguments& arguments, bool required) {
    command
        .add_option(name, arguments.igmpLatencyMs,
                    "How long a scan waits for one frame, in milliseconds (1 to 60000). A group without "
                    "traffic takes up to ten times as many waits, and one more.")
        ->type_name("MS")
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
        throw probelink::LinkError(
            "a scan needs the controller port, which kestor-station holds: stop it (systemctl stop "
            "kestor-station), scan with kestor -c, and start it again");
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
    if (name == "doctor") {
        return doctor::run({arguments.station, arguments.timeout(), arguments.json});
    }
    auto station = StationClient::find(arguments.station, arguments.timeout());
    if (name == "scan") {
        return scan(groups, arguments, station.has_value());
    }
    if (station && name == "maintenance") {
        const auto actions = command.get_subcommands();
        return runMaintenance(*station, actions.empty() ? "list" : actions.front()->get_name(),
                              arguments.maintenance, arguments.json);
    }
    if (station && (name == "ack" || name == "unack" || name == "shelve" || name == "unshelve")) {
        return runAlarms(*station, name, arguments.alarms, arguments.json);
    }
    if (station && name == "shelved") {
        return showShelved(*station, arguments.json);
    }
    if (station && name == "report") {
        return runReport(*station, arguments.report, arguments.json);
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
        throw probelink::LinkError(arguments.station.empty()
                                       ? name + " needs a station; name its socket with --station"
                                       : "no station listens at " + arguments.station +
                                             "; is kestor-station running?");
    }
    return tellProbe(name, groups, arguments);
}

void declareStationCommands(CLI::App& app, Arguments& arguments) {
    StationRequest& request = arguments.request;
    const auto add = [&](const char* name, const char* description) {
        return app.add_subcommand(name, description)->group(kNeedsStation);
    };
    add("status", "Show the probe, the meter, channels and alarms in a few lines.");
    add("channels", "List all channels with their state.");
    addGroups(*add("meter", "Show what kestor-meter measures of channels."), arguments);
    add("alarms", "List the active alarms.");
    CLI::App* events = add("events", "Show past events, newest last.");
    events->add_flag("--follow", request.follow, "Keep printing events as they happen.");
    events->add_option("--limit", request.limit, "How many past events to show (1 to 1000).")
        ->type_name("N")
        ->capture_default_str()
        ->check(CLI::Range(1, kMostEvents));
    declareReport(*add("report", "Show availability, outages and alarms of a day, week or month."),
                  arguments.report);
    declareAlarms(*add("ack", "Acknowledge alarms."), arguments.alarms);
    declareAlarms(*add("unack", "Take the acknowledgement of alarms back."), arguments.alarms);
    declareAlarms(*add("shelve", "Tell nobody of alarms until a time."), arguments.alarms);
    declareAlarms(*add("unshelve", "Tell of alarms again."), arguments.alarms);
    add("shelved", "List what is shelved.");
    declareMaintenance(
        *add("maintenance", "List, set and end maintenance windows, in which nobody is told of alarms."),
        arguments.maintenance);
    add("reload", "Reload the configuration and the playlists.");
    add("import", "Add the channels of an M3U playlist.")
        ->add_option("PLAYLIST", request.file, "The M3U file, or - for standard input.")
        ->type_name("PLAYLIST")
        ->required();
    add("export", "Print the channels as an M3U playlist.");
}

void declare(CLI::App& app, Arguments& arguments) {
    shapeHelp(app);
    app.set_version_flag("--version", "kestorctl " KESTOR_VERSION, "Print the version and exit.");
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option(
           "--timeout", arguments.timeoutS,
           "How long to wait for the probe or the station, in seconds (0.1 to 86400). A change that was not "
           "answered in time may still happen.")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(CLI::Validator(checkTimeout, "0.1 to 86400"));

    app.add_option("--station", arguments.station, "The station's socket; \"\" to speak to the probe itself.")
        ->type_name("PATH")
        ->capture_default_str()
        ->envname("KESTOR_STATION");
    app.add_flag("--json", arguments.json, "Print JSON, one object per line.");
    // Commands take over the footer that stands when they are added.
    app.footer("--timeout, --station and --json may stand after the command as well.");

    addGroups(*app.add_subcommand("add", "Start monitoring groups."), arguments);
    addGroups(*app.add_subcommand("remove", "Stop monitoring groups."), arguments);
    app.add_subcommand("clear", "Reset all counters.");
    app.add_subcommand("passive", "Join groups without IGMP (on) or with it (off).")
        ->add_option("STATE", arguments.onOff, "on or off.")
        ->type_name("STATE")
        ->required()
        ->check(CLI::IsMember({"on", "off"}));
    addLatency(*app.add_subcommand("igmp-latency", "Set how long scans wait for a frame."), "MS", arguments,
               true);

    CLI::App* watch = app.add_subcommand("watch", "Show the live results as a table.");
    watch->add_flag("--once", arguments.once, "Show one snapshot and exit.");

    CLI::App* scan = app.add_subcommand("scan", "Find groups that carry traffic (needs kestor -c).");
    addGroups(*scan, arguments);
    addLatency(*scan, "--igmp-latency", arguments, false);
    scan->add_option("--m3u", arguments.m3u, "Write the groups that carry traffic to a playlist.")
        ->type_name("FILE");
    app.add_subcommand("doctor", "Check this machine for what keeps the probe from working.");
    declareStationCommands(app, arguments);
    for (CLI::App* command : app.get_subcommands({})) {
        if (command->get_group() != kNeedsStation) {
            command->group("Commands");
        }
    }
    addCompletion(app);
    app.footer(
        "Examples:\n"
        "  kestorctl add 239.1.1.1 239.1.1.2       monitor two groups\n"
        "  kestorctl watch                         show the live table\n"
        "  kestorctl doctor                        say what is wrong here, and what to do\n"
        "  kestorctl import channels.m3u           add a playlist's channels\n"
        "  kestorctl events --follow               print events as they happen\n"
        "  kestorctl ack 17 --remark 'on it'       acknowledge an alarm\n"
        "  kestorctl shelve --group 239.1.1.1 --alarm bitrate_low --until 06:00\n"
        "  kestorctl maintenance add --all --for 2h --remark 'new switch'\n"
        "  kestorctl report month --csv > month.csv\n"
        "  kestorctl --json channels               list channels as JSON\n"
        "\n"
        "Exit status: 0 on success, 1 when nothing answered in time or the request was\n"
        "refused, 2 for a wrong command line; status: 3 while no results come from the\n"
        "probe; doctor: 1 for warnings, 2 for failures, 3 for a wrong command line. See\n"
        "kestorctl(1).");
}

}  // namespace

int main(int argc, char* argv[]) {
    bool checks = false;  // whoever runs doctor takes 1 and 2 for what it found
    try {
        CLI::App app("Controls the kestor probe on this machine and shows its results.", "kestorctl");
        Arguments arguments;
        declare(app, arguments);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            checks = app.got_subcommand("doctor");
            return reportUsage(app, error, checks ? kExitUnknown : kExitUsage);
        }
        checks = app.got_subcommand("doctor");
        return run(app, arguments);
    } catch (const std::exception& error) {
        fprintf(stderr, "kestorctl: %s\n", error.what());
        return checks ? kExitUnknown : kExitFailed;
    }
}
