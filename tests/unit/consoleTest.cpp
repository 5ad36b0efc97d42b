// What kestorctl reads and shows without asking anybody.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <sstream>

#include "recordColumns.h"
#include "table.h"
#include "times.h"

namespace {

using std::chrono::sys_seconds;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

TEST(Console, ReadsTimesAsPeopleTypeThem) {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    tzset();
    const sys_seconds evening = *parseTime("2026-11-22T21:30:00Z", {});
    struct Case {
        const char* text;
        const char* meant;  // empty: refused
    };
    for (const Case& one : std::vector<Case>{
             {"2026-11-22T21:30:00Z", "2026-11-22T21:30:00Z"},
             {"2026-11-22t22:30:00+01:00", "2026-11-22T21:30:00Z"},
             {"2026-11-22 16:00-05:30", "2026-11-22T21:30:00Z"},
             {"2026-11-22 22:00", "2026-11-22T21:00:00Z"},
             {"2026-07-01T22:00:30", "2026-07-01T20:00:30Z"},
             {"23:00", "2026-11-22T22:00:00Z"},
             {"22:30", "2026-11-23T21:30:00Z"},  // it is that already
             {"06:00:05", "2026-11-23T05:00:05Z"},
             {"2026-03-29 02:30", ""},  // left out by the clocks
             {"2026-02-30 10:00", ""},
             {"2026-02-30T10:00:00Z", ""},
             {"2026-13-01 10:00", ""},
             {"24:00", ""},
             {"22:60", ""},
             {"2:00", ""},
             {"22:00x", ""},
             {"2026-11-22", ""},
             {"2026-11-22 22:00+1", ""},
             {"2026-11-22 -9:00", ""},
             {"tomorrow", ""},
             {"", ""},
         }) {
        const auto time = parseTime(one.text, evening);
        EXPECT_EQ(time ? rfc3339(*time) : "", one.meant) << one.text;
    }
}

TEST(Console, ReadsDurations) {
    const auto seconds = [](const char* text) {
        const auto duration = parseDuration(text);
        return duration ? duration->count() : -1;
    };
    EXPECT_EQ(seconds("90m"), 5400);
    EXPECT_EQ(seconds("1h30m"), 5400);
    EXPECT_EQ(seconds("1d"), 86'400);
    EXPECT_EQ(seconds("45s"), 45);
    for (const char* text :
         {"", "2", "h", "-1h", "0m", "1.5h", "2x", "99999999999d", "2147483647d", "1h 30m"}) {
        EXPECT_EQ(seconds(text), -1) << text;
    }
}

// A record whose columns hold what is given, else 0.
std::string record(records::Kind kind, const std::map<std::string_view, std::string>& values) {
    std::string text;
    for (const records::Column& column : records::columnsOf(kind)) {
        const auto found = values.find(column.name);
        text += (text.empty() ? "" : ";") + (found == values.end() ? "0" : found->second);
    }
    return text + "\n";
}

TEST(Console, FitsTheTableIntoTheTerminal) {
    // Everything as wide as its column is meant for.
    const std::map<std::string_view, std::string> counters = {
        {"group", "239.255.255.255"}, {"destinationPort", "65535"},          {"sourceAddress", "-1"},
        {"sourcePort", "65534"},      {"packetsReceived", "4294967295"},     {"bitRate", "999999999"},
        {"packetsLost", "9999999"},   {"Continuity_count_error", "99999999"}};
    auto stream = counters;
    stream["label"] = "-1";
    stream["wrongSource"] = "1";
    stream["mdiDelayFactor"] = "99999.123456";
    stream["transportQualityIndex"] = "4.991234";
    auto pid = counters;
    pid["label"] = "KP";
    pid["pid"] = "8190";
    pid["streamType"] = "27";
    pid["pmtPid"] = "8189";
    pid["mosScore"] = "4.5";
    pid["pictureWidth"] = "3840";
    pid["pictureHeight"] = "2160";
    pid["gopLength"] = "1000";
    const auto snapshot =
        records::parseSnapshot(record(records::Kind::kStream, stream) + record(records::Kind::kKnownPid, pid),
                               [](std::size_t, const std::string& problem) { ADD_FAILURE() << problem; });
    ASSERT_EQ(snapshot.size(), 2U);
    for (const int width : {71, 80, 90, 100, 109, 120, kTableWidth, 500}) {
        const std::string table = renderTable(snapshot, width);
        std::istringstream lines(table);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), static_cast<std::size_t>(std::min(width, kTableWidth))) << width << "\n"
                                                                                           << table;
        }
        EXPECT_THAT(table, AllOf(HasSubstr("239.255.255.255:65535 255.255.255.255"), HasSubstr(" 9999999 ")));
    }
    EXPECT_THAT(renderTable(snapshot, 80),
                AllOf(HasSubstr("255.255.255.255 +"), Not(HasSubstr("PICTURE")), HasSubstr("DF ms"),
                      HasSubstr("4.99\n"), HasSubstr("4.50\n")));
    EXPECT_THAT(renderTable(snapshot, 100), AllOf(HasSubstr("PICTURE"), Not(HasSubstr("PACKETS"))));
    EXPECT_THAT(renderTable(snapshot),
                AllOf(HasSubstr("255.255.255.255:65534 and other"), HasSubstr("PACKETS")));
}

}  // namespace
