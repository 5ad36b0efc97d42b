// The real probe while what is around it goes away, comes back, or misbehaves.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>

#include "support/harness.h"
#include "support/streamBuilder.h"

namespace test {
namespace {

constexpr const char* kA = "239.1.1.1";
constexpr const char* kB = "239.1.1.2";
constexpr const char* kC = "239.1.1.3";
constexpr const char* kPipe = "/tmp/american_maid";
constexpr const char* kOpening = "Zapisuje wyniki\n";
constexpr const char* kJoinFailure =
    "connect_to_channel setsockopt error! - check  /proc/sys/net/ipv4/igmp_max_memberships\n";

Groups groupRange(int count) {
    Groups groups;
    for (int i = 0; i < count; ++i)
        groups.push_back("239.1." + std::to_string(i / 250) + "." + std::to_string(1 + i % 250));
    return groups;
}

// Entries of a directory of the process' own: "fd", "task".
long entries(const Process& process, const char* directory) {
    return std::distance(std::filesystem::directory_iterator(process.proc() + "/" + directory), {});
}

void run(const std::string& command) {
    Process shell({"sh", "-c", command});
    EXPECT_EQ(shell.wait(), 0) << command << ": " << shell.err();
}

TEST(Faults, OtherThingsInThePlaceOfThePipe) {
    const Controller controller;
    for (const std::string make : {"touch", "mkdir"}) {
        run("rm -rf /tmp/american_maid; " + make + " /tmp/american_maid");
        const Process kestor({"kestor", "-t"});
        const bool file = make == "touch";
        // A file lets nobody wait: each snapshot takes the place of the one before.
        ASSERT_TRUE(kestor.waitForOut(kOpening, 4));
        EXPECT_EQ(kestor.out().find("got node already"), std::string::npos);
        if (file)
            snapshotWith([](const Snapshot& s) { return s.records.size() == 1; });
        EXPECT_EQ(
            kestor.err().find("Failed to open /tmp/american_maid for writingFailed") == std::string::npos,
            file);
        // With the place free again, the next opening makes a file of it.
        run("rm -rf /tmp/american_maid");
        ASSERT_TRUE(eventually([] { return std::filesystem::is_regular_file(kPipe); }));
    }
    run("rm -f /tmp/american_maid");
}

TEST(Faults, AnswersThatAreLateDoubleOrDamaged) {
    std::optional<Controller> controller(std::in_place);
    Process kestor({"kestor", "-s"});
    ASSERT_TRUE(controller->waitForRequests(1));
    Controller::Answer late = response({kA}), twice = response({kB});
    late.late = true;
    twice.times = 2;
    controller->answer(late);
    controller->answer(twice);
    ASSERT_TRUE(eventually([] { return igmpMember(kB); }));
    EXPECT_FALSE(igmpMember(kA)) << "its connection is closed";

    const std::string unknownField("\xA2\x06\x03xyz", 6);
    controller->answer(unknownField + response({kC}).SerializeAsString() + unknownField);
    EXPECT_TRUE(eventually([] { return igmpMember(kC); }));
    // "239.1.1.1" and "239.1.1", which reads as 239.1.0.1.
    const std::string whole = response({kA, kB}).SerializeAsString();
    controller->answer(whole.substr(0, whole.size() - 2));
    EXPECT_TRUE(eventually([] { return igmpMember(kA) && igmpMember("239.1.0.1"); }));
    EXPECT_EQ(kestor.out().find("Mam juz ten kanal!"), std::string::npos) << "only the first answer counts";
    EXPECT_EQ(kestor.err(), "");

    // A controller that is killed and started again finds the channels as they were.
    const int last = controller->requests().back().body.sequence_number();
    controller.reset();
    const std::string unanswered = "except_reply == 1\nChodze sobie i chuja robie\n";
    ASSERT_TRUE(kestor.waitForOut(unanswered, occurrences(kestor.out(), unanswered) + 3));
    controller.emplace();
    ASSERT_TRUE(controller->waitForRequests(1));
    EXPECT_GT(controller->requests()[0].body.sequence_number(), last + 1);

    // A channel without a group is all ones, which cannot be joined and is not added again after a clear.
    controller->answer(std::string("\x0A\x02\x12\x00", 4));
    EXPECT_TRUE(eventually([&] { return kestor.err() == kJoinFailure; })) << kestor.err();
    snapshotWith([](const Snapshot& s) { return s.count("255.255.255.255") == 1; });
    for (int clears = 1; clears <= 2; ++clears) {
        controller->answer(clearAll());
        ASSERT_TRUE(kestor.waitForOut("Dupa!!!!1\n", static_cast<std::size_t>(clears)));
    }
    snapshotWith([](const Snapshot& s) { return s.records.size() == 4; });
    EXPECT_EQ(kestor.err(), kJoinFailure);
}

TEST(Faults, TheInterfaceGoesDownComesUpAndDisappears) {
    Probe probe({kA});
    UdpFlow flow{.group = kA};
    probe.network.send(flow, TsStream().payload(0x31, 7).takeDatagrams());
    snapshotWithPackets(kA, 7);
    const auto threads = entries(probe.kestor, "task");
    run("ip link set eth0 down");
    // A group cannot be joined without the route over the interface; its channel is there all the same.
    probe.controller.answer(response({kB}));
    EXPECT_TRUE(eventually([&] { return probe.kestor.err() == kJoinFailure; })) << probe.kestor.err();
    const Snapshot down = snapshotWith([](const Snapshot& s) { return s.count(kB) == 1; });
    EXPECT_EQ(down.find(kA)["packetsReceived"] + down.find(kB)["packetsReceived"], "70");
    EXPECT_TRUE(probe.controller.waitForRequests(probe.controller.requests().size() + 3));
    EXPECT_EQ(entries(probe.kestor, "task"), threads);

    run("ip link set eth0 up; ip route add 224.0.0.0/4 dev eth0;"
        "until ip link show feed0 | grep -q 'state UP'; do sleep 0.1; done");
    EXPECT_TRUE(igmpMember(kA));
    probe.controller.answer(response({kB}, {kB}));
    EXPECT_TRUE(eventually([] { return igmpMember(kB); }));
    probe.network.send(flow, TsStream().payload(0x31, 7).takeDatagrams());
    snapshotWithPackets(kA, 14);

    // Only the capture ends with its interface.
    run("ip link del eth0");
    EXPECT_TRUE(eventually([&] { return entries(probe.kestor, "task") == threads - 1; }));
    ASSERT_TRUE(probe.kestor.waitForOut("Error reading the packets: The interface disappeared"));
    EXPECT_TRUE(probe.controller.waitForRequests(probe.controller.requests().size() + 3));
    snapshotWithPackets(kA, 14);
    EXPECT_EQ(probe.kestor.err(), kJoinFailure);
    run("ip link add eth0 type veth peer name feed0; ip link set feed0 up; ip link set eth0 up;"
        "ip address add 10.99.0.1/24 dev eth0; ip route add 224.0.0.0/4 dev eth0");
}

TEST(Faults, MoreGroupsThanMembershipsAreMonitoredAllTheSame) {
    const Groups groups = groupRange(300);
    for (const std::size_t limit : {20U, 2000U}) {
        std::ofstream("/proc/sys/net/ipv4/igmp_max_memberships") << limit;
        const auto joined = static_cast<std::ptrdiff_t>(std::min(limit, groups.size()));
        const std::size_t left = groups.size() - static_cast<std::size_t>(joined);
        Controller controller;
        const Process kestor({"kestor", "-s"});
        controller.answer(response(groups));
        EXPECT_EQ(
            snapshotWith([&](const Snapshot& s) { return s.records.size() == 300; }).records.back()["group"],
            groups.back());
        // The last one is listed before it is joined.
        EXPECT_TRUE(eventually([&] {
            return std::ranges::count_if(groups, igmpMember) == joined &&
                   occurrences(kestor.err(), kJoinFailure) == left;
        }));
        // A group that leaves makes room for one.
        controller.answer(response({kA, kB}, {groups.front()}));
        // Who is a member already fails like who finds no room.
        const std::size_t more = left > 0 ? 1 : 2;
        EXPECT_TRUE(eventually([&] { return occurrences(kestor.err(), kJoinFailure) == left + more; }));
        EXPECT_TRUE(igmpMember(kA));
        EXPECT_EQ(igmpMember(kB), limit > groups.size());
    }
}

TEST(Faults, GroupsComeAndGoUnderTrafficAndReaders) {
    constexpr int kRounds = 6;  // of two exchanges, every other one of a clear
    const Groups groups = groupRange(64);
    Probe probe(groups);
    const std::jthread traffic([&](const std::stop_token& stop) {
        const FrameSender network;
        TsStream stream;
        stream.pat({{1, 0x100}}).pmt(1, 0x100, 0x101, {{0x1B, 0x101}}).pes(0x101, {.packets = 12});
        const auto datagrams = stream.takeDatagrams();
        while (!stop.stop_requested())
            for (std::size_t i = 0; i < groups.size(); i += 10, std::this_thread::sleep_for(100us)) {
                UdpFlow flow{.group = groups[i]};
                network.send(flow, datagrams);
            }
    });
    const auto all = [](const Snapshot& s) {
        return s.records.size() == 64 + 7 * 3 && s.count("239.1.0.41", "KP") == 1;
    };
    snapshotWith(all);
    const auto descriptors = entries(probe.kestor, "fd");
    for (int round = 0; round < kRounds; ++round) {
        if (round % 2 == 1)
            probe.controller.queue(clearAll());
        probe.controller.queue(response(groups, groups));
        probe.controller.answer(response(groups, groups));
        const Snapshot snapshot = nextSnapshot();
        std::set<std::string> channels;
        for (const Record& record : snapshot.records)
            EXPECT_TRUE(record["label"] != "-1" || channels.insert(record["group"]).second);
        EXPECT_LE(channels.size(), groups.size());
    }
    probe.controller.answer(clearAll());
    ASSERT_TRUE(probe.kestor.waitForOut("Dupa!!!!1\n", 1 + kRounds / 2));
    snapshotWith(all);
    EXPECT_TRUE(eventually([&] { return std::ranges::all_of(groups, igmpMember); }));
    EXPECT_TRUE(eventually([&] { return entries(probe.kestor, "fd") <= descriptors; }));
    EXPECT_EQ(probe.kestor.err(), "");
}

}  // namespace
}  // namespace test
