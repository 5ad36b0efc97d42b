#include "doctor.h"

#include <arpa/inet.h>
#include <grp.h>
#include <sys/statvfs.h>
#include <sys/timex.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "checks.h"
#include "machine/machine.h"
#include "stationClient.h"

namespace doctor {

namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kRoot = "/";
constexpr station::Ipv4Address kSomeGroup = 0xEFFF0001;  // 239.255.0.1, to ask for a route with

void readChannels(const Json& channels, StationLook& look) {
    for (const Json& channel : channels) {
        in_addr group{};
        if (channel.value("state", "") != "disabled" &&
            inet_pton(AF_INET, channel.value("group", "").c_str(), &group) == 1) {
            look.groups.push_back(ntohl(group.s_addr));
        }
    }
}

void readStatus(const Json& status, StationLook& look) {
    const auto text = [](const Json& object, const char* member) {
        const auto found = object.find(member);
        return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
    };
    const Json probe = status.value("probe", Json::object());
    const Json channels = status.value("channels", Json::object());
    look.version = text(status, "version");
    look.connected = probe.value("connected", false);
    look.problem = text(probe, "problem");
    look.watched = channels.value("watched", int64_t{0});
    look.withSignal = channels.value("withSignal", int64_t{0});
    look.notes = status.value("notes", Json::array()).size();
    look.passive = status.value("passive", false);
    const Json machine = status.value("machine", Json::object());
    if (const auto card = machine.find("interface"); card != machine.end() && card->is_object()) {
        look.captured = card->value("captured", false);
    }
    if (const auto meter = status.find("meter"); meter != status.end() && meter->is_object()) {
        look.meter = {.connected = meter->value("connected", false),
                      .silent = meter->value("silent", false),
                      .groups = meter->value("groups", int64_t{0}),
                      .reported = meter->value("reported", int64_t{0})};
        for (const Json& part :
             {*meter, meter->value("capture", Json::object()), meter->value("joins", Json::object())}) {
            look.meter->problem = look.meter->problem.empty() ? text(part, "problem") : look.meter->problem;
        }
    }
    if (const auto pictures = status.find("pictures"); pictures != status.end() && pictures->is_object()) {
        const auto seconds = pictures->find("intervalSeconds");
        look.pictures = {.connected = pictures->value("connected", false),
                         .silent = pictures->value("silent", false),
                         .meter = pictures->value("meter", false),
                         .problem = text(*pictures, "problem"),
                         .held = pictures->value("held", int64_t{0}),
                         .taken = pictures->value("pictures", int64_t{0}),
                         .failed = pictures->value("failures", int64_t{0}),
                         .seconds = seconds != pictures->end() && seconds->is_number()
                                        ? std::optional(seconds->get<double>())
                                        : std::nullopt,
                         .leftOut = pictures->value("leftOut", Json::array()).size()};
    }
}

StationLook askStation(const Request& request) {
    StationLook look;
    look.socket = request.station.empty() ? kStationSocket : request.station;
    std::optional<StationClient> station;
    try {
        station = StationClient::find(look.socket, request.timeout);
    } catch (const probelink::LinkError&) {
        look.reach = StationLook::Reach::kForbidden;
    }
    if (!station) {
        return look;
    }
    look.reach = StationLook::Reach::kSilent;
    try {
        readStatus(station->getJson("/api/v1/status"), look);
        readChannels(station->getJson("/api/v1/channels"), look);
        look.reach = StationLook::Reach::kAnswers;
    } catch (const std::exception& error) {
        look.silence = error.what();
    }
    return look;
}

Caller whoAsks() {
    Caller caller{geteuid(), userName(kRoot, geteuid()), {getegid()}};
    std::vector<gid_t> groups(static_cast<std::size_t>(std::max(getgroups(0, nullptr), 0)));
    const int count = getgroups(static_cast<int>(groups.size()), groups.data());
    caller.groups.insert(groups.begin(), groups.begin() + std::max(count, 0));
    return caller;
}

Clock readClock() {
    timex state{};
    const int result = adjtimex(&state);
    return {result >= 0, result != TIME_ERROR && (state.status & STA_UNSYNC) == 0};
}

Disk readDisk(fs::path directory) {
    Disk disk;
    std::error_code error;
    while (!fs::exists(directory, error) && error != std::errc::permission_denied &&
           directory.has_relative_path()) {
        directory = directory.parent_path();
    }
    disk.directory = directory;
    struct statvfs space {};
    if (statvfs(directory.c_str(), &space) == 0) {
        disk.known = true;
        disk.readOnly = (space.f_flag & ST_RDONLY) != 0;
        disk.freeBytes = uint64_t{space.f_bavail} * space.f_frsize;
        disk.freeFiles = space.f_favail;
        disk.filesCounted = space.f_files > 0;
    }
    return disk;
}

void append(Findings& all, Findings more) {
    std::ranges::move(more, std::back_inserter(all));
}

void checkNetwork(const Processes& processes, const StationLook& station, Findings& findings) {
    try {
        const auto interfaces = station::readInterfaces();
        const auto others = readSockets(kRoot, processes, "kestor-meter");
        const Captures captures{station::readCaptured("/proc", others.value_or(std::set<uint64_t>())),
                                !others};
        const station::NetworkInterface* capture = findCaptureInterface(interfaces, captures.on);
        append(findings, checkInterface(interfaces, captures, processes, station));
        const std::vector<station::Ipv4Address> groups =
            station.groups.empty() ? std::vector{kSomeGroup} : station.groups;
        findings.push_back(checkRoutes(interfaces, capture, groups, station::readRoutes(groups), station));
        findings.push_back(checkMemberships(interfaces, capture, station::readMemberships(), station));
    } catch (const std::system_error& error) {
        findings.push_back(
            unseen("interface", std::string("the kernel does not tell of interfaces: ") + error.what()));
    }
}

Findings lookAtAll(const Request& request) {
    const StationLook station = askStation(request);
    const Processes processes = readProcesses(kRoot);
    Findings findings = {checkServices(kRoot, processes, station)};
    append(findings, checkMeter(processes, station));
    append(findings, checkPictures(kRoot, processes, station));
    checkNetwork(processes, station, findings);
    append(findings, checkLimits(kRoot, station.groups.size()));
    findings.push_back(checkPipe(kRoot));
    findings.push_back(checkPort(kRoot, processes));
    findings.push_back(checkSocket(station));
    findings.push_back(checkUser(kRoot, whoAsks()));
    append(findings, checkResults(station));
    findings.push_back(checkClock(readClock()));
    const auto state = readStateDirectory(kRoot, processes);
    append(findings, checkDisk(kRoot, state, state ? readDisk(*state) : Disk()));
    findings.push_back(checkVersions(
        KESTOR_VERSION, readPackages(kRoot, {"kestor", "kestor-station", "kestor-picture", "kestor-tools"}),
        station, processes));
    return findings;
}

}  // namespace

int run(const Request& request) {
    const Findings findings = lookAtAll(request);
    if (!request.json) {
        fputs(report(findings).c_str(), stdout);
        return exitStatus(findings);
    }
    for (const Finding& finding : findings) {
        const Json line = {{"subject", finding.subject},
                           {"verdict", verdictName(finding.verdict)},
                           {"text", finding.text},
                           {"advice", finding.advice}};
        puts(line.dump(-1, ' ', false, Json::error_handler_t::replace).c_str());
    }
    return exitStatus(findings);
}

}  // namespace doctor
