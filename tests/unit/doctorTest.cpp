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
              "Package: kestor\nStatus: install ok installed\nVersion: 1.1.0\n\n"
              "Package: kestor-old\nStatus: install ok installed\nVersion: 0.9\n\n");
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
    void enable(const std::string& service) const {
        const auto link = path() / "etc/systemd/system/kestor.target.wants" / (service + ".service");
        fs::create_directories(link.parent_path());
        fs::create_symlink("/lib/systemd/system/" + service + ".service", link);
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

TEST(Doctor, JudgesWhatItReads) {
    struct Case {
        const char* what;
        std::function<void(const Root&, StationLook&)> breakIt;
        int status;
        const char* says;
    };
    using Reach = StationLook::Reach;
    const std::vector<Case> cases = {
        {"nothing", [](auto&, auto&) {}, 0, "all is well"},
        {"the probe is gone", [](auto& root, auto&) { root.remove("proc/20"); }, 2, "kestor does not run"},
        {"it waits for a card", [](auto& root, auto&) { root.process(20, "kestor-start"); }, 2,
         "waits for a card"},
        {"the guard is gone", [](auto& root, auto&) { root.remove("proc/22"); }, 2,
         "kestor-guard does not run"},
        {"no guard is installed",
         [](auto& root, auto&) {
             root.remove("proc/22");
             root.remove("usr/libexec");
         },
         0, "kestor and kestor-station run"},
        {"the meter is gone", [](auto& root, auto&) { root.enable("kestor-meter"); }, 1,
         "warn  services     kestor-meter does not run"},
        {"the meter is connected",
         [](auto& root, StationLook& look) {
             root.process(23, "kestor-meter");
             look.meter = {.connected = true, .groups = 2, .reported = 1};
         },
         0, "kestor-meter is connected, and reports 1 of 2 groups"},
        {"the meter is not connected",
         [](auto& root, StationLook& look) {
             root.process(23, "kestor-meter");
             look.meter = {.problem = "it was refused"};
         },
         1, "not connected to the station: it was refused"},
        {"the meter captures nothing",
         [](auto& root, StationLook& look) {
             root.process(23, "kestor-meter");
             look.meter = {.connected = true, .problem = "eth0 is down"};
         },
         1, "warn  meter        eth0 is down"},
        {"the station waits for no meter", [](auto& root, auto&) { root.process(23, "kestor-meter"); }, 1,
         "the station waits for none"},
        {"meter and pictures are gone",
         [](auto& root, auto&) {
             root.enable("kestor-meter");
             root.enable("kestor-picture");
         },
         1, "systemctl start kestor-meter kestor-picture;"},
        {"pictures are gone", [](auto& root, auto&) { root.enable("kestor-picture"); }, 1,
         "kestor-picture does not run: frozen, black and silent channels are not found"},
        {"the probe is gone too",
         [](auto& root, auto&) {
             root.enable("kestor-picture");
             root.remove("proc/20");
         },
         2, "kestor and kestor-picture do not run"},
        {"pictures are not installed", [](auto&, auto&) {}, 0,
         "ok    pictures     none are taken: kestor-picture is not"},
        {"pictures are not wanted", [](auto& root, auto&) { root.write("usr/sbin/kestor-picture", ""); }, 0,
         "the service of kestor-picture is disabled"},
        {"pictures come",
         [](auto&, StationLook& look) {
             look.pictures = {
                 .connected = true, .meter = true, .held = 2, .taken = 9, .failed = 1, .seconds = 10};
         },
         0, "kestor-picture is connected, and has shown 2 channels, a new one every 10 s"},
        {"the station waits for no pictures", [](auto& root, auto&) { root.process(24, "kestor-picture"); },
         1, "warn  pictures     kestor-picture runs, and the station waits for none"},
        {"pictures of another version",
         [](auto& root, StationLook& look) {
             root.process(24, "kestor-picture");
             look.pictures = {.problem = "it speaks version 2"};
         },
         1, "is not connected to the station: it speaks version 2"},
        {"pictures hang",
         [](auto&, StationLook& look) { look.pictures = {.connected = true, .silent = true}; }, 1,
         "kestor-picture is connected, and tells nothing"},
        {"pictures without a meter",
         [](auto&, StationLook& look) {
             look.pictures = {.connected = true, .problem = "no meter is connected"};
         },
         1, "kestor-picture gets no packets: no meter is connected"},
        {"no share for pictures",
         [](auto&, StationLook& look) {
             look.pictures = {.connected = true, .meter = true, .problem = "cores = 0"};
         },
         1, "warn  pictures     cores = 0"},
        {"no turn has a picture",
         [](auto&, StationLook& look) { look.pictures = {.connected = true, .meter = true, .failed = 7}; }, 1,
         "no picture has come of 7 turns"},
        {"decoders die",
         [](auto&, StationLook& look) {
             look.pictures = {.connected = true, .meter = true, .held = 1, .taken = 4, .leftOut = 1};
         },
         1, "1 channel is left out for an hour: it killed three decoders"},
        {"two probes", [](auto& root, auto&) { root.process(30, "kestor"); }, 2, "processes 20 and 30"},
        {"processes are hidden",
         [](auto& root, auto&) {
             root.remove("proc/1");
             root.remove("proc/20");
         },
         0, "--    services"},
        {"no pipe", [](auto& root, auto&) { root.remove("tmp/american_maid"); }, 2,
         "there is no /tmp/american_maid"},
        {"a file in the pipe's place",
         [](auto& root, auto&) {
             root.remove("tmp/american_maid");
             root.write("tmp/american_maid", "");
         },
         2, "is no pipe"},
        {"nobody listens", [](auto& root, auto&) { root.write("proc/self/net/tcp", kAsked); }, 2,
         "nobody listens on"},
        {"another program listens",
         [](auto& root, auto&) {
             root.process(50, "python3");
             fs::create_directories(root.path() / "proc/50/fd");
             fs::create_symlink("socket:[4711]", root.path() / "proc/50/fd/3");
         },
         2, "python3 (process 50)"},
        {"another user listens", [](auto& root, auto&) { root.remove("proc/21"); }, 2, "one of "},
        {"no probe asks", [](auto& root, auto&) { root.write("proc/self/net/tcp", kListener); }, 2,
         "no probe asks although"},
        {"a torn list of connections",
         [](auto& root, auto&) {
             root.write("proc/self/net/tcp", "x\n\n  0: zz:yy :\n   0: 0100007F:176F 0 0A 0 0 0 0\n");
         },
         2, "nobody listens"},
        {"too few memberships for the channels",
         [](auto& root, auto&) { root.write("proc/sys/net/ipv4/igmp_max_memberships", "1\n"); }, 2,
         "the rest is not joined"},
        {"fewer memberships than the package's",
         [](auto& root, auto&) { root.write("proc/sys/net/ipv4/igmp_max_memberships", "20\n"); }, 1,
         "igmp_max_memberships is 20, below 2000"},
        {"a limit is hidden", [](auto& root, auto&) { root.remove("proc/sys/net/core/rmem_max"); }, 0,
         "net.core.rmem_max cannot be read"},
        {"nobody at the socket", [](auto&, StationLook& look) { look = {.socket = "/s"}; }, 2,
         "no station listens at /s"},
        {"a forbidden socket",
         [](auto&, StationLook& look) { look = {.reach = Reach::kForbidden, .socket = "/s"}; }, 1,
         "may not talk"},
        {"a station that hangs",
         [](auto&, StationLook& look) {
             look = {.reach = Reach::kSilent, .socket = "/s", .silence = "timeout"};
         },
         2, "does not answer at /s: timeout"},
        {"no results",
         [](auto&, StationLook& look) {
             look.connected = false;
             look.problem = "the probe scans";
         },
         2, "FAIL  results      the probe scans"},
        {"no signal", [](auto&, StationLook& look) { look.withSignal = 0; }, 1,
         "2 channels watched, 0 with signal"},
        {"no channels", [](auto&, StationLook& look) { look.groups.clear(); }, 1, "no channels"},
        {"notes", [](auto&, StationLook& look) { look.notes = 3; }, 1, "3 notes"},
        {"an older station runs", [](auto&, StationLook& look) { look.version = "1.0"; }, 1,
         "the station that runs is 1.0"},
        {"packages of two versions",
         [](auto& root, auto&) {
             root.write("var/lib/dpkg/status",
                        "Package: kestor\nStatus: install ok installed\nVersion: 1.1.0\n\n"
                        "Package: kestor-station\nStatus: install ok installed\nVersion: 1.0\n\n");
         },
         1, "the package kestor-station is 1.0"},
        {"one that was removed counts for nothing",
         [](auto& root, auto&) {
             root.write("var/lib/dpkg/status",
                        "Package: kestor-station\nStatus: deinstall ok config-files\nVersion: 1.0\n\n");
         },
         0, "1.1.0 everywhere"},
        {"a program was replaced",
         [](auto& root, auto&) {
             fs::create_symlink("/usr/sbin/kestor (deleted)", root.path() / "proc/20/exe");
         },
         1, "kestor still runs as it was"},
        {"nothing is installed",
         [](const Root& root, StationLook& look) {
             for (const char* path : {"proc/20", "proc/21", "proc/22", "usr", "etc", "var", "tmp"}) {
                 root.remove(path);
             }
             root.write("proc/self/net/tcp", "");
             look = {};
         },
         2, "FAIL: services, pipe, port, socket"},
        {"nothing can be read",
         [](const Root& root, StationLook& look) {
             root.remove("proc");
             look = {};
         },
         2, "FAIL: socket"},
    };
    for (const Case& one : cases) {
        const Root root;
        StationLook look = wellStation();
        one.breakIt(root, look);
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

    root.write("proc/40/comm", "kestor-meter\n");
    fs::create_directories(root.path() / "proc/40/fd");
    fs::create_symlink("socket:[83211]", root.path() / "proc/40/fd/5");
    fs::create_symlink("anon_inode:[eventpoll]", root.path() / "proc/40/fd/6");
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
    fs::create_symlink("/srv", root.path() / "proc/21/cwd");
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
