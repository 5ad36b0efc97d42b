// The records' columns: their documentation, and lines taken apart by them.
#include "recordColumns.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "recordParser.h"
#include "support/process.h"

namespace {

using records::Column;
using records::Kind;
using records::Record;

// Number of a column in records of that kind, counted from 1, or a dash.
std::string numberOf(std::string_view name, Kind kind) {
    const auto columns = records::columnsOf(kind);
    const auto found = std::ranges::find(columns, name, &Column::name);
    if (name == records::kDescriptorTagsColumn.name)
        return std::to_string(columns.size() + 1) + "...";
    return found == columns.end() ? "-" : std::to_string(found - columns.begin() + 1);
}

std::string row(const Column& column, std::initializer_list<Kind> kinds) {
    std::string text = "|";
    for (const Kind kind : kinds)
        text += " " + numberOf(column.name, kind) + " |";
    text += " `" + std::string(column.name) + "` | " + std::string(records::typeName(column.type)) + " |";
    return text + " " + std::string(column.unit.empty() ? "-" : column.unit) + " | " +
           std::string(column.meaning) + " |";
}

TEST(RecordColumns, AreDocumentedOneByOne) {
    std::vector<std::string> expected;
    for (const Column& column : records::columnsOf(Kind::kStream))
        expected.push_back(row(column, {Kind::kStream}));
    std::vector<Column> pidColumns(records::kKnownPidColumns.begin(), records::kKnownPidColumns.end());
    pidColumns.push_back(records::kDescriptorTagsColumn);
    for (const Column& column : pidColumns)
        expected.push_back(row(column, {Kind::kPat, Kind::kUnlistedPid, Kind::kKnownPid}));

    std::ifstream file(test::sourceDir() + "/docs/records.md");
    std::vector<std::string> rows;
    for (std::string line; std::getline(file, line);)
        if (line.starts_with("| ") && line.find(" | `") != std::string::npos)
            rows.push_back(line);
    EXPECT_THAT(rows, testing::ElementsAreArray(expected));
}

// A well-formed line whose column `index` (from 0) holds `value` instead of its own number.
std::string line(Kind kind, std::size_t index = 0, const std::string& value = "239.1.1.1") {
    const auto columns = records::columnsOf(kind);
    std::string text = "239.1.1.1;1;0;" + std::string(records::kKinds[static_cast<std::size_t>(kind)].label);
    for (std::size_t i = records::kLabelColumn + 1; i < columns.size(); ++i)
        text += ";" + (i == index ? value
                       : columns[i].name == "descriptorCount"
                           ? "2"
                           : std::to_string(std::min<uint64_t>(i + 1, columns[i].maximum)));
    return text + (kind == Kind::kStream ? "" : ";82;40");
}

// Place in a stream's record.
std::size_t index(std::string_view column) {
    return *records::columnIndex(Kind::kStream, column);
}

TEST(RecordParser, TakesLinesApartAndTellsWhatIsWrong) {
    std::string text;
    for (const auto& [kind, label] : records::kKinds)
        text += line(kind) + "\n";
    text += line(Kind::kStream, 42, "18446744073709551615") + "\n" + line(Kind::kStream, 33, "-0.000001");
    const auto unexpected = [](std::size_t number, const std::string& problem) {
        ADD_FAILURE() << number << ": " << problem;
    };
    const records::Snapshot snapshot = records::parseSnapshot(text, unexpected);
    ASSERT_EQ(snapshot.size(), records::kKinds.size() + 2);
    for (std::size_t i = 0; i < records::kKinds.size(); ++i) {
        const auto& [kind, label] = records::kKinds[i];
        const Record& record = snapshot[i];
        EXPECT_EQ(record.kind(), kind);
        EXPECT_EQ(record.text("group"), "239.1.1.1");
        EXPECT_EQ(record.text("label"), label);
        EXPECT_EQ(record.text("packetsReceived"), numberOf("packetsReceived", kind));
        EXPECT_EQ(std::to_string(record.integer("packetsReceived")), numberOf("packetsReceived", kind));
        EXPECT_EQ(record.has("pmtPid"), kind == Kind::kKnownPid);
        const std::vector<uint64_t> tags = record.descriptorTags();
        EXPECT_THAT(tags, testing::ElementsAreArray(kind == Kind::kStream ? std::vector<uint64_t>{}
                                                                          : std::vector<uint64_t>{82, 40}));
    }
    EXPECT_EQ(records::parseSnapshot(line(Kind::kStream, index("ttl"), "255") + "\n" +
                                         line(Kind::kStream, index("sourceAddress"), "-2147483648"),
                                     unexpected)
                  .size(),
              2U);
    EXPECT_EQ(snapshot[5].integer("igmpLatency"), -1);
    EXPECT_EQ(snapshot[5].number("igmpLatency"), 18446744073709551616.0);
    EXPECT_EQ(snapshot[6].fraction("mdiDelayFactor"), -0.000001);

    const std::pair<std::string, const char*> malformed[] = {
        {"\n", "no label"},
        {"239.1.1.1;1;0;XY;1", "unknown label"},
        {line(Kind::kStream) + ";1", "1 columns behind the last instead of 0"},
        {line(Kind::kPat) + ";", "column 46 (descriptorTags) is no unsigned value"},
        {line(Kind::kPat).substr(0, 40), "columns instead of 43"},
        {"239.1.1.1;x;0;PAT", "4 columns instead of 43"},
        {line(Kind::kKnownPid, 4, "-1"), "column 5 (streamType) is no unsigned value"},
        {line(Kind::kStream, index("ttl"), "99999999999"), "(ttl) has a value that it cannot have"},
        {line(Kind::kStream, index("ttl"), "256"), "(ttl) has a value that it cannot have"},
        {line(Kind::kStream, index("dscp"), "64"), "(dscp) has a value that it cannot have"},
        {line(Kind::kStream, index("sourceAddress"), "-2147483649"), "(sourceAddress) has a value"},
        {line(Kind::kStream, index("sourceAddress"), "2147483648"), "(sourceAddress) has a value"},
        {line(Kind::kStream, index("destinationPort"), "65536"), "(destinationPort) has a value"},
        {"239.1.1.1;1;8192" + line(Kind::kPat).substr(13), "(pid) has a value"},
        {"239.1.1.1;1;-2" + line(Kind::kPat).substr(13), "(pid) has a value"},
        {line(Kind::kPat).substr(0, line(Kind::kPat).size() - 2) + "256", "(descriptorTags) has a value"},
        {line(Kind::kStream, 33, "1.5x"), "column 34 (mdiDelayFactor) is no fraction value"},
    };
    for (const auto& [bad, problem] : malformed) {
        std::vector<std::string> told;
        const auto tell = [&told](std::size_t number, const std::string& why) {
            told.push_back(std::to_string(number) + ": " + why);
        };
        EXPECT_EQ(records::parseSnapshot(line(Kind::kPmt) + "\n" + bad, tell).size(), 1U);
        EXPECT_THAT(told, testing::ElementsAre(
                              testing::AllOf(testing::StartsWith("2: "), testing::HasSubstr(problem))));
    }
}

// A writer that is ended, or a second one, may damage any line.
TEST(RecordParser, GivesRecordsToTheGroupInTheirFirstColumn) {
    const auto of = [](int group, Kind kind) {
        return "239.1.1." + std::to_string(group) + line(kind).substr(9) + "\n";
    };
    struct Case {
        const char* what;
        std::string text;
        const char* groups;
    };
    const Case cases[] = {
        {"all whole",
         of(1, Kind::kStream) + of(1, Kind::kPat) + of(1, Kind::kKnownPid) + of(2, Kind::kStream) +
             of(2, Kind::kPat),
         "239.1.1.1:2 239.1.1.2:1 "},
        {"the second group's stream is damaged",
         of(1, Kind::kStream) + of(1, Kind::kPat) + "damaged\n" + of(2, Kind::kPat) + of(2, Kind::kKnownPid) +
             of(3, Kind::kStream) + of(3, Kind::kPat),
         "239.1.1.1:1 239.1.1.3:1 "},
        {"the first group's stream is damaged", of(1, Kind::kPat) + of(2, Kind::kStream), "239.1.1.2:0 "},
        {"a damaged PID", of(1, Kind::kStream) + of(1, Kind::kPat) + "damaged\n" + of(1, Kind::kKnownPid),
         "239.1.1.1:2 "},
        {"another's PID between", of(1, Kind::kStream) + of(2, Kind::kPat) + of(1, Kind::kPat),
         "239.1.1.1:0 "},
        {"nothing", "", ""},
    };
    for (const Case& one : cases) {
        const records::Snapshot snapshot = records::parseSnapshot(one.text, [](std::size_t, const auto&) {});
        std::string groups;
        for (const records::GroupRecords& group : records::groupsOf(snapshot)) {
            groups +=
                std::string(group.stream->text("group")) + ":" + std::to_string(group.pids.size()) + " ";
        }
        EXPECT_EQ(groups, one.groups) << one.what;
    }
}

}  // namespace
