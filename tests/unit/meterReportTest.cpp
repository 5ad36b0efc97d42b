// The report's JSON, where what is not known is null and never 0, and its text for people.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "meter/reportText.h"
#include "support/fullReport.h"

namespace {

using nlohmann::json;

TEST(MeterReport, HasEveryMemberAndNullForWhatIsNotKnown) {
    meter::Report report;
    report.flow.emplace();
    report.network.emplace();
    report.services.emplace_back().streams.emplace_back();
    const json parsed = json::parse(meter::toJson(report));
    EXPECT_EQ(parsed.at("schema"), 1);
    EXPECT_TRUE(parsed.at("begin").is_null());
    EXPECT_TRUE(parsed.at("flow").at("source").is_null());
    EXPECT_TRUE(parsed.at("network").at("mdi").at("delayFactorMs").is_null());
    EXPECT_TRUE(parsed.at("network").at("rtp").is_null());
    EXPECT_EQ(parsed.at("network").at("histogram").size(), meter::kHistogramBins);
    EXPECT_TRUE(parsed.at("services").at(0).at("streams").at(0).at("video").is_null());
}

TEST(MeterReport, EscapesTextsAndWritesNumbersExactly) {
    meter::Report report;
    report.group = 0xEF010203;
    report.seconds = 60.0;
    report.services.emplace_back().name = "a\"b\\c\nd\xC3\xA4";
    report.checks.push_back(
        {.id = "1.4", .name = "x", .count = 1ULL << 60, .first = {}, .last = 0.1, .pids = {{256, 3}}});
    const std::string text = meter::toJson(report);
    const json parsed = json::parse(text);
    EXPECT_EQ(parsed.at("group"), "239.1.2.3");
    EXPECT_EQ(parsed.at("services").at(0).at("name"), "a\"b\\c\nd\xC3\xA4");
    EXPECT_EQ(parsed.at("checks").at(0).at("count"), 1ULL << 60);
    EXPECT_EQ(parsed.at("checks").at(0).at("pids").at("256"), 3);
    EXPECT_EQ(text.find('\n'), std::string::npos);
}

// What people read is kept as it is: a change of it shows here.
TEST(MeterReport, ReadsAsPeopleAreUsedTo) {
    meter::Report report = test::fullReport(0xEF010101);
    report.live = {true, 3, 7.5, 12.25, meter::LiveReport::LeftOut{.cues = 2, .pids = 5}};
    report.bitrate.byClock = 3'210'987;
    meter::PidReport& null = report.pids.emplace_back();
    null.pid = 8191;
    null.kind = "null";
    null.packets = 1'234'567;
    null.bps = 2'100'000;
    EXPECT_EQ(meter::reportText(report, ""),
              R"(239.1.1.1:5000 from 10.0.0.1:1234 over RTP, 12.5 s from 2026-01-02T03:04:05Z
this machine dropped frames a moment ago, or captured nothing: losses may be its own
3 s with such drops so far, the last at 8 s
too large to be told whole: left out 2 cues, 5 PIDs
first datagram 12.2 ms after the join
  bit rate   3.211 Mbit/s, 0.000 to 0.000 in a second, constant, 35.0 % null packets
  packets    21 received, 23 scrambled, 24 repeated, 20 of PIDs not tracked
  lost       -5 by the clock, in 28 runs, the longest 29 packets (30.5 ms)
  datagrams  11, 7 packets each, 12 malformed, 13 IP fragments, 14 of other flows, 15 of FEC, TTL...
  transport  id 71, original network 72, network "network", time 2026-01-02T03:04:06Z, -74 ms off...

SERVICES (PID, Mbit/s, stream)
  1 one (provider), PMT 256, PCR 258, scrambled
    258  0.000  H.264: 1920x1080 25 fps interlaced, High level 40, 4:2:0, HLG, deu, CA 0x0100 on ...
                group of pictures: 12, 480 ms, IBBP
    259      -  audio, stream type 0x00: 48 kHz stereo, 192 kbit/s, LC
    260      -  teletext, stream type 0x00, page 100 888
    now:  now, 2026-01-02T03:00:00Z, 60 min
    next: next
  2 without a name, PMT 300

ERRORS (ETSI TR 101 290)
  CHECK                        COUNT  SECONDS  FIRST s  LAST s  PIDs
  1.1    TS_sync_loss          1,000    2,000      0.5  active  8190 (9), 256 (0)
  1.3.a  PAT_error_2           1,002    2,002      0.5     3.5  8190 (9), 256 (2)
  1.5.a  PMT_error_2           1,004    2,004      0.5     5.5  8190 (9), 256 (4)
  2.1    Transport_error       1,006    2,006      0.5  active  8190 (9), 256 (6)
  2.3.a  PCR_repetition_error  1,008    2,008      0.5     9.5  8190 (9), 256 (8)
  2.4    PCR_accuracy_error    1,010    2,010      0.5    11.5  256 (10), 8190 (9)
  2.6    CAT_error             1,012    2,012      0.5  active  256 (12), 8190 (9)
  3.1.b  NIT_other_error       1,014    2,014      0.5    15.5  256 (14), 8190 (9)
  3.4.a  Unreferenced_PID      1,016    2,016      0.5    17.5  256 (16), 8190 (9)
  3.5.b  SDT_other_error       1,018    2,018      0.5  active  256 (18), 8190 (9)
  3.6.b  EIT_other_error       1,020    2,020      0.5    21.5  256 (20), 8190 (9)
  3.7    RST_error             1,022    2,022      0.5    23.5  256 (22), 8190 (9)
  not applicable: 1.3.a PAT_error_2, 2.1 Transport_error, 2.4 PCR_accuracy_error, 3.1.b NIT_other...

CLOCKS
  PID  MEAN ms  HIGHEST ms  ACCURACY ns  OVER 500  OFFSET ppm  JITTER us  ANNOUNCED  STEPS
  257     42.5        41.5           44        45      -48.50        0.0         49     50

NETWORK
  inter-arrival ms  lowest 51.500, mean 52.500, 99 % below 54.500, highest 53.500 (last second)
  delay factor ms   55.5, highest 56.5
  media loss rate   57 packets in the last second, highest 58
  RTP datagrams     61 received, -62 lost in 63 runs, the longest 64, 65 repeated, 66 out of order
                    payload type 33, SSRC 0xDEADBEEF, jitter 67.500 ms, 68 steps of the time stam...

CUES (SCTE 35)
  500  splice_insert, event 9, out, PTS 4294967296, 4.0 s ahead, for 30.0 s; Provider Placement O...
  91 encrypted
  92 malformed

CHANGES
  1.5 s  stream 259 was added

OTHER PIDS
   PID  Mbit/s    PACKETS  CC ERR  KIND
  8191   2.100  1,234,567       0  null
)");
    EXPECT_EQ(meter::reportText({}, "some.ts"), R"(some.ts, duration unknown
  bit rate  unknown: no program clock runs; --bitrate tells it
  packets   0 received
  lost      -

SERVICES
  none: no program association table with its maps came

ERRORS (ETSI TR 101 290)
  not measured: no transport packets came

CLOCKS
  none: no PCR came
)");
}

}  // namespace
