// kestor-station on a machine with two cards: groups joined by the wrong one, and a card without a link.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>

#include "support/harness.h"
#include "support/stationTool.h"

namespace test {
namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* kA = "239.1.1.1";
constexpr const char* kB = "239.1.1.2";
constexpr std::chrono::milliseconds kLong = 40s;  // delays of alarms, and of joining again

void ip(const std::string& command) {
    ASSERT_EQ(std::system(("ip " + command).c_str()), 0) << command;
}

std::string problem(const char* member) {
    const json status = kestorctlObject({"status"});
    return status.contains("machine") ? status["machine"].value(member, json()).dump() : "no status";
}

bool raised(const std::string& type) {
    return kestorctl({"alarms"}).out.find(" " + type + " ") != std::string::npos;
}

bool memberOn(const std::string& interface, const std::string& group) {
    std::array<char, 16> address{};
    std::snprintf(address.data(), address.size(), "%08X ", inet_addr(group.c_str()));
    std::ifstream file("/proc/net/igmp");
    bool there = false;
    for (std::string line; std::getline(file, line);) {
        if (line.front() != '\t')
            there = line.find("\t" + interface + " ") != std::string::npos;
        else if (there && line.find(address.data()) != std::string::npos)
            return true;
    }
    return false;
}

}  // namespace

TEST(StationMachine, HasGroupsOfTheWrongCardJoinedAgainOnceTheRouteIsRight) {
    ip("link add mgmt0 type veth peer name mgmt1");
    ip("address add 192.168.7.2/24 dev mgmt0");
    ip("link set mgmt0 up");
    ip("link set mgmt1 up");
    ip("route del 224.0.0.0/4 dev eth0");
    ip("route add default via 192.168.7.1");
    std::ofstream("/tmp/channels.m3u") << "udp://@" << kA << ":5000\nudp://@" << kB << ":5000\n";
    const Process station(stationCommand("[[playlist]]\nfile = \"/tmp/channels.m3u\"\n"));
    const Process kestor({"kestor", "-s"});
    ASSERT_TRUE(eventually([] { return raised("not_joined"); }, kLong)) << station.err();
    EXPECT_TRUE(memberOn("mgmt0", kA) && !memberOn("eth0", kA));
    EXPECT_THAT(problem("joinProblem"),
                AllOf(HasSubstr("239.1.1.1 and 1 more are joined on mgmt0, not on eth0"),
                      HasSubstr("ip route replace 224.0.0.0/4 dev eth0")));
    EXPECT_THAT(kestorctlObject({"status"})["probe"]["machineProblem"].dump(), HasSubstr("joined on mgmt0"));
    EXPECT_THAT(kestorctl({"status"}).out, HasSubstr("joined on mgmt0, not on eth0"));

    ip("route replace 224.0.0.0/4 dev eth0");
    EXPECT_TRUE(eventually([] { return memberOn("eth0", kA) && memberOn("eth0", kB); }, kLong))
        << station.err();
    std::optional<std::jthread> traffic(liveTraffic(kA));
    EXPECT_TRUE(eventually([] { return !raised("not_joined"); }, kLong)) << station.err();
    EXPECT_EQ(problem("joinProblem"), "null");
    EXPECT_THAT(problem("doubled"), HasSubstr("2 groups are still joined on mgmt0 as well"));
    json probe;
    EXPECT_TRUE(eventually([&] {
        probe = kestorctlObject({"status"});
        return probe["channels"]["withSignal"] == 1;
    })) << probe;
    EXPECT_EQ(probe["probe"]["restarts"], 0);
    EXPECT_EQ(probe["machine"]["rejoins"], 1) << "and not again and again";
    EXPECT_EQ(probe["machine"]["interface"]["name"], "eth0");

    // The other end of the cable.
    traffic.reset();
    ip("link set feed0 down");
    EXPECT_TRUE(eventually([] { return raised("link_down"); }, kLong)) << station.err();
    EXPECT_THAT(problem("linkProblem"), HasSubstr("eth0 has no carrier"));
    ip("link set feed0 up");
    EXPECT_TRUE(eventually([] { return !raised("link_down"); }, kLong)) << station.err();
    EXPECT_THAT(station.err(), AllOf(HasSubstr("not_joined raised: 239.1.1.1 and 1 more are joined on mgmt0"),
                                     HasSubstr("not_joined cleared"), HasSubstr("link_down raised"),
                                     HasSubstr("told to join 2 groups again")));
}

}  // namespace test
