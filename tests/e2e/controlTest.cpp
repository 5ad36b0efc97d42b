// The probe and its controller: requests, what responses do, and the run modes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <set>

#include "support/harness.h"
#include "support/streamBuilder.h"

namespace test {
namespace {

using testing::HasSubstr;

constexpr const char* kA = "239.1.1.1";
constexpr const char* kB = "239.1.1.2";
constexpr const char* kC = "239.129.1.3";
constexpr const char* kPipe = "/tmp/american_maid";

TEST(Control, AsksTwiceASecondOnAFreshConnection) {
    const auto started = std::chrono::steady_clock::now();
    const Process kestor({"kestor", "-s"});
    // It asks and counts without anybody listening.
    ASSERT_TRUE(
        kestor.waitForOut("Chodze sobie i chuja robie\n passive monitoring 0\nexcept_reply == 1\n", 4));
    const Controller controller;
    ASSERT_TRUE(controller.waitForRequests(6));
    const auto requests = controller.requests();
    EXPECT_GE(requests[0].body.sequence_number(), 3);
    std::set<std::string> connections;
    auto fastest = std::chrono::steady_clock::duration::max();
    for (std::size_t i = 0; i < 6; ++i) {
        const int number = requests[i].body.sequence_number();
        EXPECT_EQ(requests[i].body.information(), "co mi Panie dasz?");
        EXPECT_GE(requests[i].time - started, number * 495ms);
        if (i > 0) {
            EXPECT_GT(number, requests[i - 1].body.sequence_number());
        }
        if (i > 1)  // the first one may have waited for the connection
            fastest = std::min(fastest, requests[i].time - requests[i - 1].time);
        EXPECT_FALSE(requests[i].body.has_scan_status());
        EXPECT_EQ(requests[i].body.scan_results_size(), 0);
        connections.insert(requests[i].connection);
    }
    EXPECT_EQ(connections.size(), 6U);
    EXPECT_LT(fastest, 700ms);
    EXPECT_TRUE(kestor.waitForOut("except_reply == 1\nanalyzeResponseMessage\nexcept_reply == 1\n"));
}

TEST(Control, AddsRemovesAndClearsChannels) {
    Probe probe({kA, kB, kC});
    Controller& controller = probe.controller;
    const Process& kestor = probe.kestor;
    EXPECT_TRUE(igmpMember(kA) && igmpMember(kB));
    EXPECT_THAT(kestor.out(), HasSubstr("239.1.1.1\nDodaje kanal: 239.1.1.1\n\n"));
    snapshotWith([](const Snapshot& s) { return s.records.size() == 3; });

    controller.answer(response({kA}));
    ASSERT_TRUE(
        kestor.waitForOut("Mam juz ten kanal!\n0 example name 239.1.1.1 0 \n"
                          "0 example name 239.1.1.2 0 \n0 example name 239.129.1.3 0 \n"));
    ASSERT_TRUE(eventually([&] {
        return kestor.err() ==
               "connect_to_channel setsockopt error! - check  /proc/sys/net/ipv4/igmp_max_memberships\n";
    }));

    UdpFlow flow{.group = kA};
    probe.network.send(flow, TsStream().payload(0x200, 70).takeDatagrams());
    snapshotWithPackets(kA, 70);

    controller.answer(response({}, {kB}));
    ASSERT_TRUE(
        kestor.waitForOut("clearIPChannel: 239.1.1.2\n\n239.1.1.2\nTego kanalu nie chce usuwac bo ...\n"));
    ASSERT_TRUE(
        kestor.waitForOut("po sarnUdpStreams_deleteStream 239.1.1.2\nTego kanalu nie chce usuwac bo ...\n"
                          "0 example name 239.1.1.1 0 \n0 example name 239.129.1.3 0 \n"));
    EXPECT_TRUE(eventually([] { return !igmpMember(kB); }));
    EXPECT_TRUE(igmpMember(kA));

    // Removing comes first, whatever the order on the wire: the channel starts afresh at the end of the list.
    controller.answer(response({kA}, {kA}));
    Snapshot fresh = snapshotWithPackets(kA, 0);
    EXPECT_EQ(fresh.records.front().columns[0], kC);
    EXPECT_TRUE(eventually([] { return igmpMember(kA); }));

    probe.network.send(flow, TsStream().payload(0x200, 7).takeDatagrams());
    snapshotWithPackets(kA, 7);
    controller.answer(clearAll(false));
    ASSERT_TRUE(kestor.waitForOut("analyzeClearErrorMessage\nDupa!!!!0\n\n\n\n\n\n\n\n"));
    EXPECT_EQ(nextSnapshot().find(kA)["packetsReceived"], "7");
    Envelope both = response({kB});
    both.mutable_clear()->set_clearall(true);
    controller.answer(both);
    ASSERT_TRUE(eventually([] { return igmpMember(kB); }));
    EXPECT_EQ(nextSnapshot().find(kA)["packetsReceived"], "7") << "a response wins over a clear request";

    controller.answer(clearAll());
    fresh = snapshotWithPackets(kA, 0);
    EXPECT_EQ(fresh.records.size(), 3U);
    EXPECT_TRUE(igmpMember(kA) && igmpMember(kB) && igmpMember(kC));
}

TEST(Control, JoinsPassivelyWhenTold) {
    Controller controller;
    const Process kestor({"kestor", "-s"});
    Envelope passive = response({kC});
    passive.mutable_response()->set_passive_monitoring(true);
    controller.answer(passive);
    ASSERT_TRUE(eventually([] { return filterAdmits(kC); }));
    EXPECT_FALSE(igmpMember(kC));
    ASSERT_TRUE(kestor.waitForOut(" passive monitoring 1\n"));
    ASSERT_TRUE(eventually(capturing));

    UdpFlow flow{.group = kC};
    FrameSender().send(flow, TsStream().null(7).takeDatagrams());
    const Snapshot snapshot = snapshotWithPackets(kC, 7);
    EXPECT_GT(std::stoull(snapshot.find(kC)["igmpLatency"]), 1'600'000'000'000U) << "no join time is kept";

    controller.answer(response({}, {kC}));
    EXPECT_TRUE(eventually([] { return !filterAdmits(kC); }));
    passive.mutable_response()->set_passive_monitoring(false);
    controller.answer(passive);
    EXPECT_TRUE(eventually([] { return igmpMember(kC); }));
}

TEST(Control, TestModeWatchesOneGroupWithoutAController) {
    const Controller controller;
    const Process kestor({"kestor", "-t"});
    ASSERT_TRUE(eventually([] { return igmpMember("239.212.0.12"); }));
    ASSERT_TRUE(kestor.waitForOut("Chodze sobie i chuja robie\n", 2));
    ASSERT_TRUE(kestor.waitForOut("listening on"));
    ASSERT_TRUE(eventually(capturing));
    UdpFlow flow{.group = "239.212.0.12"};
    FrameSender().send(flow, TsStream().payload(0x31, 14).takeDatagrams());
    snapshotWithPackets("239.212.0.12", 14);
    EXPECT_TRUE(controller.requests().empty());
}

TEST(Control, TwoModesAreTwoMonitors) {
    const Controller controller;
    const Process kestor({"kestor", "-s", "-s"});
    // Each asks by numbers of its own.
    EXPECT_TRUE(eventually([&] {
        std::multiset<int> numbers;
        for (const auto& request : controller.requests())
            numbers.insert(request.body.sequence_number());
        return std::ranges::count_if(numbers, [&](int one) { return numbers.count(one) == 2; }) >= 4;
    }));
    EXPECT_TRUE(kestor.waitForOut("listening on", 2));
}

TEST(Control, AnEnvelopeWithNothingToDoEndsTheProbe) {
    Envelope requestOnly;
    requestOnly.mutable_request()->set_information("?");
    for (const Controller::Answer& answer :
         std::initializer_list<Controller::Answer>{Envelope{}, requestOnly, std::string("garbage")}) {
        Controller controller;
        Process kestor({"kestor", "-s"});
        controller.answer(answer);
        EXPECT_EQ(kestor.wait(), -SIGTERM);
    }
}

TEST(Control, WithoutAModeItOnlyMakesThePipe) {
    umask(0);
    for (const bool existing : {false, true}) {
        unlink(kPipe);
        if (existing) {
            ASSERT_EQ(mkfifo(kPipe, 0640), 0);
        }
        const Controller controller;
        Process kestor({"kestor", "-x"});
        ASSERT_TRUE(eventually([&] { return !kestor.err().empty(); })) << "getopt's own diagnostic";
        EXPECT_FALSE(controller.waitForRequests(1, 1200ms));
        struct stat node {};
        ASSERT_EQ(stat(kPipe, &node), 0);
        EXPECT_EQ(node.st_mode, S_IFIFO | (existing ? 0640U : 0666U));
        EXPECT_EQ(kestor.out(), "") << "an existing pipe is used as it is";
        EXPECT_TRUE(kestor.running());
    }
}

}  // namespace
}  // namespace test
