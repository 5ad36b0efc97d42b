// kestor-station beside the real probe, while things come, go and break.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "support/harness.h"
#include "support/stationTool.h"
#include "support/streamBuilder.h"

namespace test {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

constexpr const char* kA = "239.1.1.1";
constexpr const char* kB = "239.1.1.2";
constexpr const char* kC = "239.1.1.3";
constexpr const char* kPlaylist = "/tmp/channels.m3u";
constexpr const char* kPipe = "/tmp/american_maid";

void write(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::trunc) << text;
}

std::string playlistEntry(const std::string& group, const std::string& name) {
    return "#EXTINF:-1," + name + "\nudp://@" + group + ":5000\n";
}

json channel(const std::string& group) {
    for (const json& one : kestorctlObjects({"channels"}))
        if (one.value("group", "") == group)
            return one;
    return json::object();
}

std::string state(const std::string& group) {
    return channel(group).value("state", "none");
}

// Ids of raised alarms of that type, of one group or of the probe ("").
std::vector<int64_t> raised(const std::string& type, const std::string& group) {
    std::vector<int64_t> ids;
    for (const json& alarm : kestorctlObjects({"alarms"}))
        if (alarm.value("alarm", "") == type &&
            (alarm["group"].is_null() ? "" : alarm.value("group", "")) == group)
            ids.push_back(alarm.value("id", int64_t{0}));
    return ids;
}

// How many events of the kind are stored, of one alarm type if it is named. They are shortly after it shows.
std::size_t events(const std::string& kind, const std::string& alarm = {}) {
    std::size_t count = 0;
    for (const json& event : kestorctlObjects({"events", "--limit", "1000"}))
        count += event.value("kind", "") == kind && (alarm.empty() || event["alarm"] == alarm) ? 1 : 0;
    return count;
}

struct Station {
    explicit Station(const std::string& configuration = "") {
        write("/tmp/station.toml", configuration);
        start();
    }
    void start() {
        process.emplace(std::vector<std::string>{"kestor-station", "--config", "/tmp/station.toml", "--state",
                                                 "/tmp/state", "--socket", "/tmp/station.sock"});
    }
    bool says(const std::string& text) const {
        return eventually([&] { return process->err().find(text) != std::string::npos; });
    }
    std::optional<Process> process;
};

const std::string kWatchPlaylist = std::string("[[playlist]]\nfile = \"") + kPlaylist + "\"\n";

}  // namespace

TEST(Station, WatchesAPlaylistAndRaisesWhatACutCableMeans) {
    write(kPlaylist, "#EXTM3U\n" + playlistEntry(kA, "News") + playlistEntry(kB, "Silent"));
    Station station(kWatchPlaylist);
    Process kestor({"kestor", "-s"});
    std::optional<std::jthread> traffic(liveTraffic(kA));
    EXPECT_TRUE(eventually([] { return state(kA) == "ok"; })) << station.process->err();
    EXPECT_EQ(channel(kA)["name"], "News");
    EXPECT_TRUE(eventually([] { return raised("no_signal", kB).size() == 1; }));

    traffic.reset();
    EXPECT_TRUE(eventually([] { return raised("no_signal", kA).size() == 1; }));
    EXPECT_EQ(state(kA), "alarm");
    const int64_t id = raised("no_signal", kA).front();
    EXPECT_EQ(kestorctl({"ack", std::to_string(id), "--remark", "on it"}).status, 0);

    // Not lost, not raised twice, and still acknowledged, when the station is killed.
    station.process->kill(SIGKILL);
    station.start();
    EXPECT_TRUE(eventually([&] { return raised("no_signal", kA) == std::vector{id}; }))
        << station.process->err();
    EXPECT_THAT(kestorctl({"alarms"}).out, AllOf(HasSubstr("News\n    no packets"),
                                                 HasSubstr("\n    acknowledged"), HasSubstr(": on it\n")));
    EXPECT_EQ(kestorctlObjects({"alarms"}).front()["acknowledged"].is_object() ||
                  kestorctlObjects({"alarms"}).back()["acknowledged"].is_object(),
              true);
    traffic.emplace(liveTraffic(kA));
    EXPECT_TRUE(eventually([] { return raised("no_signal", kA).empty(); }));
    EXPECT_TRUE(eventually([] { return events("cleared", "no_signal") == 1; }));
    EXPECT_EQ(events("raised", "no_signal"), 2U);
    EXPECT_EQ(events("acknowledged"), 1U);
    std::this_thread::sleep_for(3s);  // all is well

    const auto before = std::chrono::steady_clock::now();
    station.process->kill(SIGTERM);
    EXPECT_EQ(station.process->wait(), 0) << station.process->err();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 10s);

    // What it saw of all this is told by a report, and what it did not see is not called available.
    station.start();
    const std::vector<std::string> asked = {"report", "--since", "2026-01-01T00:00:00Z"};
    EXPECT_TRUE(eventually([&] { return kestorctl(asked).status == 0; }));
    const json report = kestorctlObjects(asked).at(0);
    const json news = report["channels"].at(0);
    const auto seconds = [&](const char* what) { return news.value(what, -1.0); };
    EXPECT_EQ(news["outages"], 1) << report;
    EXPECT_GT(seconds("outageSeconds"), 1) << report;
    EXPECT_LT(seconds("outageSeconds"), 100) << report;
    EXPECT_GT(seconds("availableSeconds"), 1) << report;
    EXPECT_LT(seconds("availableSeconds"), 100) << report;
    const json silent = report["channels"].at(1);
    EXPECT_NEAR(silent["availableSeconds"].get<double>() + silent["outageSeconds"].get<double>(),
                seconds("availableSeconds") + seconds("outageSeconds"), 0.01)
        << report;
    std::istringstream lines(kestorctl(asked).out);
    std::size_t widest = 0;
    for (std::string line; std::getline(lines, line);)
        widest = std::max(widest, line.size());
    EXPECT_GT(widest, 60U);
    EXPECT_LE(widest, 100U) << kestorctl(asked).out;
    std::vector<std::string> csv = asked;
    csv.emplace_back("--outages");
    EXPECT_THAT(kestorctl(csv).out, HasSubstr("\r\n\"239.1.1.1\",\"News\","));
}

TEST(Station, BringsTheListBackToAProbeThatWasKilled) {
    write(kPlaylist, playlistEntry(kA, "A") + playlistEntry(kB, "B"));
    Station station(kWatchPlaylist);
    std::optional<Process> kestor(std::vector<std::string>{"kestor", "-s"});
    const auto traffic = liveTraffic(kA);
    ASSERT_TRUE(eventually([] { return state(kA) == "ok" && igmpMember(kB); }));
    kestor->kill(SIGKILL);
    ASSERT_TRUE(eventually([] { return !igmpMember(kB); }));
    kestor.emplace(std::vector<std::string>{"kestor", "-s"});
    EXPECT_TRUE(eventually([] { return igmpMember(kA) && igmpMember(kB); }));
    EXPECT_TRUE(eventually([] { return state(kA) == "ok"; }));
    EXPECT_TRUE(eventually([] { return events("probe_restarted") == 1; })) << station.process->err();
    for (const char* type : {"continuity", "packets_lost", "pat", "pmt"})
        EXPECT_EQ(events("raised", type), 0U) << type;

    // One that stands still is reported and comes back with nothing lost.
    const std::size_t silences = events("raised", "probe_silent") + 1;
    kestor->kill(SIGSTOP);
    EXPECT_TRUE(eventually([] { return raised("probe_silent", "").size() == 1; }));
    EXPECT_NE(state(kA), "ok");
    // Nor does it come back by a restart of the station.
    EXPECT_TRUE(eventually([&] { return events("raised", "probe_silent") == silences; }));
    station.process->kill(SIGKILL);
    station.start();
    EXPECT_TRUE(eventually([] { return raised("probe_silent", "").size() == 1; }));
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(raised("probe_silent", "").size(), 1U);
    kestor->kill(SIGCONT);
    EXPECT_TRUE(eventually([] { return raised("probe_silent", "").empty() && state(kA) == "ok"; }));
    EXPECT_EQ(events("raised", "probe_silent"), silences);
    EXPECT_EQ(occurrences(kestor->out(), "Dodaje kanal: 239.1.1.1\n"), 1U);
}

TEST(Station, CountsOnWhileASecondProbeAsks) {
    write(kPlaylist, playlistEntry(kA, "A"));
    Station station(kWatchPlaylist);
    const Process kestor({"kestor", "-s"});
    // Every eleventh packet is missing.
    const std::jthread traffic([](const std::stop_token& stop) {
        const FrameSender network;
        UdpFlow flow{.group = kA};
        for (TsStream stream; !stop.stop_requested(); std::this_thread::sleep_for(100ms))
            network.send(flow, stream.payload(0x101, 10).lose(0x101, 1).takeDatagrams());
    });
    ASSERT_TRUE(eventually([] { return raised("packets_lost", kA).size() == 1; })) << station.process->err();
    std::optional<Process> others(std::vector<std::string>{"kestor", "-s", "-s"});
    EXPECT_TRUE(eventually([] { return raised("second_asker", "").size() == 1; })) << station.process->err();
    const std::size_t clears = events("cleared", "packets_lost");
    std::this_thread::sleep_for(12s);  // longer than the window of lost packets
    EXPECT_EQ(raised("packets_lost", kA).size(), 1U) << station.process->err();
    EXPECT_EQ(events("cleared", "packets_lost"), clears);
    EXPECT_EQ(events("raised", "second_asker"), 1U);
    EXPECT_EQ(events("probe_restarted"), 0U);
    EXPECT_EQ(occurrences(others->out(), "Dodaje kanal"), 0U);
    others.reset();
    EXPECT_TRUE(eventually([] { return raised("second_asker", "").empty(); }));
    EXPECT_EQ(events("probe_restarted"), 0U);
    EXPECT_EQ(kestorctlObjects({"status"})[0]["probe"]["restarts"], 0);
}

TEST(Station, WatchesOnWhenItsPortIsAnothers) {
    write(kPlaylist, playlistEntry(kA, "A"));
    Controller other;
    const Process kestor({"kestor", "-s"});
    other.answer(response({kA}));
    const auto traffic = liveTraffic(kA, true);
    const Station station(kWatchPlaylist);
    EXPECT_TRUE(eventually([] { return raised("probe_not_asking", "").size() == 1; }))
        << station.process->err();
    EXPECT_TRUE(station.says("another controller does"));
    EXPECT_TRUE(raised("probe_silent", "").empty());
    EXPECT_TRUE(eventually([] { return raised("pat", kA).size() == 1; })) << "what snapshots show is judged";
    const json probe = kestorctlObjects({"status"})[0]["probe"];
    EXPECT_EQ(probe["connected"], true);
    EXPECT_EQ(probe["asks"], false);
    EXPECT_THAT(probe["problem"].get<std::string>(), HasSubstr("did not ask"));
}

TEST(Station, GoesOnWhileNobodyReadsItsLog) {
    write("/tmp/station.toml", "");
    std::filesystem::remove("/tmp/log");
    ASSERT_EQ(mkfifo("/tmp/log", 0600), 0);
    const int log = open("/tmp/log", O_RDWR | O_CLOEXEC);  // a reader that never reads
    ASSERT_GE(log, 0);
    ASSERT_EQ(fcntl(log, F_SETPIPE_SZ, 4096), 4096);
    const auto program = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "kestor-station";
    Process station(
        {"sh", "-c",
         "exec " + program.string() +
             " --config /tmp/station.toml --state /tmp/state --socket /tmp/station.sock 2>/tmp/log"});
    ASSERT_TRUE(eventually([] { return kestorctl({"alarms"}).status == 0; }));
    const Process kestor({"kestor", "-s"});
    for (int i = 0; i < 200; ++i)  // a line each
        ASSERT_EQ(kestorctl({"clear"}).status, 0) << i;
    EXPECT_EQ(kestorctl({"add", kA}).status, 0);
    EXPECT_TRUE(eventually([] { return igmpMember(kA); }));
    EXPECT_TRUE(eventually([] { return kestorctlObjects({"status"})[0]["probe"]["connected"] == true; }));
    const auto before = std::chrono::steady_clock::now();
    station.kill(SIGTERM);
    EXPECT_EQ(station.wait(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 6s);
    close(log);
}

TEST(Station, WritesForPeopleOnATerminal) {
    write(kPlaylist, playlistEntry(kA, "A") + "http://nothing/here\n");
    write("/tmp/station.toml", kWatchPlaylist);
    const auto program = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "kestor-station";
    const std::string command = "echo $$ >/tmp/pid; exec " + program.string() +
                                " --config /tmp/station.toml --state /tmp/state --socket /tmp/station.sock";
    Process terminal({"script", "-qefc", command, "/tmp/typescript"});
    EXPECT_TRUE(terminal.waitForOut("serving "));
    EXPECT_THAT(terminal.out(),
                HasSubstr("warning: playlist /tmp/channels.m3u: read, 1 channel, 1 line skipped"));
    EXPECT_THAT(terminal.out(), Not(HasSubstr("<")));
    pid_t pid = 0;
    std::ifstream("/tmp/pid") >> pid;
    ASSERT_GT(pid, 1);
    kill(pid, SIGTERM);
    EXPECT_EQ(terminal.wait(), 0);
}

TEST(Station, TellsTheProbeOnlyWhatHasChanged) {
    write(kPlaylist, playlistEntry(kA, "A") + playlistEntry(kB, "B"));
    Station station(kWatchPlaylist);
    const Process kestor({"kestor", "-s"});
    ASSERT_TRUE(eventually([] { return igmpMember(kA) && igmpMember(kB); }));

    // A list that is cut short while it is written, or gone, keeps the last good one.
    const int file = open(kPlaylist, O_WRONLY | O_TRUNC);
    ASSERT_EQ(::write(file, "#EXTM3U\n#EXTINF:-1,A\n", 21), 21);
    std::this_thread::sleep_for(1500ms);
    EXPECT_TRUE(igmpMember(kA) && igmpMember(kB));
    close(file);
    std::filesystem::remove(kPlaylist);
    EXPECT_TRUE(station.says("last good list of 2 channels stays in force"));
    EXPECT_TRUE(igmpMember(kA) && igmpMember(kB));

    write("/tmp/new.m3u", playlistEntry(kA, "A renamed") + playlistEntry(kC, "C"));
    std::filesystem::rename("/tmp/new.m3u", kPlaylist);
    EXPECT_TRUE(eventually([] { return igmpMember(kC) && !igmpMember(kB); }));
    EXPECT_TRUE(eventually([] { return channel(kA).value("name", "") == "A renamed"; }));
    EXPECT_EQ(occurrences(kestor.out(), "Dodaje kanal: 239.1.1.1\n"), 1U);
    EXPECT_EQ(occurrences(kestor.out(), "clearIPChannel: "), 1U);

    // A configuration with a mistake is refused with its place, and the last one holds.
    write("/tmp/station.toml", kWatchPlaylist + "pasive = true\n");
    EXPECT_TRUE(station.says("station.toml:3"));
    EXPECT_TRUE(eventually([] { return events("configuration_refused") > 0; }));
    EXPECT_TRUE(igmpMember(kC));

    // A start at which the list is gone takes up the last good one.
    station.process->kill(SIGKILL);
    std::filesystem::remove(kPlaylist);
    write("/tmp/station.toml", kWatchPlaylist);
    station.start();
    EXPECT_TRUE(eventually([] { return channel(kA).value("name", "") == "A renamed"; }));
    EXPECT_TRUE(igmpMember(kA) && igmpMember(kC));
}

TEST(Station, IsWhatKestorctlSpeaksTo) {
    Station station;
    const Process kestor({"kestor", "-s"});
    EXPECT_TRUE(station.says("the probe asks"));
    EXPECT_EQ(kestorctl({"add", kA, kB}).out, "sent: add 239.1.1.1 239.1.1.2\n");
    EXPECT_TRUE(eventually([] { return igmpMember(kA) && igmpMember(kB) && capturing(); }));
    TsStream stream;
    stream.pat({{1, 0x100}}).pmt(1, 0x100, 0x101, {{0x1B, 0x101, psi::descriptor(0x28, {1, 2, 3, 4})}});
    UdpFlow flow{.group = kA};
    FrameSender().send(flow, stream.payload(0x101, 5).takeDatagrams());
    // Two may watch at a time.
    EXPECT_TRUE(eventually([] {
        return kestorctl({"watch", "--once"}).out.find("  KP   257 0x0101") != std::string::npos;
    }));
    Process first({"kestorctl", "watch", "--once", "--json"});
    Process second({"kestorctl", "watch", "--once", "--json"});
    EXPECT_EQ(first.wait(), 0);
    EXPECT_EQ(second.wait(), 0);
    for (const Process* one : {&first, &second})
        EXPECT_THAT(one->out(), AllOf(HasSubstr("\"pid\":257"), HasSubstr("\"descriptorTags\":[40]")));

    EXPECT_EQ(kestorctl({"clear"}).out, "sent: clear\n");
    EXPECT_TRUE(kestor.waitForOut("Dupa!!!!1\n"));
    EXPECT_EQ(kestorctl({"passive", "on"}).out, "sent: passive on\n");
    EXPECT_TRUE(kestor.waitForOut(" passive monitoring 1\n"));
    EXPECT_EQ(kestorctl({"remove", kB}).out, "sent: remove 239.1.1.2\n");
    EXPECT_TRUE(kestor.waitForOut("clearIPChannel: 239.1.1.2"));
    EXPECT_THAT(kestorctl({"scan", kA}).err, HasSubstr("systemctl stop kestor-station"));
    // As without a station, which cannot know what the probe watches.
    const ToolResult nothing = kestorctl({"remove", kC});
    EXPECT_EQ(nothing.status, 0);
    EXPECT_EQ(nothing.out, "");
    EXPECT_EQ(nothing.err, "kestorctl: no channel has the group 239.1.1.3, so there is nothing to remove\n");

    // What was added at run time outlives the station, and goes out as the playlist that it came in as.
    write("/tmp/import.m3u", "#EXTM3U\r#EXTGRP:News, World\r" + std::string(100'000, '#') +
                                 "\r#EXTINF:-1,Zw\xf6lf\rudp://@239.1.1.3:5000\rhttp://nothing/here\r");
    const ToolResult imported = kestorctl({"import", "/tmp/import.m3u"});
    EXPECT_EQ(imported.out, "imported: 1 added, 0 changed, 1 lines skipped\n");
    EXPECT_THAT(imported.err, HasSubstr("line 6"));
    station.process->kill(SIGKILL);
    station.start();
    EXPECT_TRUE(eventually([] { return channel(kC).value("name", "") == "Zw\u00f6lf"; }));
    EXPECT_EQ(channel(kC)["labels"]["group"], "News, World");
    EXPECT_THAT(kestorctl({"export"}).out, AllOf(HasSubstr("Zw\u00f6lf"), HasSubstr("udp://@239.1.1.3:5000"),
                                                 HasSubstr(kA), Not(HasSubstr(kB))));
    EXPECT_TRUE(eventually(
        [] { return kestorctl({"status"}).out.find("probe     connected") != std::string::npos; }));
}

TEST(Station, TakesMaintenanceWindowsFromKestorctl) {
    const Station station(
        "[[channel]]\ngroup = \"239.1.1.1\"\nlabels = { site = \"north\", floor = \"1\" }\n"
        "[[channel]]\ngroup = \"239.1.1.2\"\nlabels = { site = \"north\" }\n"
        "[[channel]]\ngroup = \"239.1.1.3\"\n");
    const auto windows = [] { return kestorctl({"maintenance"}).out; };
    EXPECT_TRUE(eventually([&] { return windows() == "no maintenance window\n"; }));
    const ToolResult one = kestorctl(
        {"maintenance", "add", kC, "239.9.9.9", "--for", "2h", "--remark", "new switch", "--by", "eve"});
    EXPECT_EQ(one.status, 1) << "the second is no channel";
    EXPECT_THAT(one.out, AllOf(HasSubstr("maintenance "), HasSubstr(": 239.1.1.3, from ")));
    EXPECT_THAT(one.err, HasSubstr("239.9.9.9: no channel has the group"));
    EXPECT_EQ(kestorctl({"maintenance", "add", "--label", "site=north", "--from", "2090-01-01T22:00:00Z",
                         "--until", "2090-01-02T00:00:00+01:00"})
                  .status,
              0);
    EXPECT_THAT(windows(),
                AllOf(HasSubstr("site=north (2 channels)  2090-01-01 22:00:00  2090-01-01 23:00:00  planned"),
                      HasSubstr("active   eve  new switch")));
    EXPECT_TRUE(eventually([] { return channel(kC).value("maintenance", false); }));
    EXPECT_FALSE(channel(kA).value("maintenance", true));
    EXPECT_EQ(kestorctl({"maintenance", "add", "--label", "site=south", "--for", "1h"}).status, 1);
    EXPECT_EQ(kestorctl({"maintenance", "add", "--all", "--for", "1h"}).status, 0);
    EXPECT_THAT(windows(), HasSubstr("all channels"));

    EXPECT_EQ(kestorctl({"maintenance", "end", "--label", "site=north", "--label", "floor=1"}).status, 1)
        << "the window is for more channels";
    EXPECT_THAT(kestorctl({"maintenance", "end", "--label", "site=north"}).out,
                HasSubstr(", site=north (2 channels)\n"));
    EXPECT_THAT(windows(), Not(HasSubstr("site=north")));
    EXPECT_EQ(kestorctl({"maintenance", "remove", kC}).status, 0);
    const ToolResult again = kestorctl({"maintenance", "end", kC, "1"});
    EXPECT_EQ(again.status, 1);
    EXPECT_THAT(again.err, AllOf(HasSubstr("no maintenance window of 239.1.1.3"),
                                 HasSubstr("no maintenance window 1\n")));
    EXPECT_EQ(kestorctl({"maintenance", "end", "--all"}).status, 0);
    EXPECT_TRUE(eventually([&] { return windows() == "no maintenance window\n"; }));
    EXPECT_EQ(kestorctl({"maintenance", "end", "--all"}).status, 1);
}

TEST(Station, WorksWithWhatItFinds) {
    // Another controller holds the port, and the pipe's place is taken by a file.
    write(kPipe, "239.1.1.1;0\n");
    std::optional<Controller> other(std::in_place);
    const Station station("[[channel]]\ngroup = \"239.1.1.1\"\n");
    EXPECT_TRUE(station.says("another controller"));
    EXPECT_TRUE(station.says("is not a pipe"));
    EXPECT_EQ(state(kA), "waiting");
    EXPECT_EQ(occurrences(station.process->err(), "another controller does; tried again"), 1U);
    other.reset();
    std::filesystem::remove(kPipe);
    const auto traffic = liveTraffic(kA);
    std::optional<Process> kestor(std::vector<std::string>{"kestor", "-s"});
    EXPECT_TRUE(eventually([] { return state(kA) == "ok"; })) << station.process->err();

    // The pipe is made anew, by hand and by the next probe.
    kestor->kill(SIGKILL);
    std::filesystem::remove(kPipe);
    ASSERT_EQ(mkfifo(kPipe, 0600), 0);
    kestor.emplace(std::vector<std::string>{"kestor", "-s"});
    EXPECT_TRUE(eventually(
        [] { return kestorctlObjects({"status"})[0]["probe"]["connected"] == true && state(kA) == "ok"; }));

    // Lines that are no records, from a second writer, are dropped.
    std::ofstream(kPipe) << "nonsense\n239.1.1.1;0;-1;-1;1\n";
    EXPECT_TRUE(eventually([] { return kestorctlObjects({"status"})[0]["probe"]["droppedLines"] >= 1; }));
    EXPECT_TRUE(eventually([] { return state(kA) == "ok"; }));
}

TEST(Station, TakesUpWhatCanBeReadLater) {
    // channels.json cannot be read, and the share of the playlist is not mounted yet.
    std::filesystem::create_directories("/tmp/state/channels.json");
    std::filesystem::create_directories("/tmp/share");
    std::filesystem::create_directories("/tmp/real");
    write("/tmp/real/list.m3u", playlistEntry(kA, "A"));
    const Station station("[[playlist]]\nfile = \"/tmp/share/list.m3u\"\n");
    EXPECT_TRUE(station.says("channels.json is no regular file"));
    EXPECT_TRUE(eventually([] {
        return kestorctl({"add", kB}).err.find("until the channels of the run time can be read") !=
               std::string::npos;
    }));
    std::filesystem::remove("/tmp/state/channels.json");
    EXPECT_TRUE(eventually([] { return kestorctl({"add", kB}).status == 0; }));
    EXPECT_TRUE(std::filesystem::is_regular_file("/tmp/state/channels.json"));
    ASSERT_EQ(mount("/tmp/real", "/tmp/share", nullptr, MS_BIND, nullptr), 0);
    EXPECT_TRUE(eventually([] { return channel(kA).value("origin", "") == "playlist"; }));
    umount("/tmp/share");
}

// A pipe that nobody reads takes the place of a disk that hangs: who opens it to write waits for ever.
TEST(Station, EndsWhileItsDiskHangs) {
    std::filesystem::create_directories("/tmp/state");
    ASSERT_EQ(mkfifo("/tmp/state/channels.json.new", 0600), 0);
    Station station;
    ASSERT_TRUE(station.says("serving"));
    Process add({"kestorctl", "add", kA});
    EXPECT_TRUE(eventually([] { return channel(kA).value("origin", "") == "runtime"; }));
    const auto asked = std::chrono::steady_clock::now();
    station.process->kill(SIGTERM);
    EXPECT_EQ(station.process->wait(), 0) << station.process->err();
    EXPECT_LT(std::chrono::steady_clock::now() - asked, 6s)
        << "2 s are promised where the machine is not busy";
    EXPECT_THAT(station.process->err(), HasSubstr("hangs: the "));
    EXPECT_EQ(
        std::filesystem::status("/tmp/state/events.db").permissions() & std::filesystem::perms::others_all,
        std::filesystem::perms::none);
    EXPECT_NE(add.wait(), 0) << "what is not stored is not answered so";
}

TEST(Station, ChangesAThousandChannelsAtOnce) {
    const auto list = [](int net, const std::string& name) {
        std::string text = "#EXTM3U\n";
        for (int i = 0; i < 1000; ++i)
            text += playlistEntry("239." + std::to_string(net) + "." + std::to_string(i / 250) + "." +
                                      std::to_string(1 + i % 250),
                                  name + std::to_string(i));
        return text;
    };
    write(kPlaylist, list(1, "first "));
    // A thousand channels without a signal would push the changes out of the last thousand events.
    const Station station("[profile.default]\nno_signal = { enabled = false }\n" + kWatchPlaylist);
    const Process kestor({"kestor", "-s"});
    EXPECT_TRUE(eventually([] { return igmpMember("239.1.3.250"); }));
    EXPECT_TRUE(eventually([] { return kestorctlObjects({"status"})[0]["channels"]["watched"] == 1000; }));
    write("/tmp/new.m3u", list(1, "second "));
    std::filesystem::rename("/tmp/new.m3u", kPlaylist);
    EXPECT_TRUE(eventually([] { return channel("239.1.3.250").value("name", "") == "second 999"; }));
    EXPECT_TRUE(eventually([] { return events("channel_changed") >= 990; })) << "of the last thousand events";
    EXPECT_EQ(occurrences(kestor.out(), "Dodaje kanal: "), 1000U) << "renaming is not the probe's business";
}

}  // namespace test
