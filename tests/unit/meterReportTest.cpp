// The report's JSON: what is not known is null, and never 0.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "meter/report.h"

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

}  // namespace
