// Loss and jitter of RTP in captures made here, held against what tshark says of them:
//
//     tshark -r CAPTURE -d udp.port==5000,rtp -q -z rtp,streams
//
// Its figures stand in the table, since it is too large to be installed for one test; where it is installed
// it is asked again.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>
#include <sstream>

#include "measure.h"
#include "support/frameBuilder.h"
#include "support/scratch.h"

namespace {

using psi::Bytes;

constexpr unsigned kDatagrams = 1000;
constexpr int64_t kUs = 5000;  // between two datagrams, which are 450 ticks of the time stamp

struct Sent {
    unsigned number;
    int64_t us;
};

struct RtpCase {
    const char* what;
    void (*plant)(std::vector<Sent>& sent);
    unsigned received;
    unsigned lost;
    double highestJitterMs;  // as the jitter never falls here it is the last one, too
};

const RtpCase kCases[] = {
    {"nothing", [](std::vector<Sent>&) {}, 1000, 0, 0},
    {"a burst and one",
     [](std::vector<Sent>& sent) {
         sent.erase(sent.begin() + 500, sent.begin() + 530);
         sent.erase(sent.begin() + 100);
     },
     969, 31, 0},
    {"pairs out of order",
     [](std::vector<Sent>& sent) {
         for (std::size_t i = 10; i < 1000; i += 40)
             std::swap(sent[i].number, sent[i + 1].number);
         sent.resize(973);  // up to where the last pair's jitter is highest
     },
     973, 0, 1.269},
    {"every second one 1 ms late",
     [](std::vector<Sent>& sent) {
         for (std::size_t i = 1; i < sent.size(); i += 2)
             sent[i].us += 1000;
     },
     1000, 0, 1.000},
    {"later and later, and losses",
     [](std::vector<Sent>& sent) {
         for (std::size_t i = 1; i < sent.size(); i += 2)
             sent[i].us += static_cast<int64_t>(2 * i);
         sent.erase(sent.begin() + 300, sent.begin() + 310);
     },
     990, 10, 1.967},
};

void writeCapture(const std::string& path, const RtpCase& planted) {
    std::vector<Sent> sent;
    for (unsigned i = 0; i < kDatagrams; ++i)
        sent.push_back({i, i * kUs});
    planted.plant(sent);
    const Bytes packet = psi::concat({{0x47, 0x1F, 0xFF, 0x10}, Bytes(184, 0xFF)});
    test::PcapWriter capture(path);
    for (const Sent& one : sent) {
        const Bytes header = psi::concat(
            {{0x80, 33}, psi::u16(65'000 + one.number), psi::u32(1'000'000 + one.number * 450), psi::u32(7)});
        capture.write(static_cast<uint64_t>(one.us) * 1000,
                      test::UdpFlow().frame(psi::concat({header, packet})));
    }
}

std::string outputOf(const std::string& command) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    std::string output;
    std::array<char, 4096> part;
    while (pipe && fgets(part.data(), part.size(), pipe.get()) != nullptr)
        output += part.data();
    return output;
}

TEST(MeterRtpReference, TsharkSaysTheSameOfLossAndJitter) {
    const station::ScratchDirectory scratch;
    const std::string path = scratch.path() / "rtp.pcap";
    const bool ask = std::system("command -v tshark >/dev/null") == 0;
    for (const RtpCase& planted : kCases) {
        SCOPED_TRACE(planted.what);
        writeCapture(path, planted);
        const MeasuredFile measured = measureFile(path, {}, [](uint64_t, uint64_t) {});
        ASSERT_EQ(measured.reports.size(), 1U) << measured.failure;
        const meter::RtpReport rtp = measured.reports[0].network.value().rtp.value();
        EXPECT_EQ(rtp.received, planted.received);
        EXPECT_EQ(rtp.lost, planted.lost);
        EXPECT_NEAR(rtp.jitterMs.value(), planted.highestJitterMs, 0.002);
        if (ask) {
            const std::string line =
                outputOf("tshark -r " + path +
                         " -d udp.port==5000,rtp -q -z rtp,streams 2>/dev/null | grep -o 'streams .*'");
            std::istringstream words(line);
            std::string streams;
            std::string share;
            unsigned received = 0;
            unsigned lost = 0;
            std::array<double, 6> figures{};  // delta, jitter: lowest, mean, highest
            words >> streams >> received >> lost >> share;
            for (double& figure : figures) {
                words >> figure;
            }
            ASSERT_TRUE(words) << line;
            EXPECT_EQ(received, planted.received);
            EXPECT_EQ(lost, planted.lost);
            EXPECT_NEAR(figures[5], planted.highestJitterMs, 0.001);
        }
    }
    if (!ask) {
        GTEST_SKIP() << "tshark is not installed: held against the figures that it gave alone";
    }
}

}  // namespace
