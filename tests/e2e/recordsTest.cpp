// What a reader of the results pipe gets.
#include <gtest/gtest.h>

#include <cstdio>

#include "support/consoleText.h"
#include "support/harness.h"
#include "support/streamBuilder.h"

namespace test {
namespace {

constexpr uint16_t kPmtPid = 0x100;
constexpr uint16_t kVideoPid = 0x101;
constexpr uint16_t kAudioPid = 0x102;
constexpr uint16_t kDataPid = 0x200;

TEST(Records, DescribeACleanStream) {
    const std::string group = "239.1.1.1";
    const Probe probe({group});
    TsStream stream;
    stream.pat({{1, kPmtPid}})
        .pmt(1, kPmtPid, kVideoPid, {{0x1B, kVideoPid, psi::descriptor(0x52, {7})}, {0x04, kAudioPid}});
    stream.pcr(kVideoPid, 27'000'000).pes(kVideoPid, {.packets = 19});
    stream.payload(kAudioPid, 10).payload(kDataPid, 5).null(5);
    UdpFlow flow{.group = group, .ttl = 7, .tos = 0xBA};
    probe.network.send(flow, stream.takeDatagrams());

    // 10.0.0.1 and 239.1.1.1 show as they lie in memory, a frame has 14 + 20 + 8 + 7 * 188 bytes.
    const Snapshot snapshot = snapshotWithPackets(group, 42);
    std::string lines;
    for (const Record& record : snapshot.records) {
        const bool scored = record["label"] == "KP";
        lines +=
            record.textWithout({"bitRate", "transportQualityIndex", "igmpLatency", scored ? "mosScore" : "",
                                scored ? "mosMinimum" : "", scored ? "mosMaximum" : ""}) +
            "\n";
    }
    EXPECT_EQ(lines, consoleText("records"));
    EXPECT_LT(std::stoull(snapshot.records[0]["igmpLatency"]), 20'000U);

    // The control link prints too, and may do so in between.
    EXPECT_TRUE(eventually([&] {
        nextSnapshot();
        return probe.kestor.out().find(consoleText("snapshot")) != std::string::npos;
    })) << probe.kestor.out();
}

TEST(Records, TellOfAStreamWithoutPatAndOfASecondSource) {
    const std::string group = "239.1.1.2";
    const Probe probe({group});
    UdpFlow foreign{.group = "239.1.1.99"};
    UdpFlow first{.group = group};
    UdpFlow second{.group = group, .source = "10.0.0.9", .ttl = 3};
    probe.network.send(foreign, TsStream().null(7).takeDatagrams());
    probe.network.send(first, TsStream().payload(kVideoPid, 6).payload(kAudioPid, 8).takeDatagrams());
    probe.network.send(second, TsStream().payload(kDataPid, 7).takeDatagrams());
    // The second source is noted, and its headers, but not analysed.
    const Snapshot snapshot = snapshotWith([&](const Snapshot& s) { return s.find(group)["ttl"] == "3"; });
    EXPECT_EQ(snapshot.find(group).values({"packetsReceived", "wrongSource"}), "14 1");
    EXPECT_EQ(snapshot.count(group, "UP"), 2U);
    EXPECT_EQ(snapshot.records.size(), 3U);
}

TEST(Records, SurviveAReaderThatLeavesInTheMiddle) {
    const std::string group = "239.1.1.1", behind = "239.1.1.2";
    const Probe probe({group, behind});
    // More lines than the pipe holds, so the writer waits in the middle for its reader.
    TsStream stream;
    for (uint16_t pid = 0x400; pid < 0x400 + 1400; ++pid)
        stream.payload(pid);
    UdpFlow flow{.group = group};
    for (const Bytes& datagram : stream.takeDatagrams()) {
        probe.network.send(flow.frame(datagram));
        std::this_thread::sleep_for(1ms);
    }
    UdpFlow flowBehind{.group = behind};
    probe.network.send(flowBehind, TsStream().payload(kDataPid, 7).takeDatagrams());
    snapshotWithPackets(group, 1400);
    for (UdpFlow* last : {&flowBehind, &flow})
        probe.network.send(*last, TsStream().payload(kDataPid, 7).takeDatagrams());
    const auto opened = occurrences(probe.kestor.out(), "Zapisuje wyniki\n");
    std::this_thread::sleep_for(3s);
    EXPECT_LE(occurrences(probe.kestor.out(), "Zapisuje wyniki\n"), opened + 1) << "it waits for a reader";
    for (int visit = 0; visit < 2; ++visit) {
        std::FILE* pipe = std::fopen("/tmp/american_maid", "r");
        const auto begun = occurrences(probe.kestor.out(), "Zapisuje wyniki\n");
        std::array<char, 100> some{};
        EXPECT_EQ(std::fread(some.data(), 1, some.size(), pipe), some.size());
        std::fclose(pipe);
        // A reader that came back at once could still get the rest.
        ASSERT_TRUE(probe.kestor.waitForOut("Zapisuje wyniki\n", begun + 1));
    }
    const Snapshot snapshot = nextSnapshot();
    EXPECT_EQ(snapshot.records.size(), 1404U);
    // A snapshot that is dropped closes every stream's interval too.
    EXPECT_EQ(snapshot.find(group).values({"packetsReceived", "bitRate"}), "1407 0");
    EXPECT_EQ(snapshot.find(behind).values({"packetsReceived", "bitRate"}), "14 0");
}

}  // namespace
}  // namespace test
