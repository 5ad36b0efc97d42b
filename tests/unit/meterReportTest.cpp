// The report's JSON, where what is not known is null and never 0, and its text for people.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "meter/reportText.h"
#include "support/fullReport.h"
#include "support/scratch.h"

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

// What people read is kept as it is (reportText.txt): a change of it shows here.
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
              station::contentOf(KESTOR_SOURCE_DIR "/tests/unit/reportText.txt"));
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
