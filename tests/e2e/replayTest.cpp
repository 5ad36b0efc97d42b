// kestor-replay: recorded frames through the same analysis, with time under control.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <fstream>

#include "support/harness.h"
#include "support/streamBuilder.h"

namespace test {
namespace {

using testing::HasSubstr;

constexpr uint64_t kMs = 1'000'000;
constexpr uint64_t kStart = 1'700'000'000'000 * kMs;
constexpr const char* kCapture = "/tmp/capture.pcap";
constexpr const char* kGroup = "239.1.1.1";

std::vector<Snapshot> replay(const std::vector<std::string>& options = {}) {
    std::vector<std::string> arguments = {"kestor-replay"};
    arguments.insert(arguments.end(), options.begin(), options.end());
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
std::vector<Bytes> damagedDatagrams() {
    TsStream stream;
    stream.pat({{0, 0x10}, {1, 0x100}, {2, 0x110}}).pmt(1, 0x100, 0x101, {{0x1B, 0x101}, {0x0F, 0x102}});
    stream.pcr(0x101, 27'000'000).pes(0x101, {.pts = 9000, .packets = 10});
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
    std::vector<Bytes> datagrams = stream.takeDatagrams();
    datagrams.push_back(Bytes(datagrams.front().size(), 0));
    datagrams.push_back(TsStream().null(4).takeDatagrams().front());
    datagrams.back().resize(3 * 188 + 20);
    return datagrams;
}

TEST(Replay, WritesWhatTheProbeWrites) {
    std::vector<Bytes> frames;
    UdpFlow flow{.group = kGroup, .rtp = true};
    {
        PcapWriter capture(kCapture);
        for (const Bytes& datagram : damagedDatagrams()) {
            frames.push_back(flow.frame(datagram));
            capture.write(kStart, frames.back());
        }
    }
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

    const Probe probe({kGroup});
    for (const Bytes& frame : frames)
        probe.network.send(frame);
    const Snapshot live = snapshotWithPackets(kGroup, std::stoul(line["packetsReceived"]));
    ASSERT_EQ(live.records.size(), replayed[0].records.size());
    for (std::size_t i = 0; i < live.records.size(); ++i)
        EXPECT_EQ(timeless(live.records[i]), timeless(replayed[0].records[i]));
}

TEST(Replay, SnapshotsFollowTheStamps) {
    for (const auto stamps : {PcapWriter::Stamps::kMicro, PcapWriter::Stamps::kNano}) {
        UdpFlow flow{.group = kGroup};
        UdpFlow other{.group = "239.1.1.2"};
        {
            PcapWriter capture(kCapture, stamps);
            TsStream stream;
            const uint64_t first = kStart + 999'999;  // below a microsecond it does not count
            for (const uint64_t at : {0 * kMs, 500 * kMs, 1000 * kMs - 1000, 1000 * kMs, 3200 * kMs}) {
                stream.payload(0x100, 7);
                capture.write(first + at, flow.frame(stream.takeDatagrams().front()));
            }
            capture.write(first + 3201 * kMs, other.frame(TsStream().null(7).takeDatagrams().front()));
        }
        const auto snapshots = replay();
        ASSERT_EQ(snapshots.size(), 4U);
        for (std::size_t i = 0; i < snapshots.size(); ++i)
            EXPECT_EQ(snapshots[i].find(kGroup)["packetsReceived"], (std::array{"21", "28", "28", "35"}[i]));
        EXPECT_EQ(snapshots[3].find("239.1.1.2")["packetsReceived"], "7");
        EXPECT_EQ(snapshots[3].find(kGroup)["igmpLatency"], "0");
        EXPECT_EQ(snapshots[3].find("239.1.1.2")["igmpLatency"], "3201");

        const auto chosen = replay({"-g", "239.1.1.2"});
        ASSERT_EQ(chosen.size(), 4U);
        EXPECT_EQ(chosen[3].count(kGroup), 0U);
        EXPECT_EQ(chosen[0].find("239.1.1.2")["packetsReceived"], "0");
    }
}

TEST(Replay, RefusesWhatItCannotRead) {
    std::ofstream("/tmp/nonsense") << "this is no capture file, though it is long enough to be one";
    PcapWriter("/tmp/raw.pcap", PcapWriter::Stamps::kMicro, DLT_RAW);
    { PcapWriter empty(kCapture); }
    const std::vector<std::pair<std::vector<std::string>, int>> cases = {
        {{"/tmp/absent"}, 1},
        {{"/tmp/nonsense"}, 1},
        {{"/tmp/raw.pcap"}, 1},
        {{"-g", "10.0.0.1", kCapture}, 1},
        {{"-g", "nowhere", kCapture}, 1},
        {{"-o", "/tmp/no/such", kCapture}, 1},
        {{}, 2},
        {{"--unknown", kCapture}, 2},
    };
    for (const auto& [arguments, status] : cases) {
        std::vector<std::string> command = {"kestor-replay"};
        command.insert(command.end(), arguments.begin(), arguments.end());
        Process tool(command);
        EXPECT_EQ(tool.wait(), status) << testing::PrintToString(arguments);
        EXPECT_NE(tool.err(), "");
        if (status == 1) {
            EXPECT_EQ(occurrences(tool.err(), "\n"), 1U) << tool.err();
        }
        EXPECT_EQ(tool.out(), "");
    }
}

// 10.528 Mbit/s: seven packets every millisecond, but of every 500 datagrams the first five wait for the
// sixth.
TEST(Replay, DeliveryIndexAndScoresInControlledTime) {
    {
        UdpFlow flow{.group = kGroup};
        PcapWriter capture(kCapture);
        TsStream stream;
        stream.pat({{1, 0x100}}).pmt(1, 0x100, 0x101, {{0x1B, 0x101}}).payload(0x101, 5);
        for (uint64_t i = 0; i < 27'100; ++i) {
            const uint64_t atMs = i > 0 && i % 500 < 5 ? i - i % 500 + 5 : i;
            capture.write(kStart + atMs * kMs, flow.frame(stream.takeDatagrams().front()));
            stream.payload(0x101, 7);
        }
    }
    const auto snapshots = replay();
    ASSERT_EQ(snapshots.size(), 28U);
    // The first bit rate stands at packet 140000, at 19.999 s, and the sixth interval of more than a second
    // closes at 26.010 s. The held-back datagrams let the buffer sink by six datagrams' bytes: 6 ms.
    EXPECT_EQ(snapshots[25].find(kGroup)["mdiDelayFactor"], "0.000000");
    EXPECT_NEAR(std::stod(snapshots[26].find(kGroup)["mdiDelayFactor"]), 6.0, 0.002);

    EXPECT_EQ(snapshots[1].find(kGroup)["transportQualityIndex"], "4.770000");
    // Each record moves the score towards 4.8; the report behind the latch sees no traffic and moves it
    // towards 4 once more: 4.77, then (43.2 + 4.077) / 10, then (43.2 + 4.07277) / 10.
    const std::array scores = {"4.770000", "4.727700", "4.727277"};
    for (std::size_t i = 0; i < scores.size(); ++i)
        EXPECT_EQ(snapshots[i].find(kGroup, "KP", 0x101)["mosScore"], scores[i]);
    EXPECT_EQ(snapshots[1].find(kGroup, "KP", 0x101)["mosMinimum"], "4.077000");
    EXPECT_EQ(snapshots[1].find(kGroup, "KP", 0x101)["mosMaximum"], "4.770000");
}

TEST(Replay, ArrivalJitterPerBlockOf4096Datagrams) {
    {
        UdpFlow flow{.group = kGroup};
        PcapWriter capture(kCapture);
        const Bytes datagram = TsStream().null(1).takeDatagrams().front();
        for (uint64_t i = 0; i < 8193; ++i)
            capture.write(kStart + i * 10 * kMs, flow.frame(datagram));
    }
    const auto snapshots = replay({"-g", kGroup});
    ASSERT_EQ(snapshots.size(), 82U);
    // The first block holds 4095 spans and the zero of the first datagram: variance 10^2 * 4095 / 4096^2,
    // in single precision.
    const std::vector<std::pair<std::size_t, std::array<const char*, 3>>> expected = {
        {39, {"0.000000", "0.000000", "0"}},
        {40, {"0.024408", "0.024408", "9"}},
        {81, {"0.000000", "0.024408", "10"}},
    };
    for (const auto& [index, values] : expected) {
        const Record& line = snapshots[index].find(kGroup);
        EXPECT_NEAR(std::stod(line["jitterVariance"]), std::stod(values[0]), 5e-6);
        EXPECT_NEAR(std::stod(line["jitterVarianceMaximum"]), std::stod(values[1]), 5e-6);
        EXPECT_EQ(line["jitterMeanInterArrival"], values[2]);
    }
}

}  // namespace
}  // namespace test
