#include "alarms.h"

#include <charconv>
#include <cstdio>

#include "arguments.h"
#include "listing.h"
#include "output.h"
#include "times.h"

namespace {

struct Words {
    const char* command;
    const char* path;
    const char* done;
};
constexpr Words kWords[] = {
    {"ack", "/api/v1/alarms/acknowledge", "acknowledged"},
    {"unack", "/api/v1/alarms/unacknowledge", "no longer acknowledged"},
    {"shelve", "/api/v1/alarms/shelve", "shelved"},
    {"unshelve", "/api/v1/alarms/unshelve", "taken off the shelf"},
};

std::string checkAlarmId(const std::string& text) {
    int64_t id = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && id > 0 ? "" : text + " is not the ID of an alarm; \"kestorctl alarms\" shows them";
}

void checkChoice(const AlarmsRequest& request) {
    const int choices = static_cast<int>(!request.ids.empty()) + static_cast<int>(!request.groups.empty()) +
                        static_cast<int>(!request.said.labels.empty()) +
                        static_cast<int>(request.incident != 0);
    if (choices != 1) {
        throw CLI::ValidationError("say which alarms, by one of ID..., --group, --label or --incident");
    }
}

Json bodyOf(const AlarmsRequest& request) {
    Json body = {{"by", request.said.by}, {"remark", request.said.remark}};
    if (!request.ids.empty()) {
        body["ids"] = request.ids;
    } else if (!request.groups.empty()) {
        body["groups"] = request.groups;
    } else if (!request.said.labels.empty()) {
        body["label"] = labelsJson(request.said.labels);
    } else {
        body["incident"] = request.incident;
    }
    if (!request.alarm.empty()) {
        body["alarm"] = request.alarm;
    }
    return body;
}

}  // namespace

void declareAlarms(CLI::App& command, AlarmsRequest& request) {
    const std::string name = command.get_name();
    command.add_option("ID", request.ids, "Numbers of alarms, as \"kestorctl alarms\" shows them.")
        ->type_name("ID")
        ->check(checkAlarmId);
    command.add_option("--group", request.groups, "The alarms of this channel.")
        ->type_name("GROUP")
        ->check(checkGroup)
        ->expected(1)
        ->take_all();
    command
        .add_option("--label", request.said.labels,
                    "The alarms of all channels with this label. Of several, a channel has to have all.")
        ->type_name("NAME=VALUE")
        ->check(checkLabel)
        ->expected(1)
        ->take_all();
    command
        .add_option("--incident", request.incident,
                    "The alarms of this incident, as \"kestorctl alarms\" shows it.")
        ->type_name("ID")
        ->check(CLI::PositiveNumber);
    command
        .add_option("--alarm", request.alarm,
                    name == "shelve" ? "Of these, this alarm alone: of channels also where it is not raised "
                                       "just now."
                                     : "Of these, this alarm alone.")
        ->type_name("ALARM");
    if (name == "shelve") {
        command.add_option("--for", request.said.duration, "For how long: 90m, 2h, 1h30m, 1d; at most 31d.")
            ->type_name("DURATION");
        command.add_option("--until", request.said.until, "Until when, instead of --for: 06:00.")
            ->type_name("TIME");
    }
    command.add_option("--remark", request.said.remark, "What is known about it, or being done.")
        ->type_name("TEXT");
    command.add_option("--by", request.said.by, "Who says so.")->type_name("NAME")->envname("USER");
    command.callback([&request, name] {
        checkChoice(request);
        checkLabels(request.said.labels);
        if (name == "shelve") {
            endOf(request.said);
        }
    });
}

int runAlarms(StationClient& station, const std::string& command, const AlarmsRequest& request, bool json) {
    const Words* words = kWords;
    while (command != words->command) {
        ++words;
    }
    if (json && command == "ack" && request.ids.size() == 1 && request.alarm.empty()) {  // the alarm as it is
        print(station.send("POST", "/api/v1/alarms/" + std::to_string(request.ids.front()) + "/acknowledge",
                           {{"by", request.said.by}, {"remark", request.said.remark}}));
        return 0;
    }
    Json body = bodyOf(request);
    if (command == "shelve") {
        body["until"] = rfc3339(endOf(request.said));
    }
    const Json done = station.send("POST", words->path, body);
    if (json) {
        print(done);
        return 0;
    }
    const std::string how =
        command == "shelve" ? "shelved until " + timeText(body, "until") + " UTC" : words->done;
    const int64_t handled = done.value("handled", int64_t{0});
    if (request.ids.size() == 1 && handled == 1) {
        printf("%s: %lld\n", how.c_str(), static_cast<long long>(request.ids.front()));
    } else {
        printf("%s: %lld %s\n", how.c_str(), static_cast<long long>(handled),
               handled == 1 ? "alarm" : "alarms");
    }
    return 0;
}

int showShelved(StationClient& station, bool json) {
    const Json all = station.getJson("/api/v1/shelved");
    if (!json && all.empty()) {
        puts("nothing is shelved");
        return 0;
    }
    Listing table({"ID", "ALARM", "GROUP", "UNTIL (UTC)", "RAISED", "INCIDENT", "BY", "CHANNEL", "REMARK"});
    for (const Json& one : all) {
        if (json) {
            print(one);
            continue;
        }
        table.add({text(one, "id"), text(one, "alarm"), text(one, "group"), timeText(one, "until"),
                   text(one, "alarmId") == "-" ? "no" : "yes", text(one, "incident"), text(one, "by"),
                   text(one, "channel"), text(one, "remark")});
    }
    if (!json) {
        table.print();
    }
    return 0;
}
