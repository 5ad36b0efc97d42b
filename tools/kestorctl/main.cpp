// kestorctl: tells the probe what to monitor and shows what it finds.
#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <set>

#include "controllerLink.h"
#include "scan.h"
#include "watch.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kLongestLatencyMs = 60'000;

using configuration::ConfigurationMessage;

std::string checkGroup(const std::string& text) {
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) == 1 && IN_MULTICAST(ntohl(address.s_addr))) {
        return {};
    }
    return text + " is not an IPv4 multicast address";
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
int tell(const ConfigurationMessage& message, const std::string& said, std::chrono::milliseconds timeout) {
    ControllerLink link;
    if (!link.waitForRequest(timeout)) {
        throw LinkError("no request from a probe within " + std::to_string(timeout.count() / 1000) +
                        " s; is kestor running?");
    }
    link.answer(message);
    printf("sent: %s\n", said.c_str());
    return 0;
}

struct Arguments {
    double timeoutS = 10;
    std::vector<std::string> groups;
    std::string onOff;
    int igmpLatencyMs = 0;
    bool once = false;
    bool json = false;

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

int run(const CLI::App& app, const Arguments& arguments) {
    const std::string command = app.get_subcommands().front()->get_name();
    const std::vector<std::string> groups = unique(arguments.groups);
    ConfigurationMessage message;
    std::string said = command;
    if (command == "watch") {
        return runWatch({arguments.once, arguments.json, arguments.timeout()});
    }
    if (command == "scan") {
        const auto latency =
            arguments.igmpLatencyMs > 0 ? std::optional(arguments.igmpLatencyMs) : std::nullopt;
        return runScan({groups, latency, arguments.json, arguments.timeout()});
    }
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
    return tell(message, said, arguments.timeout());
}

void declare(CLI::App& app, Arguments& arguments) {
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option("--timeout", arguments.timeoutS, "Seconds to wait for the probe")
        ->capture_default_str()
        ->check(CLI::Range(0.1, 86400.0));

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
    watch->add_flag("--json", arguments.json, "One JSON object a record");

    CLI::App* scan = app.add_subcommand("scan", "Find out which groups carry traffic (for kestor -c)");
    addGroups(*scan, arguments);
    addLatency(*scan, "--igmp-latency", arguments, false);
    scan->add_flag("--json", arguments.json, "One JSON object a result");
}

}  // namespace

int main(int argc, char* argv[]) {
    try {
        CLI::App app("Controls a kestor probe on this machine and shows its results", "kestorctl");
        Arguments arguments;
        declare(app, arguments);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? 0 : kExitUsage;
        }
        return run(app, arguments);
    } catch (const std::exception& error) {
        fprintf(stderr, "kestorctl: %s\n", error.what());
        return kExitFailed;
    }
}
