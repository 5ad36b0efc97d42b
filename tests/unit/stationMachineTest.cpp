// What the machine says of itself: memberships, who captures where, and which interface is the probe's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

#include <cerrno>

#include "machine/machineReader.h"
#include "support/inScratch.h"

using namespace station;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class MachineFiles : public InScratch {
  protected:
    MachineFiles() {
        for (const char* const part : {"self/net", "sys/net/ipv4"}) {
            std::filesystem::create_directories(proc / part);
        }
    }
    const std::filesystem::path& proc = directory;
};

TEST_F(MachineFiles, TellsMembershipsOfEachInterface) {
    write("self/net/igmp",
          "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
          "1\tlo        :     1      V3\n"
          "\t\t\t\t010000E0     1 0:00000000\t\t0\n"
          "12\tenp0s31f6np0s12:     3      V3\n"
          "\t\t\t\t020101EF     1 0:00000000\t\t1\n"
          "\t\t\t\t010101EF     1 0:00000000\t\t1\n"
          "\t\t\t\tnonsense     1 0:00000000\t\t1\n"
          "\t\t\t\t010000E0     1 0:00000000\t\t0\n"
          "13\teth0      :     2      V2\n"
          "\t\t\t\t010101EF     2 0:00000000\t\t1\n"
          "\t\t\t\t010000E0     1 0:0000");  // cut
    const Memberships memberships = readMemberships(proc);
    EXPECT_TRUE(memberships.known);
    EXPECT_THAT(memberships.where(0xEF010101), ElementsAre("enp0s31f6np0s12", "eth0"));
    EXPECT_THAT(memberships.where(0xEF010102), ElementsAre("enp0s31f6np0s12"));
    EXPECT_THAT(memberships.where(0xE0000001), IsEmpty()) << "of all hosts, which nobody joins";
    EXPECT_TRUE(memberships.joined("eth0", 0xEF010101));
    EXPECT_FALSE(memberships.joined("eth0", 0xEF010102));
    EXPECT_FALSE(memberships.joined("eth1", 0xEF010101));
    EXPECT_TRUE(memberships.joined("eth0", 0xE0000001)) << "every interface is a member of 224.0.0.1";
}

TEST_F(MachineFiles, WhatCannotBeReadIsNotTakenForNothing) {
    EXPECT_FALSE(readMemberships(proc).known);
    EXPECT_FALSE(readSoftnet(proc));
    EXPECT_FALSE(readMembershipLimit(proc));
    EXPECT_THAT(readCaptured(proc), IsEmpty());
}

TEST_F(MachineFiles, AddsUpProcessorsAndFindsCaptures) {
    write("self/net/softnet_stat",
          "002e7962 00000001 0000000a 00000000\n"
          "ffffffff fffffffe 00000001 00000000\n");
    const auto softnet = readSoftnet(proc);
    ASSERT_TRUE(softnet);
    EXPECT_EQ(softnet->processed, uint64_t{0x2e7962} + 0xffffffff);
    EXPECT_EQ(softnet->timeSqueeze, 11U);
    EXPECT_EQ(softnet->dropped, uint64_t{1} + 0xfffffffe);
    EXPECT_THAT(softnet->droppedByCpu, ElementsAre(1U, 0xfffffffeU));

    write("self/net/packet",
          "sk               RefCnt Type Proto  Iface R Rmem   User   Inode\n"
          "00000000f5c6b4e7 3      3    0003   4     1 0      0      83211\n"
          "00000000f5c6b4e8 3      3    88cc   5     1 0      0      83212\n"
          "00000000f5c6b4e9 3      2    0003   0     1 0      0      83213\n");
    EXPECT_THAT(readCaptured(proc), ElementsAre(-1, 4));
    EXPECT_THAT(readCaptured(proc, {83211, 83212}), ElementsAre(-1)) << "the other is the meter's";
    write("sys/net/ipv4/igmp_max_memberships", "20\n");
    EXPECT_EQ(readMembershipLimit(proc), 20U);
}

NetworkInterface card(const char* name, int index, bool up = true, bool carrier = true) {
    return {.name = name, .index = index, .up = up, .running = up && carrier, .carrier = carrier};
}

TEST(CaptureInterface, IsTheFirstWhoseNameContainsIt) {
    const auto name = [](const std::vector<NetworkInterface>& all, const std::set<int>& captured = {}) {
        const NetworkInterface* found = findCaptureInterface(all, captured);
        return found != nullptr ? found->name : "none";
    };
    EXPECT_EQ(name({card("lo", 1), card("enp3s0", 2)}), "none");
    EXPECT_EQ(name({card("lo", 1), card("enp3s0", 2), card("veth0", 3)}), "veth0");
    EXPECT_EQ(name({card("eth0.100", 2), card("eth0", 3)}), "eth0") << "the lower number at the end";
    EXPECT_EQ(name({card("eth0", 2, false, false), card("eth0.100", 3)}), "eth0.100") << "the one that is up";
    EXPECT_EQ(name({card("eth0", 2, true, false), card("eth0.100", 3)}), "eth0.100") << "the connected one";
    EXPECT_EQ(name({card("eth0", 2), card("eth0.100", 3)}, {3}), "eth0.100") << "the one captured on";
    EXPECT_EQ(name({card("eth0", 2, false, false)}), "eth0") << "which waits until it is up";
}

TEST_F(MachineFiles, FindsWhatIsNotJoinedWhereTheProbeCaptures) {
    write("self/net/igmp",
          "Idx\tDevice    : Count Querier\tGroup    Users Timer\tReporter\n"
          "2\teth0      :     1      V3\n"
          "\t\t\t\t010101EF     1 0:00000000\t\t1\n"
          "3\tbr0       :     1      V3\n"
          "\t\t\t\t020101EF     1 0:00000000\t\t1\n"
          "5\tenp3s0    :     1      V3\n"
          "\t\t\t\t010101EF     1 0:00000000\t\t1\n"
          "\t\t\t\t030101EF     1 0:00000000\t\t1\n");
    auto eth0 = card("eth0", 2);
    eth0.master = 3;
    auto vlan = card("br0.7", 4);
    vlan.lower = 3;
    vlan.kind = "vlan";
    auto other = card("enp3s0", 5);
    other.kind = "veth";
    other.lower = 2;  // an index of another network namespace
    std::vector<Ipv4Address> asked;
    MachineLooker looker({.proc = proc,
                          .interfaces =
                              [&] {
                                  return std::vector{eth0, card("br0", 3), vlan, other};
                              },
                          .routes =
                              [&](std::span<const Ipv4Address> groups) {
                                  asked.assign(groups.begin(), groups.end());
                                  return std::vector<GroupRoute>{{.interface = 5}, {.interface = 4}};
                              }});
    const auto reading = looker.look({0xEF010101, 0xEF010102, 0xEF010103, 0xEF010104}, {});
    EXPECT_EQ(reading.capture->name, "eth0");
    EXPECT_THAT(asked, ElementsAre(0xEF010103, 0xEF010104)) << "its bridge joins for it";
    EXPECT_THAT(reading.astray,
                ElementsAre(AstrayGroup{.group = 0xEF010103, .joinedOn = {"enp3s0"}, .route = "enp3s0"},
                            AstrayGroup{.group = 0xEF010104, .route = "br0.7", .routeFits = true}));
    EXPECT_EQ(reading.doubled, 1U);
    EXPECT_THAT(reading.doubledOn, ElementsAre("enp3s0"));

    // What is watched no more stays joined where the probe cannot leave it.
    const auto later = [&](int seconds, const std::vector<Ipv4Address>& watched) {
        return looker.look(watched, {SteadyTime{std::chrono::seconds(seconds)}, {}});
    };
    EXPECT_EQ(later(1, {0xEF010101}).left, 0U) << "it may just be leaving";
    const auto left = later(20, {0xEF010101});
    EXPECT_EQ(left.left, 2U) << "the fourth was joined nowhere";
    EXPECT_THAT(left.leftOn, ElementsAre("br0", "enp3s0"));
    EXPECT_EQ(later(40, {0xEF010101, 0xEF010103}).left, 1U) << "one is watched again";

    // Routes of many are asked for every few seconds alone, as long as they are the same.
    int times = 0;
    MachineLooker many({.proc = proc,
                        .interfaces = [&] { return std::vector{eth0}; },
                        .routes =
                            [&](std::span<const Ipv4Address> groups) {
                                ++times;
                                return std::vector<GroupRoute>(groups.size());
                            }});
    std::vector<Ipv4Address> groups(MachineLooker::kManyAstray + 1);
    std::iota(groups.begin(), groups.end(), 0xEF020000);
    for (const int second : {100, 101, 104, 105, 106, 111}) {
        many.look(groups, {SteadyTime{std::chrono::seconds(second)}, {}});
    }
    EXPECT_EQ(times, 3);

    MachineLooker refused({.proc = proc, .interfaces = []() -> std::vector<NetworkInterface> {
                               throw std::system_error(EAFNOSUPPORT, std::generic_category(), "netlink");
                           }});
    EXPECT_THAT(refused.look({0xEF010101}, {}).problem, testing::HasSubstr("netlink"));
}

TEST(Machine, SeesItsOwnLoopbackAndRoutes) {
    const auto interfaces = readInterfaces();
    const auto loopback = std::ranges::find(interfaces, "lo", &NetworkInterface::name);
    ASSERT_NE(loopback, interfaces.end());
    EXPECT_TRUE(loopback->loopback);
    EXPECT_EQ(loopback->index, 1);
    // A machine without any network is allowed: then there is no route, and that is said.
    const std::vector<Ipv4Address> groups{0x7F000001, 0xEF010101};
    const auto routes = readRoutes(groups);
    ASSERT_EQ(routes.size(), 2U);
    EXPECT_EQ(routes[1].interface == 0, routes[1].error != 0);
    EXPECT_EQ(addressText(groups[1]), "239.1.1.1");
}

}  // namespace
