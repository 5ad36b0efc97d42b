#include "stationCommands.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <span>
#include <string_view>
#include <thread>
#include <utility>

#include "listing.h"
#include "output.h"

namespace {

using namespace std::chrono_literals;

constexpr std::size_t kPlaylistLimit = std::size_t{16} << 20;  // bytes: what the station takes
constexpr std::chrono::milliseconds kLooksForEvents = 1s;
constexpr int kEventsAtOnce = 1000;
constexpr long kNotFound = 404;
constexpr int kExitNotConnected = 3;
constexpr std::size_t kLeftOutShown = 5;

std::string megabits(const Json& object) {
    const auto found = object.find("bitRate");
    if (found == object.end() || !found->is_number()) {
        return "-";
    }
    std::array<char, 32> number{};
    snprintf(number.data(), number.size(), "%.3f", found->get<double>() / 1e6);
    return number.data();
}

std::string number(const Json& object, const char* member) {
    return text(object, member);
}

// "1 Gbit/s" of bits a second.
std::string speedText(const Json& card) {
    const double speed = card.value("bitsPerSecond", 0.0);
    std::array<char, 32> text{};
    const bool giga = speed >= 1e9;
    snprintf(text.data(), text.size(), "%.3g %s", speed / (giga ? 1e9 : 1e6), giga ? "Gbit/s" : "Mbit/s");
    return text.data();
}

// The interface that the probe captures, and what this machine does to the probe.
void showMachine(const Json& machine) {
    const Json card = machine.value("interface", Json());
    if (card.is_object()) {
        const bool well = card.value("up", false) && card.value("carrier", false);
        const bool captured = card.value("captured", true);
        const bool hasSpeed = card.contains("bitsPerSecond") && card["bitsPerSecond"].is_number();
        printf("interface %s, %s%s%s; this machine dropped %s packets, %s in the last minute\n",
               text(card, "name").c_str(), well ? "up" : text(card, "state").c_str(),
               captured ? "" : ", not captured", hasSpeed ? (", " + speedText(card)).c_str() : "",
               number(machine, "drops").c_str(), number(machine, "dropsLastMinute").c_str());
    }
    for (const char* problem : {"problem", "linkProblem", "joinProblem", "doubled"}) {
        if (const std::string said = text(machine, problem); said != "-") {
            printf("          %s\n", said.c_str());
        }
    }
}

void showMeter(const Json& meter) {
    if (!meter.is_object()) {
        return;
    }
    const bool connected = meter.value("connected", false);
    const std::string version = text(meter, "version");
    const std::string since = timeText(meter, "since");
    if (!connected && version == "-") {
        puts("meter     none yet");
    } else if (!connected) {
        printf("meter     NOT CONNECTED since %s UTC\n", since.c_str());
    } else {
        const Json& capture = meter.at("capture");
        printf(
            "meter     %s since %s UTC, reports %s of %s groups; dropped %s frames, the card %s, lost %s "
            "seconds\n",
            meter.value("silent", false) ? "connected but SILENT" : "connected", since.c_str(),
            number(meter, "reported").c_str(), number(meter, "groups").c_str(),
            number(capture, "kernelDrops").c_str(), number(capture, "cardDrops").c_str(),
            number(meter, "secondsLost").c_str());
    }
    for (const Json& said : {meter, meter.value("capture", Json()), meter.value("joins", Json())}) {
        for (const char* member : {"problem", "note"}) {
            if (const std::string line = text(said, member); line != "-") {
                printf("          %s\n", line.c_str());
            }
        }
    }
}

void showPictures(const Json& pictures) {
    if (!pictures.is_object()) {
        return;
    }
    const bool connected = pictures.value("connected", false);
    const std::string since = timeText(pictures, "since");
    if (!connected && text(pictures, "version") == "-") {
        puts("pictures  none taken: kestor-picture never came");
    } else if (!connected) {
        printf("pictures  NOT TAKEN since %s UTC\n", since.c_str());
    } else {
        const auto seconds = pictures.find("intervalSeconds");
        const std::string interval =
            seconds != pictures.end() && seconds->is_number()
                ? ", of each channel every " + std::to_string(std::lround(seconds->get<double>())) + " s"
                : "";
        printf(
            "pictures  %s since %s UTC%s; %s taken, %s failed, %s decoders "
            "killed\n",
            pictures.value("silent", false) ? "connected but SILENT" : "connected", since.c_str(),
            interval.c_str(), number(pictures, "pictures").c_str(), number(pictures, "failures").c_str(),
            number(pictures, "workersKilled").c_str());
        if (!pictures.value("meter", false)) {
            puts("          no meter gives it packets");
        }
    }
    if (const std::string problem = text(pictures, "problem"); problem != "-") {
        printf("          %s\n", problem.c_str());
    }
    const Json leftOut = pictures.value("leftOut", Json::array());
    for (std::size_t i = 0; i < std::min(leftOut.size(), kLeftOutShown); ++i) {
        printf("          none of %s until %s UTC: %s\n", text(leftOut[i], "group").c_str(),
               timeText(leftOut[i], "until").c_str(), text(leftOut[i], "why").c_str());
    }
    if (leftOut.size() > kLeftOutShown) {
        printf("          nor of %zu more\n", leftOut.size() - kLeftOutShown);
    }
}

int showStatus(StationClient& station, const StationRequest& request) {
    const Json status = station.getJson("/api/v1/status");
    const Json& probe = status.at("probe");
    const int result = probe.value("connected", false) ? 0 : kExitNotConnected;
    if (request.json) {
        print(status);
        return result;
    }
    const Json& channels = status.at("channels");
    const Json& alarms = status.at("alarms");
    printf("station   %s, since %s UTC\n", text(status, "version").c_str(),
           timeText(status, "started").c_str());
    const std::string snapshot = timeText(probe, "lastSnapshot");
    const std::string restarts = number(probe, "restarts");
    printf("probe     %s, %s, restarted %s %s\n",
           probe.value("connected", false) ? "connected" : "NOT CONNECTED",
           snapshot == "-" ? "no snapshot yet" : ("last snapshot " + snapshot + " UTC").c_str(),
           restarts.c_str(), restarts == "1" ? "time" : "times");
    if (probe.value("otherController", false)) {
        puts(
            "          the station cannot listen where the probe asks: another controller does; its log "
            "tells");
    }
    const std::string problem = text(probe, "problem");
    const std::string pipe = text(probe, "pipeProblem");
    if (problem != "-") {
        printf("          %s\n", problem.c_str());
    } else if (pipe != "-") {
        printf("          %s\n", pipe.c_str());
    }
    if (probe.value("secondAsker", false)) {
        puts(
            "          a second probe or program asks at the controller's port as well, and is told nothing: "
            "stop it (kestor -s -s, or a kestor -s that was started by hand?)");
    }
    if (result != 0) {
        puts("          kestorctl doctor tells what keeps it from here, and what to do");
    }
    showMachine(status.value("machine", Json::object()));
    showMeter(status.value("meter", Json()));
    showPictures(status.value("pictures", Json()));
    printf("channels  %s configured, %s watched, %s with signal\n", number(channels, "configured").c_str(),
           number(channels, "watched").c_str(), number(channels, "withSignal").c_str());
    printf("alarms    %s critical, %s major, %s minor, %s warning\n", number(alarms, "critical").c_str(),
           number(alarms, "major").c_str(), number(alarms, "minor").c_str(),
           number(alarms, "warning").c_str());
    for (const Json& note : status.value("notes", Json::array())) {
        printf("note      %s\n", note.is_string() ? note.get<std::string>().c_str() : "");
    }
    return result;
}

int showChannels(StationClient& station, const StationRequest& request) {
    const Json channels = station.getJson("/api/v1/channels");
    if (request.json) {
        for (const Json& channel : channels) {
            print(channel);
        }
        return 0;
    }
    if (channels.empty()) {
        puts("no channels: kestorctl add GROUP... or kestorctl import PLAYLIST adds some");
        return 0;
    }
    Listing table({"GROUP", "STATE", "SEVERITY", "Mbit/s", "LOST", "CC ERR", "ORIGIN", "PROFILE", "NAME"});
    for (const Json& channel : channels) {
        table.add({text(channel, "group"), text(channel, "state"), text(channel, "severity"),
                   megabits(channel), text(channel, "packetsLost"), text(channel, "Continuity_count_error"),
                   text(channel, "origin"), text(channel, "profile"), text(channel, "name")});
    }
    table.print();
    return 0;
}

// "acknowledged by Ada: cable out", or "-".
std::string acknowledgementText(const Json& alarm) {
    const auto acknowledged = alarm.find("acknowledged");
    if (acknowledged == alarm.end() || !acknowledged->is_object()) {
        return "-";
    }
    const std::string by = text(*acknowledged, "by");
    const std::string remark = text(*acknowledged, "remark");
    return "acknowledged" + (by == "-" ? "" : " by " + by) + (remark == "-" ? "" : ": " + remark);
}

// "shelved until 2026-11-22 23:00:00 UTC by Ada: flaps", or "-".
std::string shelvedText(const Json& alarm) {
    const auto shelved = alarm.find("shelved");
    if (shelved == alarm.end() || !shelved->is_object()) {
        return "-";
    }
    const std::string by = text(*shelved, "by");
    const std::string remark = text(*shelved, "remark");
    return "shelved until " + timeText(*shelved, "until") + " UTC" + (by == "-" ? "" : " by " + by) +
           (remark == "-" ? "" : ": " + remark);
}

// What kestor-measure prints of a recording, of channels as they are.
int showMeasures(StationClient& station, const StationRequest& request) {
    bool first = true;
    bool refused = false;
    for (const std::string& group : request.groups) {
        const std::string path = "/api/v1/channels/" + group + "/meter";
        try {
            const std::string answer = station.get(request.json ? path : path + "?format=text");
            printf("%s%s%s", first || request.json ? "" : "\n", answer.c_str(), request.json ? "\n" : "");
            first = false;
        } catch (const RefusedError& error) {
            fprintf(stderr, "kestorctl: %s: %s\n", group.c_str(), error.what());
            refused = true;
        }
    }
    return refused ? 1 : 0;
}

int showAlarms(StationClient& station, const StationRequest& request) {
    const Json alarms = station.getJson("/api/v1/alarms");
    if (request.json) {
        for (const Json& alarm : alarms) {
            print(alarm);
        }
        return 0;
    }
    if (alarms.empty()) {
        puts("no alarms");
        return 0;
    }
    Listing table({"ID", "SEVERITY", "ALARM", "GROUP", "SINCE (UTC)", "CHANNEL"});
    for (const Json& alarm : alarms) {
        std::vector<std::string> below;
        for (std::string said : {text(alarm, "text"), acknowledgementText(alarm), shelvedText(alarm)}) {
            if (said != "-") {
                below.push_back(std::move(said));
            }
        }
        if (const std::string incident = text(alarm, "incident"); incident != "-") {
            below.push_back("incident " + incident);
        }
        table.add({text(alarm, "id"), text(alarm, "severity"), text(alarm, "alarm"), text(alarm, "group"),
                   timeText(alarm, "raised"), text(alarm, "channel")},
                  std::move(below));
    }
    table.print();
    return 0;
}

void printEvent(const Json& event, bool json) {
    if (json) {
        print(event);
        return;
    }
    std::string what = text(event, "kind");
    if (const std::string alarm = text(event, "alarm"); alarm != "-" && alarm != what) {
        what = alarm + " " + what;
    }
    std::string who = text(event, "channel");
    if (const std::string group = text(event, "group"); group != "-" && group != who) {
        who = who == "-" ? group : who + " (" + group + ")";
    }
    printf("%s  %-8s  %-30s  %s%s%s\n", timeText(event, "time").c_str(), text(event, "severity").c_str(),
           what.c_str(), who == "-" ? "" : who.c_str(), who == "-" ? "" : ": ", text(event, "text").c_str());
}

// The events behind the last one that was shown, oldest first.
void showNewEvents(StationClient& station, int limit, bool json, int64_t& last) {
    Json events = station.getJson("/api/v1/events?limit=" + std::to_string(limit));
    std::reverse(events.begin(), events.end());
    for (const Json& event : events) {
        if (const int64_t id = event.value("id", int64_t{0}); id > last) {
            last = id;
            printEvent(event, json);
        }
    }
}

int showEvents(StationClient& station, const StationRequest& request) {
    int64_t last = 0;
    showNewEvents(station, request.limit, request.json, last);
    bool away = false;
    while (request.follow) {
        fflush(stdout);
        std::this_thread::sleep_for(kLooksForEvents);
        try {
            showNewEvents(station, kEventsAtOnce, request.json, last);
            away = false;
        } catch (const probelink::LinkError& error) {  // a station that is restarted comes back
            if (!std::exchange(away, true)) {
                fprintf(stderr, "kestorctl: %s; waiting for it\n", error.what());
            }
        }
    }
    return 0;
}

// The whole of a file or of standard input.
std::string readPlaylist(const std::string& name) {
    std::ifstream file;
    if (name != "-") {
        file.open(name, std::ios::binary);
    }
    std::istream& input = name == "-" ? std::cin : file;
    std::string playlist(kPlaylistLimit + 1, '\0');
    input.read(playlist.data(), static_cast<std::streamsize>(playlist.size()));
    playlist.resize(static_cast<std::size_t>(input.gcount()));
    if (!input.eof() && playlist.size() <= kPlaylistLimit) {
        throw probelink::LinkError("cannot read " + name);
    }
    if (playlist.size() > kPlaylistLimit) {
        throw probelink::LinkError(name + " is larger than a playlist may be, 16 MiB");
    }
    return playlist;
}

int importPlaylist(StationClient& station, const StationRequest& request) {
    const Json result = station.sendText("/api/v1/import", "text/plain", readPlaylist(request.file));
    if (request.json) {
        print(result);
        return 0;
    }
    for (const Json& note : result.value("notes", Json::array())) {
        fprintf(stderr, "kestorctl: %s: %s\n", request.file.c_str(),
                note.is_string() ? note.get<std::string>().c_str() : "");
    }
    printf("imported: %s added, %s changed, %s lines skipped\n", number(result, "added").c_str(),
           number(result, "changed").c_str(), number(result, "skipped").c_str());
    return 0;
}

int exportPlaylist(StationClient& station, const StationRequest& request) {
    if (request.json) {
        return showChannels(station, request);
    }
    fputs(station.get("/api/v1/export").c_str(), stdout);
    return 0;
}

int reload(StationClient& station, const StationRequest& request) {
    const Json result = station.send("POST", "/api/v1/reload");
    if (request.json) {
        print(result);
        return 0;
    }
    for (const Json& note : result.value("notes", Json::array())) {
        fprintf(stderr, "kestorctl: %s\n", note.is_string() ? note.get<std::string>().c_str() : "");
    }
    puts("reloaded");
    return 0;
}

void printSent(const std::string& said, bool json) {
    if (json) {
        print({{"sent", said}});
    } else {
        printf("sent: %s\n", said.c_str());
    }
}

// False where there was nothing to remove, which is said and no failure: a probe without a station takes it
// as well.
bool removeChannel(StationClient& station, const std::string& group) {
    try {
        station.send("DELETE", "/api/v1/channels/" + group);
        return true;
    } catch (const RefusedError& error) {
        if (error.status != kNotFound) {
            throw;
        }
        fprintf(stderr, "kestorctl: %s, so there is nothing to remove\n", error.what());
        return false;
    }
}

// One that is refused does not keep the others from being told.
int changeChannels(StationClient& station, const StationRequest& request) {
    std::string said;
    bool refused = false;
    for (const std::string& group : request.groups) {
        try {
            if (request.command == "add") {
                station.send("PUT", "/api/v1/channels/" + group, Json::object());
            } else if (!removeChannel(station, group)) {
                continue;
            }
            said += " " + group;
        } catch (const probelink::LinkError& error) {
            fprintf(stderr, "kestorctl: %s: %s\n", group.c_str(), error.what());
            refused = true;
        }
    }
    if (!said.empty()) {
        printSent(request.command + said, request.json);
    }
    return refused ? 1 : 0;
}

// What a probe without station is told, too; said in the same words.
int change(StationClient& station, const StationRequest& request) {
    std::string said = request.command;
    if (request.command == "clear") {
        station.send("POST", "/api/v1/clear");
    } else if (request.command == "passive") {
        station.send("POST", "/api/v1/passive", {{"on", request.on}});
        said += request.on ? " on" : " off";
    } else if (request.command == "igmp-latency") {
        station.send("POST", "/api/v1/igmp-latency", {{"milliseconds", request.latencyMs}});
        said += " " + std::to_string(request.latencyMs);
    } else {
        return changeChannels(station, request);
    }
    printSent(said, request.json);
    return 0;
}

struct Command {
    std::string_view name;
    int (*run)(StationClient&, const StationRequest&);
};
constexpr Command kCommands[] = {
    {"status", showStatus},     {"channels", showChannels}, {"alarms", showAlarms}, {"events", showEvents},
    {"import", importPlaylist}, {"export", exportPlaylist}, {"reload", reload},     {"meter", showMeasures},
};

}  // namespace

int runStationCommand(StationClient& station, const StationRequest& request) {
    const auto* const found = std::ranges::find(kCommands, request.command, &Command::name);
    return found == std::end(kCommands) ? change(station, request) : found->run(station, request);
}
