// kestor-replay: recorded frames through the same analysis, with time under control.
#include <gtest/gtest.h>

#include <array>
#include <fstream>

#include "support/harness.h"
#include "support/streamBuilder.h"

namespace test {
namespace {

constexpr uint64_t kMs = 1'000'000;
constexpr uint64_t kStart = 1'700'000'000'000 * kMs;
constexpr const char* kCapture = "/tmp/capture.pcap";
constexpr const char* kGroup = "239.1.1.1";

// Of an H.264 stream of 720 x 576 pixels.
const Bytes kParameterSet = {0, 0, 0, 1, 0x67, 0x42, 0, 0x28, 0xEC, 0xA0, 0x5A, 9, 0x34};

std::vector<Snapshot> replay(std::vector<std::string> arguments = {}) {
    arguments.insert(arguments.begin(), "kestor-replay");
    arguments.emplace_back(kCapture);
    Process tool(arguments);
    EXPECT_EQ(tool.wait(60s), 0) << tool.err();
    EXPECT_EQ(tool.err(), "");
    return parseSnapshots(tool.out());
}

// Without what depends on the time of arrival.
std::string timeless(const Record& record) {
    return record.textWithout({"bitRate", "mdiDelayFactor", "jitterVariance", "jitterVarianceMaximum",
                               "jitterMeanInterArrival", "transportQualityIndex", "igmpLatency", "mosScore",
                               "mosMinimum", "mosMaximum"});
}

// Every kind of damage once, in one burst so that no limit in time is passed.
std::vector<Bytes> damagedFrames() {
    TsStream stream;
    stream.pat({{0, 0x10}, {1, 0x100}, {2, 0x110}}).pmt(1, 0x100, 0x101, {{0x1B, 0x101}, {0x0F, 0x102}});
    stream.pcr(0x101, 27'000'000).pes(0x101, {.packets = 10, .content = kParameterSet});
    stream.lose(0x101, 3).payload(0x101, 5).repeatLast();
    stream.pcr(0x101, 27'000'000 + 4'000'000).pcr(0x101, 1).payload(0x102, 3);
    stream.last()[1] |= 0x80;
    stream.payload(0x102);
    stream.last()[3] |= 0xC0;
    stream.section(1, psi::section(1, 0xFFFF, 0, psi::descriptor(9, {0x0B, 0, 0xE1, 0}))).payload(0x102);
    stream.last()[3] |= 0x80;
    stream.pmt(2, 0x110, 0x1FFF, {}).pat({{1, 0x100}}, 1);
    Bytes broken = psi::pmtSection(1, 1, 0x101, {});
    broken.back() ^= 1;
    stream.section(0x100, broken).payload(0x300, 20).null(7);
    // PMTs whose loop leads out of the section, and with a byte behind the last entry.
    const Bytes entry = {2, 0xE1, 0x01, 0xF0, 0};
    stream.section(0x100, psi::section(2, 1, 2, {0xE1, 0x01, 0xF0, 9}));
    stream.section(0x100, psi::section(2, 1, 2, psi::concat({{0xE1, 0x01, 0xF0, 0}, entry, {0}})));
    std::vector<Bytes> frames = stream.takeDatagrams();
    frames.push_back(Bytes(7 * 188));
    frames.push_back(TsStream().null(4).takeDatagrams().front());
    frames.back().resize(3 * 188 + 20);
    UdpFlow flow{.group = kGroup, .rtp = true};
    for (Bytes& frame : frames)
        frame = flow.frame(frame);
    return frames;
}

TEST(Replay, WritesWhatTheProbeWrites) {
    const std::vector<Bytes> frames = damagedFrames();
    for (PcapWriter capture(kCapture); const Bytes& frame : frames)
        capture.write(kStart, frame);
    const auto replayed = replay();
    ASSERT_EQ(replayed.size(), 1U);
    const Record& line = replayed[0].find(kGroup);
    EXPECT_EQ(line["packetsLost"], "18") << "three lost, and a repeated packet counts fifteen";
    EXPECT_EQ(line["Sync_byte_error"], "2") << "garbage, and the tail that is no packet";
    EXPECT_EQ(line["PCR_discontinuity_indicator_error"], "1") << "a step forward only";
    EXPECT_EQ(line.values({"Continuity_count_error", "Transport_error", "CRC_error", "CAT_error",
                           "packetsScrambled"}),
              "2 1 1 1 2")
        << "scrambled packets are an error before the first CAT only";
    EXPECT_EQ(replayed[0].find(kGroup, "UP", 0x102)["packetsScrambled"], "2");
    EXPECT_EQ(replayed[0].find(kGroup, "KP", 0x101).values({"pictureWidth", "pictureHeight"}), "720 576");

    Process verbose({"kestor-replay", "-v", "-o", "/dev/null", kCapture});
    EXPECT_EQ(verbose.wait(60s), 0);
    EXPECT_NE(verbose.err().find(
                  "\n239.1.1.1: 1 PMT section dropped: a length leads out of the section\n"
                  "239.1.1.1: 1 PMT section decoded without the bytes behind the last whole entry\n"),
              std::string::npos);

    const Probe probe({kGroup});
    for (const Bytes& frame : frames)
        probe.network.send(frame);
    const Snapshot live = snapshotWithPackets(kGroup, std::stoul(line["packetsReceived"]));
    ASSERT_EQ(live.records.size(), replayed[0].records.size());
    for (std::size_t i = 0; i < live.records.size(); ++i)
        EXPECT_EQ(timeless(live.records[i]), timeless(replayed[0].records[i]));
}

TEST(Replay, SnapshotsFollowTheStamps) {
    const std::string later = "239.1.1.2";
    for (const auto stamps : {PcapWriter::Stamps::kMicro, PcapWriter::Stamps::kNano}) {
        const Bytes datagram = TsStream().null(7).takeDatagrams().front();
        {
            PcapWriter capture(kCapture, stamps);
            const uint64_t first = kStart + 999'999;  // below a microsecond it does not count
            for (const uint64_t at : {0 * kMs, 500 * kMs, 1000 * kMs - 1000, 1000 * kMs, 3200 * kMs})
                capture.write(first + at, UdpFlow{.group = kGroup}.frame(datagram));
            capture.write(first + 3201 * kMs, UdpFlow{.group = later}.frame(datagram));
        }
        const auto snapshots = replay();
        ASSERT_EQ(snapshots.size(), 4U);
        for (std::size_t i = 0; i < snapshots.size(); ++i)
            EXPECT_EQ(snapshots[i].find(kGroup)["packetsReceived"], (std::array{"21", "28", "28", "35"}[i]));
        EXPECT_EQ(snapshots[3].find(kGroup)["igmpLatency"], "0");
        EXPECT_EQ(snapshots[3].find(later).values({"packetsReceived", "igmpLatency"}), "7 3201");

        const auto chosen = replay({"-g", later});
        ASSERT_EQ(chosen.size(), 4U);
        EXPECT_EQ(chosen[3].count(kGroup), 0U);
        EXPECT_EQ(chosen[0].find(later)["packetsReceived"], "0");
    }
}

TEST(Replay, RefusesWhatItCannotRead) {
    std::ofstream("/tmp/nonsense") << "this is no capture file, though it is long enough to be one";
    PcapWriter("/tmp/raw.pcap", PcapWriter::Stamps::kMicro, DLT_RAW);
    PcapWriter{kCapture};
    const std::vector<std::string> cases[] = {{"/tmp/absent"},
                                              {"/tmp/nonsense"},
                                              {"/tmp/raw.pcap"},
                                              {"-g", "10.0.0.1", kCapture},
                                              {"-g", "nowhere", kCapture},
                                              {"-o", "/tmp/no/such", kCapture},
                                              {},
                                              {"--unknown", kCapture}};
    for (std::vector<std::string> command : cases) {
        const bool usage = command.empty() || command[0] == "--unknown";
        command.insert(command.begin(), "kestor-replay");
        Process tool(command);
        EXPECT_EQ(tool.wait(), usage ? 2 : 1) << testing::PrintToString(command);
        EXPECT_TRUE(usage ? !tool.err().empty() : occurrences(tool.err(), "\n") == 1) << tool.err();
        EXPECT_EQ(tool.out(), "");
    }
}

// 3.509 Mbit/s: seven packets every 3 ms, but of every 500 datagrams the first five wait for the sixth.
TEST(Replay, DeliveryIndexJitterAndScoresInControlledTime) {
    {
        UdpFlow flow{.group = kGroup};
        PcapWriter capture(kCapture);
        TsStream stream;
        stream.pat({{1, 0x100}}).pmt(1, 0x100, 0x101, {{0x1B, 0x101}}).payload(0x101, 5);
        for (uint64_t i = 0; i < 23'000; ++i) {
            const uint64_t turn = i > 0 && i % 500 < 5 ? i - i % 500 + 5 : i;
            capture.write(kStart + turn * 3 * kMs, flow.frame(stream.takeDatagrams().front()));
            // An I frame of 56 packets, two P frames of 21, seven B frames of 7.
            const uint64_t place = i % 21;
            if (place == 0 || place == 8 || place == 11 || place > 13)
                stream.pes(0x101, {.packets = 7});
            else
                stream.payload(0x101, 7);
        }
    }
    const auto snapshots = replay();
    ASSERT_EQ(snapshots.size(), 69U);
    const auto number = [&](std::size_t snapshot, const char* column) {
        return std::stod(snapshots[snapshot].find(kGroup)[column]);
    };
    // The first bit rate stands at packet 140000, at 59.997 s, and the sixth interval of more than a second
    // closes at 66.021 s. The held-back datagrams let the buffer sink by six datagrams' bytes.
    EXPECT_EQ(number(65, "mdiDelayFactor"), 0);
    EXPECT_NEAR(number(66, "mdiDelayFactor"), 18.0, 0.003);
    EXPECT_NEAR(number(67, "mdiDelayFactor"), 3.0, 0.003) << "none held back";

    // A block of 4096 spans, the first of them the zero of the first datagram, closes every 12.288 s.
    EXPECT_EQ(number(11, "jitterVariance"), 0);
    EXPECT_NEAR(number(12, "jitterVariance"), 0.573486, 2e-6);
    EXPECT_NEAR(number(24, "jitterVariance"), 0.527344, 2e-6);
    EXPECT_NEAR(number(24, "jitterVarianceMaximum"), 0.573486, 2e-6);
    EXPECT_EQ(number(12, "jitterMeanInterArrival"), 2) << "2.9993";
    EXPECT_EQ(number(24, "jitterMeanInterArrival"), 3);

    EXPECT_EQ(snapshots[1].find(kGroup)["transportQualityIndex"], "4.530000");
    // Each record moves the score towards 4.5; the report behind the latch sees no traffic and moves it
    // towards 4 once more: 4.53, then (40.5 + 4.053) / 10, then (40.5 + 4.04553) / 10.
    const std::array scores = {"4.530000", "4.455300", "4.454553"};
    for (std::size_t i = 0; i < scores.size(); ++i)
        EXPECT_EQ(snapshots[i].find(kGroup, "KP", 0x101)["mosScore"], scores[i]);
    // Each 500 frames: 1 + 50 I and 1 + 100 P frames, so a length of 9 and 7 B frames; the averages run.
    EXPECT_EQ(snapshots.back()
                  .find(kGroup, "KP", 0x101)
                  .values({"gopLength", "gopLengthMinimum", "gopLengthMaximum", "gopBFrames"}),
              "15 8 15 6");
    EXPECT_EQ(snapshots[1].find(kGroup, "KP", 0x101).values({"mosMinimum", "mosMaximum"}),
              "4.053000 4.530000");
}

}  // namespace
}  // namespace test
