// kestorctl doctor's judgement, on machines that are made up.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>

#include "checks.h"
#include "support/scratch.h"

namespace doctor {
namespace {

using station::Ipv4Address;
using station::Memberships;
using station::NetworkInterface;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;

constexpr Ipv4Address kA = 0xEF010101;  // 239.1.1.1
constexpr Ipv4Address kB = 0xEF010102;
// As the kernel has them: a listener of this user at 127.0.0.1:5999, and a probe's connection that was
// closed.
const std::string kListener = "   0: 0100007F:176F 00000000:0000 0A 00000000:00000000 00:00000000 00000000 " +
                              std::to_string(geteuid()) + " 0 4711 1 0 100\n";
constexpr const char* kAsked =
    "   1: 0100007F:176F 0100007F:C350 06 00000000:00000000 03:00001700 00000000     0        0 0 3 0\n";

constexpr const char* kInstalled = "install ok installed";

std::string package(const char* name, const char* status, const char* version) {
    return std::string("Package: ") + name + "\nStatus: " + status + "\nVersion: " + version + "\n\n";
}

// A machine on which all is well: services, pipe, port, kernel's limits, users, packages.
class Root {
  public:
    Root() {
        process(1, "systemd");
        process(20, "kestor");
        process(21, "kestor-station");
        process(22, "kestor-guard");
        write("usr/sbin/kestor", "");
        write("usr/libexec/kestor/kestor-guard", "");
        write("proc/self/net/tcp", "  sl  local_address rem_address\n" + kListener + kAsked);
        write("proc/sys/net/ipv4/igmp_max_memberships", "2000\n");
        write("proc/sys/net/core/netdev_max_backlog", "10000\n");
        write("proc/sys/net/core/rmem_max", "16777216\n");
        write("etc/passwd", "root:x:0:0::/root:/bin/sh\nmallory:x:1001:1001::/:/bin/sh\n");
        write("etc/group", "root:x:0:\nkestor:x:998:kestor-station,alice\n");
        write("var/lib/dpkg/status",
              package("kestor", kInstalled, "1.1.0") + package("kestor-old", kInstalled, "0.9"));
        fs::create_directory(path() / "tmp");
        mkfifo((path() / "tmp/american_maid").c_str(), 0600);
    }
    const fs::path& path() const {
        return directory_.path();
    }
    void write(const fs::path& file, const std::string& text) const {
        fs::create_directories((path() / file).parent_path());
        std::ofstream(path() / file) << text;
    }
    void process(int pid, const std::string& name) const {
        write("proc/" + std::to_string(pid) + "/comm", name + "\n");
    }
    void link(const fs::path& file, const std::string& to) const {
        fs::create_directories((path() / file).parent_path());
        fs::create_symlink(to, path() / file);
    }
    void remove(const fs::path& file) const {
        fs::remove_all(path() / file);
    }

  private:
    station::ScratchDirectory directory_;
};

StationLook wellStation() {
    StationLook look{.reach = StationLook::Reach::kAnswers, .socket = "/run/kestor/station.sock"};
    look.version = "1.1.0";
    look.connected = true;
    look.watched = look.withSignal = 2;
    look.groups = {kA, kB};
    return look;
}

// Everything that is judged by files and the station, in the order of the report.
Findings judge(const Root& root, const StationLook& look) {
    const fs::path& at = root.path();
    const Processes processes = readProcesses(at);
    Findings all = {checkServices(at, processes, look), checkPipe(at), checkPort(at, processes),
                    checkSocket(look)};
    for (Findings some : {checkLimits(at, look.groups.size()), checkMeter(processes, look),
                          checkPictures(at, processes, look), checkResults(look)}) {
        std::ranges::move(some, std::back_inserter(all));
    }
    all.push_back(checkVersions("1.1.0", readPackages(at, {"kestor", "kestor-station"}), look, processes));
    return all;
}

// What is another than on a machine on which all is well.
using Difference = std::function<void(const Root&, StationLook&)>;

Difference all(std::vector<Difference> some) {
    return [some = std::move(some)](const Root& root, StationLook& look) {
        for (const Difference& one : some) {
            one(root, look);
        }
    };
}
Difference gone(std::vector<const char*> files) {
    return [=](const Root& root, StationLook&) {
        for (const char* file : files) {
            root.remove(file);
        }
    };
}
Difference runs(int pid, const char* name) {
    return [=](const Root& root, StationLook&) { root.process(pid, name); };
}
Difference enabled(const std::string& service) {
    return [unit = service + ".service"](const Root& root, StationLook&) {
        root.link("etc/systemd/system/kestor.target.wants/" + unit, "/lib/systemd/system/" + unit);
    };
}
Difference has(const char* file, const std::string& text = "") {
    return [=](const Root& root, StationLook&) { root.write(file, text); };
}
Difference links(const char* file, const char* to) {
    return [=](const Root& root, StationLook&) { root.link(file, to); };
}
Difference tells(const std::function<void(StationLook&)>& change) {
    return [=](const Root&, StationLook& look) { change(look); };
}
Difference meter(const StationLook::Meter& told) {
    return tells([=](StationLook& look) { look.meter = told; });
}
Difference pictures(const StationLook::Pictures& told) {
    return tells([=](StationLook& look) { look.pictures = told; });
}

TEST(Doctor, JudgesWhatItReads) {
    struct Case {
        const char* what;
        Difference difference;
        int status;
        const char* says;
    };
    using Reach = StationLook::Reach;
    const std::vector<Case> cases = {
        {"nothing", all({}), 0, "all is well"},
        {"the probe is gone", gone({"proc/20"}), 2, "kestor does not run"},
        {"it waits for a card", runs(20, "kestor-start"), 2, "waits for a card"},
        {"the guard is gone", gone({"proc/22"}), 2, "kestor-guard does not run"},
        {"no guard is installed", gone({"proc/22", "usr/libexec"}), 0, "kestor and kestor-station run"},
        {"the meter is gone", enabled("kestor-meter"), 1, "warn  services     kestor-meter does not run"},
        {"the meter is connected",
         all({runs(23, "kestor-meter"), meter({.connected = true, .groups = 2, .reported = 1})}), 0,
         "kestor-meter is connected, and reports 1 of 2 groups"},
        {"the meter is not connected", all({runs(23, "kestor-meter"), meter({.problem = "it was refused"})}),
         1, "not connected to the station: it was refused"},
        {"the meter captures nothing",
         all({runs(23, "kestor-meter"), meter({.connected = true, .problem = "eth0 is down"})}), 1,
         "warn  meter        eth0 is down"},
        {"the station waits for no meter", runs(23, "kestor-meter"), 1, "the station waits for none"},
        {"meter and pictures are gone", all({enabled("kestor-meter"), enabled("kestor-picture")}), 1,
         "systemctl start kestor-meter kestor-picture;"},
        {"pictures are gone", enabled("kestor-picture"), 1,
         "kestor-picture does not run: frozen, black and silent channels are not found"},
        {"the probe is gone too", all({gone({"proc/20"}), enabled("kestor-picture")}), 2,
         "kestor and kestor-picture do not run"},
        {"pictures are not installed", all({}), 0,
         "ok    pictures     none are taken: kestor-picture is not"},
        {"pictures are not wanted", has("usr/sbin/kestor-picture"), 0,
         "the service of kestor-picture is disabled"},
        {"pictures come",
         pictures({.connected = true, .meter = true, .held = 2, .taken = 9, .failed = 1, .seconds = 10}), 0,
         "kestor-picture is connected, and has shown 2 channels, a new one every 10 s"},
        {"the station waits for no pictures", runs(24, "kestor-picture"), 1,
         "warn  pictures     kestor-picture runs, and the station waits for none"},
        {"pictures of another version",
         all({runs(24, "kestor-picture"), pictures({.problem = "it speaks version 2"})}), 1,
         "is not connected to the station: it speaks version 2"},
        {"pictures hang", pictures({.connected = true, .silent = true}), 1,
         "kestor-picture is connected, and tells nothing"},
        {"pictures without a meter", pictures({.connected = true, .problem = "no meter is connected"}), 1,
         "kestor-picture gets no packets: no meter is connected"},
        {"no share for pictures", pictures({.connected = true, .meter = true, .problem = "cores = 0"}), 1,
         "warn  pictures     cores = 0"},
        {"no turn has a picture", pictures({.connected = true, .meter = true, .failed = 7}), 1,
         "no picture has come of 7 turns"},
        {"decoders die", pictures({.connected = true, .meter = true, .held = 1, .taken = 4, .leftOut = 1}), 1,
         "1 channel is left out for an hour: it killed three decoders"},
        {"two probes", runs(30, "kestor"), 2, "processes 20 and 30"},
        {"processes are hidden", gone({"proc/1", "proc/20"}), 0, "--    services"},
        {"no pipe", gone({"tmp/american_maid"}), 2, "there is no /tmp/american_maid"},
        {"a file in the pipe's place", all({gone({"tmp/american_maid"}), has("tmp/american_maid")}), 2,
         "is no pipe"},
        {"nobody listens", has("proc/self/net/tcp", kAsked), 2, "nobody listens on"},
        {"another program listens", all({runs(50, "python3"), links("proc/50/fd/3", "socket:[4711]")}), 2,
         "python3 (process 50)"},
        {"another user listens", gone({"proc/21"}), 2, "one of "},
        {"no probe asks", has("proc/self/net/tcp", kListener), 2, "no probe asks although"},
        {"a torn list of connections",
         has("proc/self/net/tcp", "x\n\n  0: zz:yy :\n   0: 0100007F:176F 0 0A 0 0 0 0\n"), 2,
         "nobody listens"},
        {"too few memberships for the channels", has("proc/sys/net/ipv4/igmp_max_memberships", "1\n"), 2,
         "the rest is not joined"},
        {"fewer memberships than the package's", has("proc/sys/net/ipv4/igmp_max_memberships", "20\n"), 1,
         "igmp_max_memberships is 20, below 2000"},
        {"a limit is hidden", gone({"proc/sys/net/core/rmem_max"}), 0, "net.core.rmem_max cannot be read"},
        {"nobody at the socket", tells([](StationLook& look) { look = {.socket = "/s"}; }), 2,
         "no station listens at /s"},
        {"a forbidden socket",
         tells([](StationLook& look) { look = {.reach = Reach::kForbidden, .socket = "/s"}; }), 1,
         "may not talk"},
        {"a station that hangs", tells([](StationLook& look) {
             look = {.reach = Reach::kSilent, .socket = "/s", .silence = "timeout"};
         }),
         2, "does not answer at /s: timeout"},
        {"no results", tells([](StationLook& look) {
             look.connected = false;
             look.problem = "the probe scans";
         }),
         2, "FAIL  results      the probe scans"},
        {"no signal", tells([](StationLook& look) { look.withSignal = 0; }), 1,
         "2 channels watched, 0 with signal"},
        {"no channels", tells([](StationLook& look) { look.groups.clear(); }), 1, "no channels"},
        {"notes", tells([](StationLook& look) { look.notes = 3; }), 1, "3 notes"},
        {"an older station runs", tells([](StationLook& look) { look.version = "1.0"; }), 1,
         "the station that runs is 1.0"},
        {"packages of two versions",
         has("var/lib/dpkg/status",
             package("kestor", kInstalled, "1.1.0") + package("kestor-station", kInstalled, "1.0")),
         1, "the package kestor-station is 1.0"},
        {"one that was removed counts for nothing",
         has("var/lib/dpkg/status", package("kestor-station", "deinstall ok config-files", "1.0")), 0,
         "1.1.0 everywhere"},
        {"a program was replaced", links("proc/20/exe", "/usr/sbin/kestor (deleted)"), 1,
         "kestor still runs as it was"},
        {"nothing is installed",
         all({gone({"proc/20", "proc/21", "proc/22", "usr", "etc", "var", "tmp"}), has("proc/self/net/tcp"),
              tells([](StationLook& look) { look = {}; })}),
         2, "FAIL: services, pipe, port, socket"},
        {"nothing can be read", all({gone({"proc"}), tells([](StationLook& look) { look = {}; })}), 2,
         "FAIL: socket"},
    };
    for (const Case& one : cases) {
        const Root root;
        StationLook look = wellStation();
        one.difference(root, look);
        const Findings findings = judge(root, look);
        EXPECT_EQ(exitStatus(findings), one.status) << one.what << "\n" << report(findings);
        EXPECT_THAT(report(findings), HasSubstr(one.says)) << one.what;
        for (const Finding& finding : findings) {
            EXPECT_EQ(finding.advice.empty(), finding.verdict <= Verdict::kUnseen)
                << one.what << finding.text;
        }
    }
}

NetworkInterface card(const std::string& name, int index, bool up = true, bool carrier = true) {
    NetworkInterface one;
    one.name = name;
    one.index = index;
    one.up = up;
    one.running = one.carrier = up && carrier;
    one.multicast = true;
    return one;
}

TEST(Doctor, JudgesTheInterfaceAndTheWayToIt) {
    const Processes probe{{{20, "kestor"}}, true};
    StationLook look = wellStation();
    const auto interface = [&](const std::vector<NetworkInterface>& all, const std::set<int>& captured,
                               bool others = false) {
        return report(checkInterface(all, {captured, others}, probe, look));
    };
    EXPECT_THAT(interface({card("eth0", 2)}, {2}), HasSubstr("the probe captures there"));
    EXPECT_THAT(interface({card("eth0", 2)}, {3}),
                HasSubstr("FAIL  interface    kestor runs, but does not capture"));
    EXPECT_THAT(interface({card("eth0", 2)}, {2}, true), HasSubstr("captures there is for root to see"));
    look.captured = false;
    EXPECT_THAT(interface({card("eth0", 2)}, {2}, true), HasSubstr("kestor runs, but does not capture"));
    EXPECT_THAT(interface({card("eth0", 2, false)}, {}), HasSubstr("ip link set eth0 up"));
    EXPECT_THAT(interface({card("eth0", 2, true, false)}, {2}), HasSubstr("no link"));
    EXPECT_THAT(interface({card("eno1", 2), card("enp3s0", 3)}, {}),
                HasSubstr("no interface whose name contains eth0: eno1, enp3s0"));
    EXPECT_THAT(interface({}, {}), HasSubstr("there is none but the loopback"));
    EXPECT_THAT(interface({card("eth0", 2), card("veth0a", 3)}, {3}),
                HasSubstr("several names contain eth0 (eth0, veth0a); the probe takes veth0a"));

    const std::vector<NetworkInterface> two = {card("eth0", 2), card("eno1", 3)};
    const std::vector<Ipv4Address> groups = {kA, kB};
    const auto route = [&](int first, int second) {
        const std::vector<station::GroupRoute> routes = {{.interface = first}, {.interface = second}};
        return report({checkRoutes(two, two.data(), groups, routes, look)});
    };
    EXPECT_THAT(route(2, 2), HasSubstr("all is well"));
    EXPECT_THAT(route(2, 3), HasSubstr("1 of 2 groups would be joined on eno1, not on eth0 (239.1.1.2)"));
    EXPECT_THAT(route(3, 0), HasSubstr("1 of 2 groups cannot be joined, there is no route (239.1.1.2)"));

    const auto members = [&](const Memberships& memberships) {
        return report({checkMemberships(two, two.data(), memberships, look)});
    };
    EXPECT_THAT(members({true, {{"eth0", {kA, kB}}}}),
                HasSubstr("every watched group (2) is joined on eth0"));
    EXPECT_THAT(members({true, {{"eth0", {kA, kB}}, {"eno1", {kB}}}}),
                HasSubstr("warn  memberships  1 of 2 groups is joined on eno1 as well as on eth0"));
    const Memberships wrong{true, {{"eth0", {kA}}, {"eno1", {kB}}}};
    EXPECT_THAT(members(wrong), HasSubstr("1 of 2 groups is not joined on eth0, but on eno1 (239.1.1.2)"));
    EXPECT_THAT(members({}), HasSubstr("--    memberships"));
    look.passive = true;
    EXPECT_THAT(members(wrong), HasSubstr("all is well"));
    EXPECT_THAT(route(3, 0), HasSubstr("all is well"));
}

TEST(Doctor, BreaksLinesWithoutBreakingCommands) {
    const std::string command = "ip route replace 224.0.0.0/4 dev " + std::string(60, 'x');
    const std::string clause = "a clause of some length that is followed by another one";
    const std::string text = report({failure("route", clause + ", " + clause,
                                             clause + ": " + command + ", and " + std::string(30, 'y'))});
    const std::string indent(22, ' ');
    EXPECT_THAT(text, HasSubstr(" " + clause + ",\n" + indent + clause + "\n"));
    EXPECT_THAT(text, HasSubstr("-> " + clause + ":\n" + indent + command + ",\n" + indent + "and "));
    EXPECT_THAT(report({ok("route", std::string(200, 'z'))}), HasSubstr(std::string(200, 'z') + "\n"));
}

TEST(Doctor, JudgesWhoAsksAndWhereEventsGo) {
    const Root root;
    EXPECT_EQ(checkUser(root.path(), {0, "root", {}}).verdict, Verdict::kOk);
    EXPECT_EQ(checkUser(root.path(), {1000, "alice", {1000, 998}}).verdict, Verdict::kOk);
    EXPECT_THAT(checkUser(root.path(), {1000, "alice", {1000}}).advice, HasSubstr("log in anew"));
    EXPECT_THAT(checkUser(root.path(), {1001, "mallory", {1001}}).advice,
                HasSubstr("usermod -aG kestor mallory"));

    root.process(40, "kestor-meter");
    root.link("proc/40/fd/5", "socket:[83211]");
    root.link("proc/40/fd/6", "anon_inode:[eventpoll]");
    EXPECT_THAT(readSockets(root.path(), readProcesses(root.path()), "kestor-meter"),
                Optional(ElementsAre(83211)));
    EXPECT_THAT(readSockets(root.path(), readProcesses(root.path()), "kestor"), Optional(IsEmpty()));

    const auto stateOf = [&](const std::string& arguments) {
        root.write("proc/21/cmdline", arguments);
        return readStateDirectory(root.path(), readProcesses(root.path()));
    };
    EXPECT_EQ(readStateDirectory(root.path(), {}), "/var/lib/kestor");
    root.write("etc/kestor/station.toml", "# state_dir = \"/no\"\nstate_dir = \"/srv/kestor\" # ours\n");
    root.write("srv/other.toml", "state_dir = \"state\"\n");
    root.link("proc/21/cwd", "/srv");
    EXPECT_EQ(readStateDirectory(root.path(), {}), "/srv/kestor");
    using namespace std::string_literals;
    EXPECT_EQ(stateOf("kestor-station\0"s), "/srv/kestor");
    EXPECT_EQ(stateOf("kestor-station\0--state\0/data\0--listen\0\0"s), "/data");
    EXPECT_EQ(stateOf("kestor-station\0--config=other.toml\0--state=here\0"s), "/srv/here");
    EXPECT_EQ(stateOf("kestor-station\0--config\0other.toml\0"s), "/srv/state");
    const fs::path state = "/srv/kestor";
    fs::create_directories(root.path() / "srv/kestor");
    const Disk well{.directory = "/srv", .known = true, .freeBytes = uint64_t{8} << 30};
    const auto disk = [&](const std::function<void(Disk&)>& breakIt) {
        Disk broken = well;
        breakIt(broken);
        return report(checkDisk(root.path(), state, broken));
    };
    EXPECT_EQ(checkDisk(root.path(), std::nullopt, well).front().verdict, Verdict::kUnseen);
    EXPECT_THAT(disk([](Disk&) {}), HasSubstr("8192 MiB free"));
    EXPECT_THAT(disk([](Disk& one) { one.freeBytes = 100 << 20; }), HasSubstr("warn: disk"));
    EXPECT_THAT(disk([](Disk& one) { one.freeBytes = 1 << 20; }), HasSubstr("FAIL: disk"));
    EXPECT_THAT(disk([](Disk& one) { one.filesCounted = true; }), HasSubstr("no inode is free"));
    EXPECT_THAT(disk([](Disk& one) { one.readOnly = true; }), HasSubstr("read-only"));
    root.write("etc/passwd", "kestor-station:x:4294967290:1::/:/bin/false\n");
    EXPECT_THAT(disk([](Disk&) {}), HasSubstr("the station cannot write there"));

    EXPECT_EQ(checkClock({true, true}).verdict, Verdict::kOk);
    EXPECT_EQ(checkClock({true, false}).verdict, Verdict::kWarning);
    EXPECT_EQ(checkClock({}).verdict, Verdict::kUnseen);
}

}  // namespace
}  // namespace doctor
