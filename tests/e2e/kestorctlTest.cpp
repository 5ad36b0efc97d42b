// kestorctl, as an operator uses it, with the real probe.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/harness.h"
#include "support/stationTool.h"
#include "support/streamBuilder.h"

namespace test {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* kA = "239.1.1.1";
constexpr const char* kB = "239.1.1.2";

TEST(Kestorctl, SaysOneThingToTheProbe) {
    const Process kestor({"kestor", "-s"});
    const ToolResult added = kestorctl({"add", kA, kB});
    EXPECT_EQ(added.status, 0) << added.err;
    EXPECT_THAT(added.out, testing::AllOf(HasSubstr(kA), HasSubstr(kB)));
    EXPECT_TRUE(eventually([] { return igmpMember(kA) && igmpMember(kB); }));
    EXPECT_EQ(kestorctl({"remove", kB}).status, 0);
    EXPECT_TRUE(eventually([] { return igmpMember(kA) && !igmpMember(kB); }));
    EXPECT_EQ(kestorctl({"clear"}).status, 0);
    EXPECT_TRUE(kestor.waitForOut("Dupa!!!!1\n"));
    EXPECT_EQ(kestorctl({"passive", "on"}).status, 0);
    EXPECT_TRUE(kestor.waitForOut(" passive monitoring 1\n"));
    EXPECT_EQ(kestorctl({"passive", "off"}).status, 0);
    EXPECT_EQ(kestorctl({"igmp-latency", "50"}).status, 0);
    EXPECT_TRUE(kestor.waitForOut("analyzeResponseMessage\n", 5));
}

TEST(Kestorctl, RefusesWhatMakesNoSense) {
    const Process kestor({"kestor", "-s"});
    std::vector<std::vector<std::string>> cases = {{"add", "10.0.0.1"},
                                                   {"add", kA, "240.0.0.1"},
                                                   {"remove", "239.1.1"},
                                                   {"remove", "channel"},
                                                   {"add"},
                                                   {"scan", "1.2.3.4"},
                                                   {"passive", "perhaps"},
                                                   {"igmp-latency", "x"},
                                                   {"nonsense"},
                                                   {},
                                                   {"ack", "0"},
                                                   {"ack", "x"},
                                                   {"ack", "99999999999999999999"},
                                                   {"--timeout", "nan", "status"}};
    const std::vector<std::vector<std::string>> windows = {
        {"add", "--for", "1h"},
        {"add", "--all", kA, "--for", "1h"},
        {"add", "--all"},
        {"add", "--all", "--for", "1h", "--until", "22:00"},
        {"add", "--all", "--for", "2 hours"},
        {"add", "--all", "--until", "2020-01-01 22:00"},
        {"add", "--label", "site", "--for", "1h"},
        {"add", "--label", "site=north", "--label", "site=south", "--for", "1h"},
        {"end"},
        {"end", "-1"},
        {"lst"}};
    for (auto arguments : windows) {
        arguments.insert(arguments.begin(), "maintenance");
        cases.push_back(std::move(arguments));
    }
    for (const auto& arguments : cases) {
        const ToolResult result = kestorctl(arguments);
        EXPECT_EQ(result.status, 2) << testing::PrintToString(arguments);
        EXPECT_NE(result.err, "");
    }
    EXPECT_THAT(kestorctl({"nonsense"}).err, HasSubstr("\"nonsense\" is not a command"));
    EXPECT_THAT(kestorctl({"statsu"}).err, HasSubstr("did you mean \"status\"?"));
    EXPECT_THAT(kestorctl({"channels", "--jsno"}).err, HasSubstr("did you mean \"--json\"?"));
    // A check's status 2 is that of a failure.
    EXPECT_EQ(kestorctl({"doctor", "--jsno"}).status, 3);
    EXPECT_EQ(kestorctl({"--timeout", "nan", "doctor"}).status, 3);
    EXPECT_THAT(kestorctl({"maintenance", "lst"}).err, HasSubstr("did you mean \"list\"?"));
    EXPECT_THAT(kestorctl({"ack", "0"}).err, HasSubstr("0 is not the ID of an alarm"));
    EXPECT_TRUE(kestor.waitForOut(" passive monitoring 0\n", 3));
    EXPECT_THAT(kestor.out(), Not(HasSubstr("analyzeResponseMessage")));
}

TEST(Kestorctl, WatchesTheRecords) {
    const Process kestor({"kestor", "-s"});
    ASSERT_EQ(kestorctl({"add", kA, kB}).status, 0);
    ASSERT_TRUE(kestor.waitForOut("listening on"));
    ASSERT_TRUE(eventually(capturing));
    ASSERT_TRUE(eventually([] { return igmpMember(kB); }));
    TsStream stream;
    stream.pat({{1, 0x100}}).pmt(1, 0x100, 0x101, {{0x1B, 0x101, psi::descriptor(0x28, {1, 2, 3, 4})}});
    UdpFlow flow{.group = kA};
    FrameSender().send(flow, stream.payload(0x101, 5).takeDatagrams());
    snapshotWithPackets(kA, 7);

    EXPECT_THAT(kestorctl({"watch", "--once"}).out,
                testing::AllOf(HasSubstr(kA), HasSubstr(kB), HasSubstr("257")));
    std::istringstream objects(kestorctl({"watch", "--once", "--json"}).out);
    const Snapshot snapshot = nextSnapshot();
    ASSERT_EQ(snapshot.records.size(), 5U);
    for (const Record& record : snapshot.records) {
        nlohmann::json object;
        objects >> object;
        EXPECT_EQ(object.at("group"), record["group"]);
        for (const char* name : {"pid", "packetsReceived", "hasExtraHeader", "PAT_error", "sourceAddress"})
            EXPECT_EQ(object.at(name).dump(), record[name]) << name;
        if (record["pid"] == "257") {
            EXPECT_EQ(object.at("descriptorTags").dump(), "[40]");
        }
    }
    EXPECT_TRUE((objects >> std::ws).eof());
}

TEST(Kestorctl, ScansAndReports) {
    const Process kestor({"kestor", "-c"});
    const auto traffic = liveTraffic(kA);
    // A group without traffic for 150 times 15 ms is silent.
    const ToolResult scan = kestorctl({"scan", kA, kB, "--igmp-latency", "15", "--json"});
    EXPECT_EQ(scan.status, 0) << scan.err;
    EXPECT_EQ(scan.out,
              "{\"group\":\"239.1.1.1\",\"status\":1,\"available\":true}\n"
              "{\"group\":\"239.1.1.2\",\"status\":0,\"available\":false}\n");
}

// The verdict of kestorctl doctor on a subject; the first one where there are several.
std::string verdict(const std::string& subject) {
    for (const nlohmann::json& finding : kestorctlObjects({"doctor"}))
        if (finding.value("subject", "") == subject)
            return finding.value("verdict", "");
    return "none";
}

TEST(Kestorctl, DoctorFindsWhatKeepsTheProbe) {
    const ToolResult nothing = kestorctl({"doctor"});
    EXPECT_EQ(nothing.status, 2);
    EXPECT_THAT(nothing.out, testing::AllOf(HasSubstr("FAIL  services"), HasSubstr("FAIL  socket")));
    EXPECT_EQ(verdict("interface"), "ok");

    const Process station(stationCommand("[[channel]]\ngroup = \"239.1.1.1\"\n"));
    EXPECT_TRUE(eventually([] { return kestorctl({"status"}).status == 3; })) << "nothing comes from a probe";
    Process kestor({"kestor", "-s"});
    EXPECT_TRUE(eventually([] { return kestorctl({"status"}).status == 0; }));
    EXPECT_TRUE(eventually([] { return verdict("memberships") == "ok" && verdict("port") == "ok"; }));
    for (const char* subject : {"services", "interface", "route", "pipe", "socket", "user"})
        EXPECT_EQ(verdict(subject), "ok") << subject << "\n" << kestorctl({"doctor"}).out;
    EXPECT_EQ(verdict("results"), "warning") << "there is no signal";

    EXPECT_EQ(Process({"ip", "route", "delete", "224.0.0.0/4"}).wait(), 0);
    EXPECT_EQ(verdict("route"), "failure");
    EXPECT_EQ(Process({"ip", "link", "set", "feed0", "down"}).wait(), 0);
    EXPECT_THAT(kestorctl({"doctor"}).out, HasSubstr("FAIL  interface    eth0 has no link"));
    EXPECT_EQ(Process({"ip", "link", "set", "eth0", "down"}).wait(), 0);
    EXPECT_THAT(kestorctl({"doctor"}).out, HasSubstr("the interface eth0 is down"));
    EXPECT_EQ(Process({"ip", "link", "set", "eth0", "name", "lan0"}).wait(), 0);
    EXPECT_THAT(kestorctl({"doctor"}).out, HasSubstr("no interface whose name contains eth0: feed0, lan0"));
    kestor.kill(SIGKILL);
    EXPECT_TRUE(eventually([] {
        const ToolResult status = kestorctl({"status"});
        return status.status == 3 &&
               status.out.find("no interface whose name contains eth0: feed0, lan0") != std::string::npos;
    })) << kestorctl({"status"}).out;
}

TEST(Kestorctl, GivesUpWithoutAProbeOrAPort) {
    Process kestor({"kestor", "-c"});
    ASSERT_TRUE(kestor.waitForOut("except_reply == 1\n"));  // it asks
    Process tool({"kestorctl", "--timeout", "4", "scan", kA});
    ASSERT_TRUE(kestor.waitForOut("Zaczynam watek"));
    kestor.kill(SIGKILL);
    EXPECT_EQ(tool.wait(), 1);
    EXPECT_EQ(kestorctl({"--timeout", "1", "add", kA}).status, 1);
    const Controller controller;
    EXPECT_EQ(kestorctl({"--timeout", "60", "add", kA}).status, 1) << "it waits for no request";
}

}  // namespace
}  // namespace test
