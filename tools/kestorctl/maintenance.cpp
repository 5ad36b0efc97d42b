#include "maintenance.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <map>
#include <optional>

#include "arguments.h"
#include "groupText.h"
#include "listing.h"
#include "output.h"
#include "times.h"

namespace {

using std::chrono::sys_seconds;

constexpr const char* kPath = "/api/v1/maintenance";
constexpr std::chrono::minutes kThisMinute{1};  // "22:00", typed at 22:00:30, is not tomorrow's

struct Window {
    std::optional<sys_seconds> from;  // at once where it is not given
    sys_seconds until;
};

// Throws CLI::ValidationError for times that make no window.
Window windowOf(const MaintenanceRequest& request) {
    Window window;
    const auto readTime = [](const char* option, const std::string& text, sys_seconds after) {
        const auto time = parseTime(text, after);
        if (!time) {
            throw CLI::ValidationError(option,
                                       "\"" + text +
                                           "\" is no time; one is 22:00, \"2026-11-22 22:00\" (of this "
                                           "machine's time zone) or 2026-11-22T22:00:00Z");
        }
        return *time;
    };
    if (!request.from.empty()) {
        window.from = readTime("--from", request.from, currentTime() - kThisMinute);
    }
    const sys_seconds begin = window.from.value_or(currentTime());
    if (request.duration.empty() == request.until.empty()) {
        throw CLI::ValidationError("say when it ends, by either --for DURATION or --until TIME");
    }
    if (request.until.empty()) {
        const auto duration = parseDuration(request.duration);
        if (!duration) {
            throw CLI::ValidationError(
                "--for", "\"" + request.duration + "\" is no duration; one is 90m, 2h, 1h30m or 1d");
        }
        window.until = begin + *duration;
    } else {
        window.until = readTime("--until", request.until, begin);
    }
    if (window.until <= begin || window.until <= currentTime()) {
        throw CLI::ValidationError(
            "it would end at " + rfc3339(window.until) +
            (window.until <= begin && window.from ? ", before it begins" : ", which is over"));
    }
    return window;
}

void checkOneChoice(bool some, bool labels, bool all, const char* choices) {
    if (static_cast<int>(some) + static_cast<int>(labels) + static_cast<int>(all) != 1) {
        throw CLI::ValidationError(std::string("say which ones, by one of ") + choices);
    }
}

std::string checkWindow(const std::string& text) {
    int64_t id = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
    const bool isId = error == std::errc() && end == text.data() + text.size() && id > 0;
    return isId || probelink::isGroup(text)
               ? ""
               : text +
                     " is neither the ID of a window, which \"kestorctl maintenance list\" shows, "
                     "nor a multicast group";
}

bool hasLabels(const Json& channel, const std::vector<std::string>& labels) {
    const Json own = channel.value("labels", Json::object());
    return std::ranges::all_of(labels, [&](const std::string& label) {
        const std::size_t equals = label.find('=');
        const auto found = own.find(label.substr(0, equals));
        return found != own.end() && found->is_string() &&
               found->get<std::string>() == label.substr(equals + 1);
    });
}

std::string joined(const std::vector<std::string>& words, const char* between) {
    std::string result;
    for (const std::string& word : words) {
        result += (result.empty() ? "" : between) + word;
    }
    return result;
}

// The groups of all channels with these labels. Throws LinkError when there is none.
std::vector<std::string> groupsWith(StationClient& station, const std::vector<std::string>& labels) {
    std::vector<std::string> groups;
    for (const Json& channel : station.getJson("/api/v1/channels")) {
        if (hasLabels(channel, labels)) {
            groups.push_back(text(channel, "group"));
        }
    }
    if (groups.empty()) {
        throw probelink::LinkError("no channel has the label " + joined(labels, " and "));
    }
    return groups;
}

std::vector<std::string> groupsOf(const Json& window) {
    return window.value("groups", std::vector<std::string>());
}

// "239.1.1.1", "site=north (12 channels)" or "all channels".
std::string whatOf(const Json& window) {
    const std::string group = text(window, "group");
    const std::size_t several = groupsOf(window).size();
    return group != "-"  ? group
           : several > 0 ? text(window, "about") + " (" + std::to_string(several) + " channels)"
                         : "all channels";
}

int list(StationClient& station, bool json) {
    const Json windows = station.getJson(kPath);
    if (!json && windows.empty()) {
        puts("no maintenance window");
        return 0;
    }
    const std::string current = rfc3339(currentTime());
    Listing table({"ID", "CHANNELS", "FROM (UTC)", "UNTIL (UTC)", "STATE", "BY", "REMARK"});
    for (const Json& window : windows) {
        if (json) {
            print(window);
            continue;
        }
        const bool holds = window.value("from", std::string()) <= current;
        table.add({text(window, "id"), whatOf(window), timeText(window, "from"), timeText(window, "until"),
                   holds ? "active" : "planned", text(window, "by"), text(window, "remark")});
    }
    if (!json) {
        table.print();
    }
    return 0;
}

int add(StationClient& station, const MaintenanceRequest& request, bool json) {
    const Window window = windowOf(request);
    Json body = {{"until", rfc3339(window.until)}, {"by", request.by}, {"remark", request.remark}};
    if (window.from) {
        body["from"] = rfc3339(*window.from);
    }
    std::vector<Json> bodies;
    for (const std::string& group : request.groups) {
        bodies.push_back(body);
        bodies.back()["group"] = group;
    }
    if (!request.labels.empty()) {
        bodies.push_back(body);
        bodies.back()["label"] = labelsJson(request.labels);
    }
    if (request.incident != 0) {
        bodies.push_back(body);
        bodies.back()["incident"] = request.incident;
    }
    if (request.all) {
        bodies.push_back(body);
    }
    int status = 0;
    for (const Json& one : bodies) {
        try {
            const Json set = station.send("POST", kPath, one);
            if (json) {
                print(set);
            } else {
                printf("maintenance %s: %s, from %s to %s UTC\n", text(set, "id").c_str(),
                       whatOf(set).c_str(), timeText(set, "from").c_str(), timeText(set, "until").c_str());
            }
        } catch (const RefusedError& error) {
            const std::string what = request.incident != 0    ? "incident " + std::to_string(request.incident)
                                     : request.labels.empty() ? whatOf(one)
                                                              : joined(request.labels, " and ");
            fprintf(stderr, "kestorctl: %s: %s\n", what.c_str(), error.what());
            status = 1;
        }
    }
    return status;
}

// Whether a window is among those that are to end.
bool isMeant(const Json& window, const MaintenanceRequest& request, const std::vector<std::string>& groups) {
    const auto named = [&](const std::vector<std::string>& list, const char* member) {
        return std::ranges::find(list, text(window, member)) != list.end();
    };
    const std::vector<std::string> own = groupsOf(window);
    return request.all || named(request.windows, "id") || named(request.windows, "group") ||
           named(groups, "group") || (!own.empty() && std::ranges::all_of(own, [&](const std::string& group) {
               return std::ranges::find(groups, group) != groups.end();
           }));
}

int end(StationClient& station, const MaintenanceRequest& request, bool json) {
    const Json windows = station.getJson(kPath);
    const auto groups =
        request.labels.empty() ? std::vector<std::string>() : groupsWith(station, request.labels);
    int status = 0;
    for (const std::string& wanted : request.windows) {
        const bool known = std::ranges::any_of(windows, [&](const Json& window) {
            return text(window, "id") == wanted || text(window, "group") == wanted;
        });
        if (!known) {
            fprintf(stderr, "kestorctl: there is no maintenance window %s%s\n",
                    probelink::isGroup(wanted) ? "of " : "", wanted.c_str());
            status = 1;
        }
    }
    std::size_t ended = 0;
    for (const Json& window : windows) {
        if (!isMeant(window, request, groups)) {
            continue;
        }
        ++ended;
        try {
            station.send("DELETE", kPath + ("/" + text(window, "id")));
        } catch (const RefusedError& error) {  // it ended meanwhile
            fprintf(stderr, "kestorctl: %s\n", error.what());
            status = 1;
            continue;
        }
        if (json) {
            print(window);
        } else {
            printf("ended: maintenance %s, %s\n", text(window, "id").c_str(), whatOf(window).c_str());
        }
    }
    if (ended == 0 && request.windows.empty()) {
        fputs("kestorctl: there is no such maintenance window\n", stderr);
        status = 1;
    }
    return status;
}

}  // namespace

std::chrono::sys_seconds endOf(const MaintenanceRequest& request) {
    return windowOf(request).until;
}

std::string checkLabel(const std::string& text) {
    const std::size_t equals = text.find('=');
    return equals != std::string::npos && equals > 0 ? "" : text + " is no label; one is site=north";
}

void checkLabels(const std::vector<std::string>& labels) {
    std::map<std::string, std::string> values;
    for (const std::string& label : labels) {
        const std::size_t equals = label.find('=');
        const auto [own, isNew] = values.emplace(label.substr(0, equals), label.substr(equals + 1));
        if (!isNew && own->second != label.substr(equals + 1)) {
            throw CLI::ValidationError("--label", "no channel has both " + own->first + "=" + own->second +
                                                      " and " + label + "; give a command for each");
        }
    }
}

Json labelsJson(const std::vector<std::string>& labels) {
    Json object = Json::object();
    for (const std::string& label : labels) {
        const std::size_t equals = label.find('=');
        object[label.substr(0, equals)] = label.substr(equals + 1);
    }
    return object;
}

void declareMaintenance(CLI::App& command, MaintenanceRequest& request) {
    const auto addLabel = [&](CLI::App& to, const char* what) {
        to.add_option("--label", request.labels, what)
            ->type_name("NAME=VALUE")
            ->check(checkLabel)
            ->expected(1)
            ->take_all();
    };
    command.require_subcommand(0, 1);
    command.add_subcommand("list", "List the windows that have not ended (the default).");

    CLI::App& add = *command.add_subcommand("add", "Set a window for groups, a label or all channels.");
    add.add_option("GROUP", request.groups, "Multicast groups of channels, such as 239.1.1.1.")
        ->type_name("GROUP")
        ->check(checkGroup);
    addLabel(add,
             "One window for every channel that has this label now. Of several, a channel has to have all.");
    add.add_option("--incident", request.incident, "One window for the channels of an incident.")
        ->type_name("ID")
        ->check(CLI::PositiveNumber);
    add.add_flag("--all", request.all, "One window for all channels and for the probe's own alarms.");
    add.add_option("--for", request.duration, "How long the window lasts: 90m, 2h, 1h30m, 1d.")
        ->type_name("DURATION");
    add.add_option(
           "--from", request.from,
           "When it begins, at once without it: 22:00, \"2026-11-22 22:00\" (of this machine's time zone) or "
           "2026-11-22T22:00:00Z.")
        ->type_name("TIME");
    add.add_option("--until", request.until, "When it ends, instead of --for.")->type_name("TIME");
    add.add_option("--remark", request.remark, "What is done in it.")->type_name("TEXT");
    add.add_option("--by", request.by, "Who sets it.")->type_name("NAME")->envname("USER");
    add.callback([&request] {
        checkOneChoice(!request.groups.empty() || request.incident != 0, !request.labels.empty(), request.all,
                       "GROUP..., --label, --incident or --all");
        checkLabels(request.labels);
        windowOf(request);
    });

    CLI::App& end =
        *command.add_subcommand("end", "End windows, also those that have not begun.")->alias("remove");
    end.add_option("WINDOW", request.windows,
                   "IDs, as \"kestorctl maintenance list\" shows them, or groups, for all windows of theirs.")
        ->type_name("WINDOW")
        ->check(checkWindow);
    addLabel(end, "The windows of channels that all have this label. Of several, a channel has to have all.");
    end.add_flag("--all", request.all, "Every window there is.");
    end.callback([&request] {
        checkOneChoice(!request.windows.empty(), !request.labels.empty(), request.all,
                       "WINDOW..., --label or --all");
        checkLabels(request.labels);
    });
}

int runMaintenance(StationClient& station, const std::string& action, const MaintenanceRequest& request,
                   bool json) {
    return action == "add"   ? add(station, request, json)
           : action == "end" ? end(station, request, json)
                             : list(station, json);
}
