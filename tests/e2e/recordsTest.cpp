// What a reader of the results pipe gets.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

#include "support/harness.h"
#include "support/streamBuilder.h"

namespace test {
namespace {

constexpr uint16_t kPmtPid = 0x100;
constexpr uint16_t kVideoPid = 0x101;
constexpr uint16_t kAudioPid = 0x102;
constexpr uint16_t kDataPid = 0x200;

TsStream& programTables(TsStream& stream) {
    return stream.pat({{1, kPmtPid}})
        .pmt(1, kPmtPid, kVideoPid, {{0x1B, kVideoPid, psi::descriptor(0x52, {7})}, {0x04, kAudioPid}});
}

TEST(Records, DescribeACleanStream) {
    const std::string group = "239.1.1.1";
    const Probe probe({group});
    TsStream stream;
    programTables(stream).pcr(kVideoPid, 27'000'000).pes(kVideoPid, {.pts = 9000, .packets = 19});
    stream.payload(kAudioPid, 10).payload(kDataPid, 5).null(5);
    UdpFlow flow{.group = group, .ttl = 7, .tos = 0xBA};
    probe.network.send(flow, stream.takeDatagrams());

    // 10.0.0.1 and 239.1.1.1 as they lie in memory, ports, 14 + 20 + 8 + 7 * 188, one source, UDP header.
    const std::string identity = ";16777226;16843247;1234;5000;1358;0;1;*;0;0;0;";
    const std::string noErrors = ";0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0;0";
    const std::string noScore = ";0;0;0;0;0.000000;5.000000;1.000000;0;0;0";
    const std::string score = ";0;0;0;0;*;*;*;0;0";
    const std::vector<std::string> expected = {
        "0;-1;-1" + identity + "42" + noErrors + ";0.000000;0;0.000000;0.000000;0;*;7;46;2;*",
        "1;0;PAT" + identity + "1" + noErrors + noScore,
        "1;256;PMT" + identity + "1" + noErrors + noScore,
        "1;257;KP;27;256" + identity + "20" + noErrors + score + ";1;82",
        "1;258;KP;4;256" + identity + "10" + noErrors + score + ";0",
        "1;512;UP;0" + identity + "5" + noErrors + noScore,
        "1;8191;UP;0" + identity + "5" + noErrors + noScore,
    };
    const Snapshot snapshot = snapshotWithPackets(group, 42);
    ASSERT_EQ(snapshot.records.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const bool scored = snapshot.records[i]["label"] == "KP";
        EXPECT_EQ(snapshot.records[i].textWithout({"bitRate", "transportQualityIndex", "igmpLatency",
                                                   scored ? "mosScore" : "", scored ? "mosMinimum" : "",
                                                   scored ? "mosMaximum" : ""}),
                  group + ";" + expected[i]);
    }
    EXPECT_LT(std::stoull(snapshot.records[0]["igmpLatency"]), 20'000U);

    // The control link prints too, and may do so in between.
    const std::string printed =
        "StreamId 16843247\nZapisuje Kanal "
        "239.1.1.1\n239.1.1.1;0;-1;-1;16777226;16843247;1234;5000;1358;0;1\n"
        "showGOPValues: Zapisuje Kanal 239.1.1.1\n27;257;;0;0;0;0\n\n\n\n\nendGOPValues\n\n"
        "showDescriptorsValues: Zapisuje Kanal "
        "239.1.1.1\n27;257;82;\n4;258;\n\n\n\nshowDescriptorsValues\n\n";
    EXPECT_TRUE(eventually([&] {
        nextSnapshot();
        return probe.kestor.out().find(printed) != std::string::npos;
    })) << probe.kestor.out();
}

TEST(Records, TellHowAStreamIsCarried) {
    const std::string noPat = "239.1.1.2", rtp = "239.1.1.3", last = "239.1.1.5";
    const Probe probe({noPat, rtp, last});
    UdpFlow foreign{.group = "239.1.1.99"};
    UdpFlow rtpFlow{.group = rtp, .rtp = true};
    UdpFlow lastFlow{.group = last};
    probe.network.send(foreign, TsStream().null(7).takeDatagrams());
    probe.network.send(rtpFlow, TsStream().payload(kDataPid, 14).takeDatagrams());
    TsStream stream;
    stream.payload(kVideoPid, 6).payload(kAudioPid, 8);
    UdpFlow first{.group = noPat};
    UdpFlow second{.group = noPat, .source = "10.0.0.9", .ttl = 3};
    probe.network.send(first, stream.takeDatagrams());
    probe.network.send(second, TsStream().payload(kDataPid, 7).takeDatagrams());
    probe.network.send(lastFlow, TsStream().null(1).takeDatagrams());

    const Snapshot snapshot = snapshotWithPackets(last, 1);
    EXPECT_EQ(snapshot.count(noPat, "UP"), 2U);
    EXPECT_EQ(snapshot.count(noPat, "PAT") + snapshot.count(noPat, "PMT") + snapshot.count(noPat, "KP"), 0U);
    // The second source is noted, and its headers, but not analysed.
    EXPECT_EQ(snapshot.find(noPat).values({"packetsReceived", "wrongSource", "ttl"}), "14 1 3");
    EXPECT_EQ(snapshot.find(rtp).values(
                  {"packetsReceived", "Sync_byte_error", "firstPacketLength", "hasExtraHeader"}),
              "14 0 1370 1");
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

TEST(Records, AgreeWithFfprobeOnRealVideo) {
    const std::string group = "239.1.1.1", file = "/tmp/video.ts";
    constexpr int kRate = 2'000'000;
    Process ffmpeg({"sh", "-c",
                    "ffmpeg -v error -f lavfi -i testsrc2=size=352x288:rate=25 -f lavfi -i sine -t 6"
                    " -c:v libx264 -preset ultrafast -b:v 1M -maxrate 1M -bufsize 500k -g 25 -c:a mp2"
                    " -muxrate " +
                        std::to_string(kRate) + " " + file});
    ASSERT_EQ(ffmpeg.wait(60s), 0) << ffmpeg.err();
    Process ffprobe({"ffprobe", "-v", "error", "-of", "json", "-show_programs", file});
    ASSERT_EQ(ffprobe.wait(30s), 0) << ffprobe.err();
    const auto program = nlohmann::json::parse(ffprobe.out()).at("programs").at(0);
    std::ifstream input(file, std::ios::binary);
    const Bytes bytes((std::istreambuf_iterator<char>(input)), std::istreambuf_iterator<char>());

    const Probe probe({group});
    UdpFlow flow{.group = group};
    constexpr std::size_t kDatagram = 7 * 188;
    constexpr auto kInterval = std::chrono::nanoseconds(kDatagram * 8 * 1'000'000'000ULL / kRate);
    auto due = std::chrono::steady_clock::now();
    for (std::size_t at = 0; at + kDatagram <= bytes.size(); at += kDatagram, due += kInterval) {
        std::this_thread::sleep_until(due);
        probe.network.send(flow.frame(std::span(bytes).subspan(at, kDatagram)));
    }
    double rate = 0;  // the highest: an interval of the last few packets has none
    const Snapshot snapshot = snapshotWith([&](const Snapshot& s) {
        rate = std::max(rate, std::stod(s.find(group)["bitRate"]));
        return s.find(group)["packetsReceived"] == std::to_string(bytes.size() / kDatagram * 7);
    });

    const Record& line = snapshot.find(group);
    EXPECT_EQ(line.values({"packetsLost", "Sync_byte_error", "Continuity_count_error"}), "0 0 0");
    EXPECT_NEAR(rate, kRate, kRate * 0.02);
    const int pmtPid = program.at("pmt_pid");
    snapshot.find(group, "PMT", pmtPid);
    EXPECT_EQ(snapshot.count(group, "KP"), program.at("streams").size());
    for (const nlohmann::json& stream : program.at("streams")) {
        const int pid = std::stoi(stream.at("id").get<std::string>(), nullptr, 16);
        const int type = std::stoi(stream.at("codec_tag").get<std::string>(), nullptr, 16);
        const Record& record = snapshot.find(group, "KP", pid);
        EXPECT_EQ(record.values({"streamType", "pmtPid"}),
                  std::to_string(type) + " " + std::to_string(pmtPid));
    }
}

}  // namespace
}  // namespace test
