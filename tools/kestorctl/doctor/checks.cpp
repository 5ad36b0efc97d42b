#include "checks.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <utility>

namespace doctor {

namespace {

constexpr const char* kPipe = "tmp/american_maid";
constexpr uint16_t kPort = 5999;
constexpr const char* kGroup = "kestor";
constexpr const char* kStationUser = "kestor-station";
constexpr const char* kMeter = "kestor-meter";
constexpr const char* kPicture = "kestor-picture";
constexpr uint64_t kLeastBytes = uint64_t{16} << 20;
constexpr uint64_t kFewBytes = uint64_t{512} << 20;  // a database of a million events, with its journal

// What the package sets (debian/10-kestor.conf), and what less of it costs.
struct Limit {
    const char* key;
    int64_t value;
    const char* cost;
};
constexpr std::array kLimits = {
    Limit{"net.ipv4.igmp_max_memberships", 2000, "no more groups than that can be joined"},
    Limit{"net.core.netdev_max_backlog", 10'000,
          "bursts of many channels may be dropped before the probe sees them"},
    Limit{"net.core.rmem_max", 8'388'608, "receive buffers are kept smaller than programs ask for"},
};

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (std::size_t i = 0; i < words.size(); ++i) {
        text += (i == 0 ? "" : i + 1 == words.size() ? " and " : ", ") + words[i];
    }
    return text;
}

// Whether systemd starts it with the others.
bool isEnabled(const fs::path& root, const char* service) {
    std::error_code error;
    return fs::is_symlink(
        root / ("etc/systemd/system/kestor.target.wants/" + std::string(service) + ".service"), error);
}

// Of services without which the others do their work: what is lost.
const char* lossWithout(std::string_view service) {
    return service == kMeter     ? "what kestor-meter measures is not known"
           : service == kPicture ? "frozen, black and silent channels are not found"
                                 : nullptr;
}

std::string megabytes(uint64_t bytes) {
    return std::to_string(bytes >> 20) + " MiB";
}

}  // namespace

Finding checkServices(const fs::path& root, const Processes& processes, const StationLook& station) {
    std::vector<std::string> running;
    std::vector<std::string> missing;
    std::error_code error;
    // The guard comes with the package. The others may be left out: their services are disabled then.
    const bool guarded = fs::exists(root / "usr/libexec/kestor/kestor-guard", error);
    const std::array<std::pair<const char*, bool>, 5> services = {{{"kestor", true},
                                                                   {"kestor-station", true},
                                                                   {"kestor-guard", guarded},
                                                                   {kMeter, isEnabled(root, kMeter)},
                                                                   {kPicture, isEnabled(root, kPicture)}}};
    for (const auto& [name, wanted] : services) {
        const bool runs =
            processes.run(name) || (name == std::string_view(kStationUser) && station.answers());
        if (runs || wanted) {
            (runs ? running : missing).emplace_back(name);
        }
    }
    if (const auto probes = processes.named("kestor"); probes.size() > 1) {
        std::set<pid_t> pids;
        for (const Process& probe : probes) {
            pids.insert(probe.pid);
        }
        std::vector<std::string> numbers;
        numbers.reserve(pids.size());
        for (const pid_t pid : pids) {
            numbers.push_back(std::to_string(pid));
        }
        return failure("services",
                       "more than one probe runs (kestor, processes " + joined(numbers) +
                           "): the station tells one of them what to watch",
                       "end those that were started by hand");
    }
    if (missing.empty()) {
        return ok("services", joined(running) + " run");
    }
    if (!processes.whole) {
        return unseen("services", "processes of other users are hidden here");
    }
    const std::string text = joined(missing) + (missing.size() == 1 ? " does not run" : " do not run");
    if (running.empty() && !fs::exists(root / "usr/sbin/kestor", error)) {
        return failure("services", text + ", and the package kestor is not installed",
                       "install it, or run kestor -s and kestor-station by hand");
    }
    if (processes.run("kestor-start")) {
        return failure("services", text + ": the probe's service waits for a card", "see interface");
    }
    if (std::ranges::all_of(missing, lossWithout)) {
        std::string losses;
        std::string names;
        std::string units;
        for (const std::string& name : missing) {
            losses += (losses.empty() ? "" : "; ") + std::string(lossWithout(name));
            names += " " + name;
            units += " -u " + name;
        }
        return warning("services", text + ": " + losses,
                       "systemctl start" + names + "; journalctl" + units +
                           " -e says why. To do without: systemctl disable --now" + names);
    }
    return failure("services", text,
                   "systemctl start kestor.target; where that does not help: journalctl -u 'kestor*' -e");
}

Findings checkMeter(const Processes& processes, const StationLook& station) {
    if (!station.answers() || !processes.run(kMeter)) {
        return {};
    }
    const char* const log = "journalctl -u kestor-meter -e, and kestorctl status";
    if (!station.meter) {
        return {warning("meter", "kestor-meter runs, and the station waits for none",
                        "set meter_socket in station.toml, or systemctl disable --now kestor-meter")};
    }
    const StationLook::Meter& meter = *station.meter;
    if (!meter.connected) {
        return {warning("meter",
                        "kestor-meter runs, and is not connected to the station" +
                            (meter.problem.empty() ? std::string() : ": " + meter.problem),
                        log)};
    }
    if (meter.silent || !meter.problem.empty()) {
        return {warning(
            "meter", meter.problem.empty() ? "kestor-meter is connected, and reports nothing" : meter.problem,
            log)};
    }
    return {ok("meter", "kestor-meter is connected, and reports " + std::to_string(meter.reported) + " of " +
                            std::to_string(meter.groups) + (meter.groups == 1 ? " group" : " groups"))};
}

Findings checkPictures(const fs::path& root, const Processes& processes, const StationLook& station) {
    if (!station.answers()) {
        return {};
    }
    const char* const subject = "pictures";
    const char* const log = "journalctl -u kestor-picture -e, and kestorctl status";
    std::error_code error;
    const bool connected = station.pictures && station.pictures->connected;
    if (!connected && !processes.run(kPicture)) {
        if (!processes.whole || isEnabled(root, kPicture)) {
            return {};  // see services
        }
        return {ok(subject, fs::exists(root / "usr/sbin/kestor-picture", error)
                                ? "none are taken: the service of kestor-picture is disabled"
                                : "none are taken: kestor-picture is not installed")};
    }
    if (!station.pictures) {
        return {warning(subject, "kestor-picture runs, and the station waits for none",
                        "set socket in [pictures] of station.toml and restart the station, or systemctl "
                        "disable --now kestor-picture")};
    }
    const StationLook::Pictures& pictures = *station.pictures;
    const std::string because = pictures.problem.empty() ? std::string() : ": " + pictures.problem;
    if (!connected) {
        return {warning(subject, "kestor-picture runs, and is not connected to the station" + because, log)};
    }
    if (pictures.silent) {
        return {warning(subject, "kestor-picture is connected, and tells nothing",
                        "systemctl restart kestor-picture")};
    }
    if (!pictures.meter) {
        return {warning(subject, "kestor-picture gets no packets" + because,
                        "systemctl status kestor-meter: pictures come from what it captures")};
    }
    if (!pictures.problem.empty()) {
        return {warning(subject, pictures.problem, log)};
    }
    Findings findings;
    if (pictures.taken == 0 && pictures.failed > 0 && station.withSignal > 0) {
        findings.push_back(warning(subject,
                                   "no picture has come of " + std::to_string(pictures.failed) + " turns",
                                   "each channel's view says why, scrambled or without video, for example"));
    } else {
        const std::string every =
            pictures.seconds ? ", a new one every " + std::to_string(std::lround(*pictures.seconds)) + " s"
                             : std::string();
        findings.push_back(ok(subject, "kestor-picture is connected, and has shown " +
                                           std::to_string(pictures.held) +
                                           (pictures.held == 1 ? " channel" : " channels") + every));
    }
    if (pictures.leftOut > 0) {
        findings.push_back(warning(
            subject,
            std::to_string(pictures.leftOut) +
                (pictures.leftOut == 1 ? " channel is left out for an hour: it"
                                       : " channels are left out for an hour: each") +
                " killed three decoders",
            "kestorctl status says which, and why; a newer libavcodec may help: apt upgrade, then systemctl "
            "restart kestor-picture"));
    }
    return findings;
}

Findings checkLimits(const fs::path& root, std::size_t groups) {
    Findings findings;
    std::vector<std::string> hidden;
    for (const Limit& limit : kLimits) {
        const auto value = readSysctl(root, limit.key);
        const std::string text = std::string(limit.key) + " is " + std::to_string(value.value_or(0));
        const int64_t wanted = std::max<int64_t>(
            limit.value, &limit == kLimits.data() ? static_cast<int64_t>(groups) : limit.value);
        const std::string advice = "sysctl -w " + std::string(limit.key) + "=" + std::to_string(wanted) +
                                   ", and for good in a file of /etc/sysctl.d";
        if (!value) {
            hidden.emplace_back(limit.key);
        } else if (&limit == kLimits.data() && *value < static_cast<int64_t>(groups)) {
            findings.push_back(failure("limits",
                                       text + ", and " + std::to_string(groups) +
                                           " groups are to be watched: the rest is not joined",
                                       advice));
        } else if (*value < limit.value) {
            findings.push_back(warning(
                "limits", text + ", below " + std::to_string(limit.value) + ": " + limit.cost, advice));
        }
    }
    if (!hidden.empty()) {
        findings.push_back(unseen("limits", joined(hidden) + " cannot be read here"));
    } else if (findings.empty()) {
        findings.push_back(ok("limits", "the kernel's limits are as the package sets them, or higher"));
    }
    return findings;
}

Finding checkPipe(const fs::path& root) {
    const fs::path pipe = root / kPipe;
    const std::string name = "/" + std::string(kPipe);
    struct stat status {};
    if (lstat(pipe.c_str(), &status) != 0 && errno == EACCES) {
        return unseen("pipe", name + " may not be looked at here");
    }
    if (lstat(pipe.c_str(), &status) != 0) {
        return failure("pipe", "there is no " + name + ": the probe's results have no way out",
                       "systemd-tmpfiles --create, then systemctl restart kestor; by hand, kestor makes it");
    }
    if (S_ISLNK(status.st_mode) && stat(pipe.c_str(), &status) != 0) {
        return errno == EACCES
                   ? unseen("pipe", name + " is for root and the group kestor to see")
                   : failure("pipe", name + " leads nowhere",
                             "systemd-tmpfiles --create, then systemctl restart kestor kestor-station");
    }
    if (!S_ISFIFO(status.st_mode)) {
        return failure("pipe", name + " is no pipe: something else was put in its place",
                       "remove it, systemd-tmpfiles --create, then systemctl restart kestor kestor-station");
    }
    return ok("pipe", name + " is there, of " + userName(root, status.st_uid));
}

Finding checkPort(const fs::path& root, const Processes& processes) {
    const std::string port = "127.0.0.1:" + std::to_string(kPort);
    const PortUse use = readPort(root, kPort);
    if (!use.seen) {
        return unseen("port", "/proc/net/tcp cannot be read");
    }
    if (!use.listener) {
        return failure(
            "port", "nobody listens on " + port + ", where the probe asks what to watch",
            "systemctl start kestor-station; its log says what keeps it: journalctl -u kestor-station -e");
    }
    const auto owner = ownerOf(root, use.inode, processes);
    const auto stations = processes.named("kestor-station");
    const bool known = owner ? owner->name == "kestor-station"
                             : std::ranges::find(stations, *use.listener, &Process::user) != stations.end();
    if (!known && (owner || !stations.empty() || processes.whole)) {
        return failure("port",
                       "another program listens on " + port + ", where the probe asks: " +
                           (owner ? owner->name + " (process " + std::to_string(owner->pid) + ")"
                                  : "one of " + userName(root, *use.listener)),
                       "end it, and the station takes its place");
    }
    if (!use.asked) {
        return processes.run("kestor")
                   ? failure("port",
                             "the station listens on " + port + ", and no probe asks although kestor runs",
                             "systemctl restart kestor")
                   : ok("port", "the station listens on " + port + ", and no probe asks");
    }
    return ok("port", "the station listens on " + port + ", and a probe asks");
}

Finding checkSocket(const StationLook& station) {
    switch (station.reach) {
        case StationLook::Reach::kAnswers:
            return ok("socket", "the station answers at " + station.socket);
        case StationLook::Reach::kForbidden:
            return warning("socket", "this user may not talk to the station at " + station.socket,
                           "see user");
        case StationLook::Reach::kSilent:
            return failure("socket",
                           station.silence.starts_with("the station")
                               ? station.silence
                               : "the station does not answer at " + station.socket + ": " + station.silence,
                           "journalctl -u kestor-station -e; systemctl restart kestor-station");
        default:
            return failure("socket", "no station listens at " + station.socket,
                           "systemctl start kestor-station; one with another socket: --station PATH");
    }
}

Finding checkUser(const fs::path& root, const Caller& caller) {
    if (caller.id == 0) {
        return ok("user", "root may read and change everything");
    }
    const auto group = findGroup(root, kGroup);
    if (!group) {
        return unseen("user", "there is no group kestor on this machine");
    }
    if (caller.groups.contains(group->id)) {
        return ok("user", caller.name + " is in the group kestor, and may read and change everything");
    }
    if (std::ranges::find(group->members, caller.name) != group->members.end()) {
        return warning("user", caller.name + " was put into the group kestor after logging in",
                       "log in anew");
    }
    return warning("user", caller.name + " is not in the group kestor: no access to station and results",
                   "as root: usermod -aG kestor " + caller.name + ", and log in anew");
}

Findings checkResults(const StationLook& station) {
    if (!station.answers()) {
        return {unseen("results", "the station did not tell")};
    }
    if (!station.connected) {
        return {failure("results", station.problem.empty() ? "none come from the probe" : station.problem,
                        "see the other lines; journalctl -u 'kestor*' -e")};
    }
    Findings findings;
    const std::string watched = std::to_string(station.watched) +
                                (station.watched == 1 ? " channel" : " channels") + " watched, " +
                                std::to_string(station.withSignal) + " with signal";
    if (!station.problem.empty()) {
        findings.push_back(failure("results", station.problem, "journalctl -u 'kestor*' -e"));
    } else if (station.groups.empty()) {
        findings.push_back(warning("results", "there are no channels to watch",
                                   "kestorctl add GROUP, or a playlist in /etc/kestor/station.toml"));
    } else if (station.withSignal == 0) {
        findings.push_back(
            warning("results", watched,
                    "see interface, route and memberships; then: are the groups sent, and does the "
                    "switch forward them (IGMP snooping without a querier does not)?"));
    } else {
        findings.push_back(ok("results", watched));
    }
    if (station.notes > 0) {
        findings.push_back(warning("results",
                                   std::to_string(station.notes) + " notes on configuration and playlists",
                                   "kestorctl status prints them"));
    }
    return findings;
}

Finding checkClock(const Clock& clock) {
    if (!clock.known) {
        return unseen("clock", "the kernel does not tell whether it is synchronised");
    }
    return clock.synchronised
               ? ok("clock", "it is synchronised")
               : warning("clock", "it is not synchronised: the times of alarms and events may be wrong",
                         "systemctl enable --now systemd-timesyncd, or install chrony; timedatectl tells");
}

Findings checkDisk(const fs::path& root, const std::optional<fs::path>& directory, const Disk& disk) {
    if (!directory) {
        return {unseen("disk",
                       "the station's configuration, which names where events go, is not for this "
                       "user to read")};
    }
    const fs::path& state = *directory;
    Findings findings;
    struct stat status {};
    const auto user = findUser(root, kStationUser);
    if (user && stat((root / state.relative_path()).c_str(), &status) == 0 && status.st_uid != user->id) {
        findings.push_back(failure("disk",
                                   state.string() + " belongs to " + userName(root, status.st_uid) +
                                       ": the station cannot write there",
                                   "chown -R kestor-station:kestor " + state.string()));
    }
    if (!disk.known) {
        findings.push_back(unseen("disk", "free space below " + state.string() + " cannot be seen"));
        return findings;
    }
    const std::string space = megabytes(disk.freeBytes) + " free for " + state.string();
    const char* const advice = "make room, or lower keep_rows and keep_days in [events] of station.toml";
    if (disk.readOnly) {
        findings.push_back(
            failure("disk", disk.directory + " is mounted read-only: no event is kept",
                    "the kernel's log says why (journalctl -k): an error of the disk is likely"));
    } else if (disk.freeBytes < kLeastBytes) {
        findings.push_back(failure("disk", space + ": events are lost", advice));
    } else if (disk.filesCounted && disk.freeFiles == 0) {
        findings.push_back(failure("disk", "no inode is free for " + state.string() + ": events are lost",
                                   "remove small files; df -i tells of them"));
    } else if (disk.freeBytes < kFewBytes) {
        findings.push_back(warning("disk", space, advice));
    } else if (findings.empty()) {
        findings.push_back(ok("disk", space));
    }
    return findings;
}

Finding checkVersions(const std::string& own, const std::map<std::string, std::string>& packages,
                      const StationLook& station, const Processes& processes) {
    std::string differ;
    const auto look = [&](const std::string& who, const std::string& version) {
        if (version != own) {
            differ += ", " + who + " " + version;
        }
    };
    for (const auto& [name, version] : packages) {
        look("the package " + name + " is", version);
    }
    if (station.answers()) {
        look("the station that runs is", station.version);
    }
    if (!differ.empty()) {
        return warning(
            "versions", "kestorctl is " + own + differ,
            "install the packages of one version; systemctl restart kestor.target where an older one runs");
    }
    for (const Process& process : processes.all) {
        if (process.replaced && process.name.starts_with("kestor")) {
            return warning("versions", process.name + " still runs as it was before its file was replaced",
                           "systemctl restart kestor.target");
        }
    }
    return ok("versions", own + (packages.empty() && !station.answers()
                                     ? " of kestorctl, and there is nothing to compare it with"
                                     : " everywhere"));
}

}  // namespace doctor
