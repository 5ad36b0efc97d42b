// Splice commands: what they say, what counts as repeated, and what cannot be read.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "cues/cues.h"
#include "cues/spliceInfo.h"
#include "fields/wallClock.h"
#include "meter/channelAnalyser.h"
#include "meter/cueJson.h"
#include "support/psiBuilder.h"
#include "support/streamBuilder.h"

namespace meter {
namespace {

using nlohmann::json;
using psi::concat;

constexpr uint16_t kPid = 500;

psi::Bytes pts33(uint64_t pts, uint8_t head) {
    return concat({{static_cast<uint8_t>(head | (pts >> 32 & 1))}, psi::u32(pts & 0xFFFFFFFF)});
}
psi::Bytes spliceTime(uint64_t pts) {
    return pts33(pts, 0xFE);
}

psi::Bytes spliceSection(uint8_t command, const psi::Bytes& content, const psi::Bytes& descriptors = {},
                         uint64_t adjustment = 0, bool encrypted = false, bool openLength = false) {
    const std::size_t length = openLength ? 0xFFF : content.size();
    return psi::withCrc(concat({{0xFC},
                                psi::u16(0x3000 | (11 + content.size() + 2 + descriptors.size() + 4)),
                                {0},
                                pts33(adjustment, encrypted ? 0x80 : 0),
                                {0, 0xFF, psi::low8(0xF0 | length >> 8), psi::low8(length), command},
                                content,
                                psi::u16(descriptors.size()),
                                descriptors}));
}

psi::Bytes insert(uint32_t event, uint8_t flags, const psi::Bytes& rest) {
    return concat({psi::u32(event), {0x7F, flags}, rest, {0, 1, 0, 0}});
}

psi::Bytes segmentation(uint32_t event, const psi::Bytes& rest) {
    const psi::Bytes content = concat({psi::u32(0x43554549), psi::u32(event), rest});
    return psi::descriptor(0x02, content);
}

class MeterCues : public testing::Test {
  protected:
    std::vector<CueReport> feed(const psi::Bytes& bytes, std::optional<Ticks> clock = 0,
                                uint16_t pid = kPid) {
        std::vector<CueReport> found;
        const bool crcOk = psi::crc32Mpeg(bytes) == 0;
        cues_.section({.pid = pid,
                       .bytes = bytes,
                       .hasCrc = true,
                       .crcOk = crcOk,
                       .repeated = false,
                       .moment = moment_},
                      clock, found);
        return found;
    }
    // The document of the cue that a section is; null where it is none.
    json told(const psi::Bytes& bytes, std::optional<Ticks> clock = 0) {
        const auto found = feed(bytes, clock);
        return found.size() == 1 ? json::parse(cueJson(found[0])) : json();
    }
    // That of a cue of which no more is known.
    static json cue(const char* command, const json& known) {
        json document = json::parse(cueJson({}));
        document.update({{"pid", kPid}, {"command", command}});
        document.update(known);
        return document;
    }
    Report report() const {
        Report all;
        cues_.fill(all);
        return all;
    }
    Moment moment_{.wall = 1'700'000'000'000'000'000};
    Cues cues_;
};

TEST_F(MeterCues, SpliceInsertSaysWhenAndForHowLong) {
    const psi::Bytes content =
        insert(0x4800008F, 0xEF, concat({spliceTime(900'000), pts33(5'400'000, 0xFE)}));
    // 4 s of the 10 s and the adjustment are gone: 90000 short of a wrap.
    const auto found =
        feed(spliceSection(5, content, {}, (uint64_t{1} << 33) - 90'000), 270'000'000 - 4 * 27'000'000);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(json::parse(cueJson(found[0])), cue("splice_insert", {{"eventId", 0x4800008F},
                                                                    {"out", true},
                                                                    {"immediate", false},
                                                                    {"pts", 810'000},
                                                                    {"aheadMs", 3000},
                                                                    {"at", "2023-11-14T22:13:23.000Z"},
                                                                    {"durationMs", 60'000}}));
    EXPECT_EQ(found[0].autoReturn, true);
}

TEST_F(MeterCues, OtherFormsOfSpliceInsert) {
    EXPECT_EQ(told(spliceSection(5, insert(1, 0x5F, {}))),
              cue("splice_insert",
                  {{"eventId", 1}, {"out", false}, {"immediate", true}, {"at", "2023-11-14T22:13:20.000Z"}}))
        << "immediate";
    EXPECT_EQ(told(spliceSection(5, concat({psi::u32(1), {0xFF}}))),
              cue("splice_insert", {{"eventId", 1}, {"cancelled", true}}));
    const psi::Bytes components = insert(2, 0x8F, concat({{2, 1}, spliceTime(7), {2}, spliceTime(8)}));
    EXPECT_EQ(told(spliceSection(5, components, {}, 0, false, true), std::nullopt),
              cue("splice_insert", {{"eventId", 2}, {"out", true}, {"immediate", false}, {"pts", 7}}))
        << "by component";
}

TEST_F(MeterCues, TimeSignalsCarrySegmentations) {
    const psi::Bytes hd =
        concat({{0x7F, 0xFF}, {0, 0, 0x29, 0x32, 0xE0}, {0x09, 4}, {'S', 'I', 'G', '1'}, {0x34, 2, 5, 0, 0}});
    const psi::Bytes binary = concat({{0x7F, 0xBF, 0x08, 3, 0xAB, 0x00, 0xCD}, {0x10, 0, 0}});
    const psi::Bytes parts = concat({{0x7F, 0x3F, 1, 7, 0xFE, 0, 0, 0, 0}, {0, 0}, {0xF0, 1, 1}});
    const psi::Bytes descriptors = concat(
        {psi::descriptor(0x00, {'C', 'U', 'E', 'I', 1, 2, 3, 4}), segmentation(11, hd),
         segmentation(12, binary), segmentation(13, parts), psi::descriptor(0x02, {'X', 'Y', 'Z', '1'})});
    const json segmentations = json::parse(R"([
        {"typeId": 52, "type": "Provider Placement Opportunity Start", "eventId": 11, "upidType": 9,
         "upid": "SIG1", "durationMs": 30000, "number": 2, "expected": 5},
        {"typeId": 16, "type": "Program Start", "eventId": 12, "upidType": 8,
         "upid": "ab00cd", "durationMs": null, "number": 0, "expected": 0},
        {"typeId": 240, "type": null, "eventId": 13, "upidType": 0,
         "upid": null, "durationMs": null, "number": 1, "expected": 1}])");
    EXPECT_EQ(told(spliceSection(6, spliceTime(1), descriptors), std::nullopt),
              cue("time_signal", {{"immediate", false}, {"pts", 1}, {"segmentation", segmentations}}));

    const json cancel = told(spliceSection(6, {0x7F}, segmentation(11, {0xFF})));
    EXPECT_EQ(cancel["cancelled"], true);
    EXPECT_EQ(cancel["immediate"], true);
    EXPECT_EQ(cancel["segmentation"][0]["typeId"], nullptr);
}

TEST_F(MeterCues, RepetitionsAreCountedAtTheCueTheyRepeat) {
    const psi::Bytes one = spliceSection(5, insert(1, 0xDF, {}));
    const psi::Bytes two = spliceSection(5, insert(2, 0xDF, {}));
    EXPECT_EQ(feed(one).size(), 1U);
    EXPECT_EQ(feed(two).size(), 1U);
    EXPECT_EQ(feed(one, 0, kPid + 1).size(), 1U);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(feed(one).empty());
    const Report all = report();
    ASSERT_EQ(all.cues.size(), 3U);
    EXPECT_EQ(all.cues[0].repetitions, 3U);
    EXPECT_EQ(all.cues[1].repetitions, 0U);
    EXPECT_EQ(all.cues[2].pid, kPid + 1);
}

TEST_F(MeterCues, TheLatestOnesAreKept) {
    for (uint32_t event = 0; event < kCuesLimit + 10; ++event)
        EXPECT_EQ(feed(spliceSection(5, insert(event, 0xDF, {}))).size(), 1U);
    const Report all = report();
    ASSERT_EQ(all.cues.size(), kCuesLimit);
    EXPECT_EQ(all.cues[0].eventId, 10U);
}

TEST_F(MeterCues, WhatCannotBeReadIsCounted) {
    psi::Bytes badCrc = spliceSection(5, insert(1, 0xDF, {}));
    badCrc.back() ^= 1;
    psi::Bytes longSyntax = spliceSection(0, {});
    longSyntax.resize(longSyntax.size() - 4);
    longSyntax[1] |= 0x80;
    const psi::Bytes malformed[] = {
        badCrc,
        psi::withCrc(longSyntax),
        psi::withCrc({0xFC, 0x30, 4}),
        spliceSection(5, concat({psi::u32(1), {0x7F, 0xCF}})),              // ends within
        spliceSection(6, spliceTime(1), {0x02, 9, 1}),                      // a descriptor that does not fit
        spliceSection(6, spliceTime(1), segmentation(1, {0x7F, 0xFF, 1})),  // fields that do not fit
        spliceSection(5, insert(1, 0x8F, {200, 1, 2, 3}), {}, 0, false, true),
    };
    for (const psi::Bytes& section : malformed)
        EXPECT_TRUE(feed(section).empty());
    EXPECT_TRUE(feed(spliceSection(5, insert(1, 0xDF, {}), {}, 0, true)).empty());
    EXPECT_TRUE(feed(spliceSection(0, {})).empty());  // splice_null: a sign of life
    EXPECT_TRUE(feed(spliceSection(7, {})).empty());
    EXPECT_TRUE(feed(spliceSection(0xFF, {1, 2, 3, 4, 5})).empty());
    EXPECT_EQ(report().cuesMalformed, std::size(malformed));
    EXPECT_EQ(report().cuesEncrypted, 1U);
    EXPECT_TRUE(report().cues.empty());
}

// From packets on: by the clock of its program.
TEST(MeterCueStream, CuesAreReadFromThePidsThatThePmtNames) {
    test::TsStream stream;
    stream.pat({{1, 0x100}}).pmt(1, 0x100, 0x101, {{0x1B, 0x101}, {0x86, kPid}}).pcr(0x101, 27'000'000);
    stream.section(kPid, spliceSection(5, insert(7, 0xCF, spliceTime(450'000))))
        .pcr(0x101, 27'000'000 + 270'000);
    psi::Bytes broken = spliceSection(5, insert(8, 0xDF, {}));
    broken.back() ^= 1;
    stream.section(kPid, broken).section(0x102, spliceSection(5, insert(9, 0xDF, {})));
    Settings settings;
    settings.bare = true;
    ChannelAnalyser analyser(settings);
    for (const psi::Bytes& packets : stream.takeDatagrams())
        analyser.feedPackets(packets);
    analyser.finish();
    const Report report = analyser.report();
    ASSERT_EQ(report.cues.size(), 1U);
    EXPECT_EQ(report.cues[0].eventId, 7U);
    EXPECT_NEAR(report.cues[0].aheadMs.value_or(0), 4000, 10);
    EXPECT_EQ(report.cuesMalformed, 1U);
    ASSERT_EQ(report.services.size(), 1U);
    EXPECT_EQ(report.services[0].streams.at(1).kind, StreamKind::kCue);
}

TEST(MeterWallClock, IsWrittenByRfc3339) {
    EXPECT_EQ(rfc3339(0), "1970-01-01T00:00:00Z");
    EXPECT_EQ(rfc3339Milliseconds(1'714'594'500'123'999'999), "2024-05-01T20:15:00.123Z");
    EXPECT_EQ(rfc3339Milliseconds(-1), "1969-12-31T23:59:59.999Z");
}

}  // namespace
}  // namespace meter
