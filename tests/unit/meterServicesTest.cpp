// What tables say: programs, streams, names, events, and what changed between two versions.
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>
#include <string>

#include "fields/sectionFields.h"
#include "fields/wallClock.h"
#include "services/dvbText.h"
#include "services/dvbTime.h"
#include "services/services.h"
#include "services/streamTypes.h"
#include "support/psiBuilder.h"

namespace meter {
namespace {

using nlohmann::json;
using psi::concat;
using psi::descriptor;
using testing::ElementsAre;
using testing::IsEmpty;

psi::Bytes text(std::string_view characters) {
    return {characters.begin(), characters.end()};
}

psi::Bytes counted(const psi::Bytes& bytes) {
    return concat({{psi::low8(bytes.size())}, bytes});
}

TEST(MeterTexts, AreReadByTheCharacterSetTheyName) {
    struct Row {
        std::string_view bytes;
        std::string_view expected;
    };
    using namespace std::string_view_literals;
    constexpr Row kRows[] = {
        {""sv, ""},
        {"Das Erste HD"sv, "Das Erste HD"},
        {"caf\xC2\x65 \xC8\x6F\xFB"sv, "caf\xC3\xA9 \xC3\xB6\xC3\x9F"},  // ISO 6937: accent first
        {"5 \xA4\xC8"sv, "5 \xE2\x82\xAC\xEF\xBF\xBD"},                  // the euro sign; an accent alone
        {"a\x8A"
         "b\x86"
         "c\x87\x01"sv,
         "a bc"},                                // line break, emphasis
        {"\x01\xD0\xD1"sv, "\xD0\xB0\xD0\xB1"},  // ISO 8859-5
        {"\x05\xFD"sv, "\xC4\xB1"},              // ISO 8859-9
        {"\x0B\xA4"sv, "\xE2\x82\xAC"},          // ISO 8859-15
        {"\x10\x00\x02\xA3"sv, "\xC5\x81"},      // ISO 8859-2
        {"\x10\x00\x0C\xA3"sv, ""},              // there is no part 12
        {"\x10"sv, ""},
        {"\x11\x04\x1F\x00\x41\xE0\x8A\x00\x42\xE0\x86"sv,
         "\xD0\x9F"
         "A B"},  // two bytes a character
        {"\x11\x04"sv, "\xEF\xBF\xBD"},
        {"\x11\xD8\x00\x00\x41"sv,
         "\xEF\xBF\xBD"
         "A"},
        {"\x12\xB0\xA1"sv, "\xEA\xB0\x80"},  // KS X 1001
        {"\x13\xB0\xA1"sv, "\xE5\x95\x8A"},  // GB 2312
        {"\x14\x4E\x00"sv, "\xE4\xB8\x80"},  // ISO/IEC 10646
        {"\x15\xC3\xA4\xEE\x82\x8A!"sv, "\xC3\xA4 !"},
        {"\x15\xFF\x41\xC3"sv,
         "\xEF\xBF\xBD"
         "A\xEF\xBF\xBD"},
        {"\x1F\x01zz"sv, ""},  // compressed by a table that is not public
        {"\x0C reserved"sv, ""},
    };
    for (const Row& row : kRows)
        EXPECT_EQ(decodeText(text(row.bytes)), row.expected) << testing::PrintToString(row.bytes);
}

TEST(MeterTimes, AreReadFromModifiedJulianDates) {
    const psi::Bytes example = {0xC0, 0x79, 0x12, 0x45, 0x00};  // annex C: 93/10/13 12:45:00
    EXPECT_EQ(rfc3339(utcTime(example, 0).value()), "1993-10-13T12:45:00Z");
    const psi::Bytes undefined = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(utcTime(undefined, 0), std::nullopt);
    EXPECT_EQ(utcTime(example, 1), std::nullopt);
    const psi::Bytes noTime = {0xC0, 0x79, 0x24, 0x00, 0x00};
    EXPECT_EQ(utcTime(noTime, 0), std::nullopt);
}

TEST(MeterStreamTypes, AreToldByTypeAndDescriptors) {
    const psi::Bytes none;
    struct Row {
        uint8_t type;
        psi::Bytes descriptors;
        std::string_view codec;
        StreamKind kind;
    };
    const Row rows[] = {
        {0x02, none, "MPEG-2 video", StreamKind::kVideo},
        {0x1B, none, "H.264", StreamKind::kVideo},
        {0x24, none, "H.265", StreamKind::kVideo},
        {0x03, none, "MPEG audio", StreamKind::kAudio},
        {0x0F, none, "AAC", StreamKind::kAudio},
        {0x11, none, "AAC LATM", StreamKind::kAudio},
        {0x81, none, "AC-3", StreamKind::kAudio},
        {0x87, none, "E-AC-3", StreamKind::kAudio},
        {0x86, none, "SCTE 35", StreamKind::kCue},
        {0x06, none, "", StreamKind::kData},
        {0x06, concat({descriptor(0x52, {1}), descriptor(0x6A, {0})}), "AC-3", StreamKind::kAudio},
        {0x06, descriptor(0x7A, {0}), "E-AC-3", StreamKind::kAudio},
        {0x06, descriptor(0x7C, {0x58}), "AAC", StreamKind::kAudio},
        {0x06, descriptor(0x05, text("AC-3")), "AC-3", StreamKind::kAudio},
        {0x06, descriptor(0x05, text("HEVC")), "H.265", StreamKind::kVideo},
        {0x06, descriptor(0x05, text("XXXX")), "", StreamKind::kData},
        {0x06, descriptor(0x7F, {0x15}), "", StreamKind::kAudio},
        {0x06, descriptor(0x56, text("deu\x08\x00")), "teletext", StreamKind::kTeletext},
        {0x06, descriptor(0x59, text("deu\x10")), "DVB subtitles", StreamKind::kSubtitle},
        {0x06, {0x6A, 200, 1}, "", StreamKind::kData},  // does not fit
        {0x05, descriptor(0x6A, {0}), "", StreamKind::kData},
        {0xEA, none, "", StreamKind::kVideo},
    };
    for (const Row& row : rows) {
        const StreamIdentity identity = identifyStream(row.type, row.descriptors);
        EXPECT_EQ(codecName(identity.codec), row.codec) << int{row.type};
        EXPECT_EQ(identity.kind, row.kind) << int{row.type};
    }
}

// Sections through the room, as they come from one assembler a PID.
class MeterServices : public testing::Test {
  protected:
    static constexpr uint16_t kPmtPid = 0x100;

    std::vector<std::string> feed(uint16_t pid, const psi::Bytes& bytes, bool repeated = false) {
        std::vector<ChangeReport> changes;
        services_.section(
            {.pid = pid, .bytes = bytes, .hasCrc = true, .repeated = repeated, .moment = moment_}, changes);
        std::vector<std::string> texts;
        for (const ChangeReport& change : changes)
            texts.push_back(change.what + "|" + change.text);
        return texts;
    }
    std::vector<std::string> pat(uint8_t version, const std::vector<std::pair<uint16_t, uint16_t>>& programs,
                                 uint8_t number = 0, uint8_t last = 0) {
        psi::Bytes payload;
        for (const auto& [program, pid] : programs)
            payload = concat({payload, psi::u16(program), psi::u16(0xE000U | pid)});
        return feed(0, psi::section(0x00, 7, version, payload, number, last));
    }
    std::vector<std::string> pmt(uint8_t version, const std::vector<psi::ElementaryStream>& streams,
                                 uint16_t pcrPid = 0x101) {
        return feed(kPmtPid, psi::pmtSection(1, version, pcrPid, streams));
    }
    std::vector<std::string> sdt(uint8_t version, std::string_view name, uint8_t running = 4) {
        const psi::Bytes service =
            descriptor(0x48, concat({{0x19}, counted(text("Provider")), counted(text(name))}));
        return feed(0x11, psi::section(0x42, 7, version,
                                       concat({psi::u16(0x2114),
                                               {0xFF},
                                               psi::u16(1),
                                               {0xFF},
                                               psi::loop12(service, static_cast<uint8_t>(running << 1))})));
    }
    Report report() const {
        Report all;
        services_.fill(all);
        return all;
    }

    Moment moment_{.arrival = 2'500'000'000};
    Services services_;
};

psi::Bytes language(std::string_view code, uint8_t type = 0) {
    return descriptor(0x0A, concat({text(code), {type}}));
}

TEST_F(MeterServices, AreShownWithAllThatTablesSayOfThem) {
    pat(3, {{0, 0x10}, {1, kPmtPid}});
    feed(
        kPmtPid,
        psi::section(
            0x02, 1, 5,
            concat({psi::u16(0xE101),
                    psi::loop12(descriptor(0x09, {0x18, 0x01, 0xE5, 0x00})),
                    {0x06},
                    psi::u16(0xE103),
                    psi::loop12(
                        descriptor(0x56, concat({text("deu"), {0x09, 0x00}, text("deu"), {0x10, 0x50}}))),
                    {0x1B},
                    psi::u16(0xE101),
                    psi::loop12(concat({descriptor(0x52, {9}), descriptor(0x28, {1, 2, 3, 0x80})})),
                    {0x0F},
                    psi::u16(0xE102),
                    psi::loop12(concat({language("eng", 3), descriptor(0x09, {0x0B, 0x00, 0xE5, 0x01})}))})));
    sdt(1, "One");
    feed(0x10,
         psi::section(0x40, 9, 0, concat({psi::loop12(descriptor(0x40, text("Net"))), psi::loop12({})})));
    const psi::Bytes event = descriptor(0x4D, concat({text("eng"), counted(text("News")), counted({})}));
    feed(0x12, psi::section(0x4E, 1, 0,
                            concat({psi::u16(7),
                                    psi::u16(0x2114),
                                    {0, 0x4E},
                                    psi::u16(77),
                                    {0xC0, 0x79, 0x12, 0x45, 0x00},
                                    {0x01, 0x30, 0x00},
                                    psi::loop12(event, 8)})));
    moment_.wall = 1'000'000'000'000'000'000;
    feed(0x14, psi::shortSection(0x70, {0xC0, 0x79, 0x12, 0x45, 0x30}, false));
    const Report all = report();
    json document = json::parse(toJson(all));
    EXPECT_EQ(document["transport"],
              json::parse(R"({"transportStreamId": 7, "originalNetworkId": 8468, "network": "Net",
                              "utc": "1993-10-13T12:45:30Z", "utcOffsetMs": -249483670000})"));
    ASSERT_EQ(all.services.size(), 1U);
    document["services"][0].erase("streams");
    EXPECT_EQ(document["services"][0],
              json::parse(R"({"program": 1, "name": "One", "provider": "Provider", "type": 25, "pmtPid": 256,
                              "pmtVersion": 5, "pcrPid": 257, "scrambled": null, "next": null,
                              "now": {"title": "News", "begin": "1993-10-13T12:45:00Z", "durationMs": 5400000}})"));
    const ServiceReport& service = all.services[0];
    EXPECT_EQ(service.runningStatus, 4);
    ASSERT_EQ(service.streams.size(), 3U);
    EXPECT_EQ(service.streams[0].codec, "H.264");
    EXPECT_EQ(service.streams[0].componentTag, 9);
    EXPECT_EQ(service.streams[0].ca.at(0).pid, 0x500);
    EXPECT_EQ(service.streams[1].language, "eng");
    EXPECT_EQ(service.streams[1].ca.at(0).pid, 0x501);
    EXPECT_EQ(service.streams[2].kind, StreamKind::kTeletext);
    EXPECT_THAT(service.streams[2].pages, ElementsAre("100", "850"));
    const ServiceModel& model = services_.model();
    EXPECT_EQ(model.networkPid, 0x10);
    ASSERT_EQ(model.programs.size(), 1U);
    EXPECT_THAT(model.programs[0].ecmPids, ElementsAre(0x500));
    EXPECT_TRUE(model.programs[0].streams[1].stillPicture);
    EXPECT_EQ(model.programs[0].streams[2].audioType, 3);
}

TEST_F(MeterServices, ATableOfSeveralSectionsHoldsWhenAllOfOneVersionCame) {
    EXPECT_THAT(pat(1, {{1, kPmtPid}}, 0, 1), IsEmpty());
    EXPECT_FALSE(services_.model().patKnown);
    pat(2, {{2, 0x200}}, 1, 1);  // another version: the first section came for the one before
    EXPECT_FALSE(services_.model().patKnown);
    pat(2, {{1, kPmtPid}}, 0, 1);
    ASSERT_TRUE(services_.model().patKnown);
    EXPECT_EQ(services_.model().programs.size(), 2U);
    // One that stays incomplete changes nothing, and sections that came before complete it anew.
    EXPECT_THAT(pat(3, {{9, 0x900}}, 0, 1), IsEmpty());
    EXPECT_EQ(services_.model().programs.size(), 2U);
}

TEST_F(MeterServices, ChangesSayWhatChanged) {
    pat(0, {{1, kPmtPid}});
    const psi::ElementaryStream video{0x1B, 0x101, {}};
    const psi::ElementaryStream german{0x0F, 0x102, language("deu")};
    const psi::ElementaryStream english{0x0F, 0x103, language("eng")};
    EXPECT_THAT(pmt(0, {video, german}), IsEmpty());
    const uint64_t revision = services_.model().revision;
    EXPECT_THAT(pmt(1, {video, german, english}),
                ElementsAre("stream_added|program 1: AAC (eng) on PID 259 added"));
    EXPECT_GT(services_.model().revision, revision);
    EXPECT_THAT(pmt(2, {video, english}), ElementsAre("stream_gone|program 1: AAC (deu) on PID 258 gone"));
    EXPECT_THAT(pmt(3, {video, {0x0F, 0x104, language("eng")}}),
                ElementsAre("stream_moved|program 1: AAC (eng) moved from PID 259 to 260"));
    EXPECT_THAT(pmt(4, {{0x24, 0x101, {}}, {0x0F, 0x104, language("eng")}}),
                ElementsAre("codec|program 1: PID 257: H.264 became H.265"));
    EXPECT_THAT(pmt(5, {{0x24, 0x101, {}}, {0x0F, 0x104, language("fra")}}, 0x1FFF),
                ElementsAre("pcr_moved|program 1: PCR PID 257 became 8191",
                            "language|program 1: PID 260: language eng became fra"));
    EXPECT_THAT(pmt(6, {{0x24, 0x101, {}}, {0x0F, 0x104, language("fra")}}, 0x1FFF),
                ElementsAre("version|program 1: PMT version 5 became 6"));
    EXPECT_THAT(pmt(6, {{0x24, 0x101, descriptor(0xF0, {1})}, {0x0F, 0x104, language("fra")}}, 0x1FFF),
                ElementsAre("content|program 1: PMT has other content under version 6"));
    EXPECT_THAT(pat(1, {{1, kPmtPid}}), ElementsAre("version|PAT version 0 became 1"));
    EXPECT_THAT(
        pat(2, {{0, 0x10}, {2, 0x200}, {1, 0x110}}),
        ElementsAre("program_added|network PID 16 added", "program_added|program 2: PMT PID 512 added",
                    "program_moved|program 1: PMT PID 256 became 272"));
    EXPECT_THAT(pat(3, {{1, 0x110}}),
                ElementsAre("program_gone|network PID 16 gone", "program_gone|program 2: PMT PID 512 gone"));
    EXPECT_THAT(sdt(0, "One"), IsEmpty());
    EXPECT_THAT(sdt(1, "Two", 1), ElementsAre("service|program 1: name \"One\" became \"Two\", "
                                              "running status 4 became 1"));
}

TEST_F(MeterServices, WhatDoesNotHoldYetIsNotRead) {
    psi::Bytes next = psi::section(0x00, 7, 0, {0, 1, 0xE1, 0});
    next[5] &= 0xFE;
    feed(0, next);
    EXPECT_FALSE(services_.model().patKnown);
}

TEST_F(MeterServices, WithoutAnSdtTheNitNamesTheOriginalNetwork) {
    pat(0, {{1, kPmtPid}});
    feed(0x10, psi::section(0x40, 9, 0,
                            concat({psi::loop12({}),
                                    psi::loop12(concat({psi::u16(6), psi::u16(1), psi::loop12({1, 0}),
                                                        psi::u16(7), psi::u16(2), psi::loop12({})}))})));
    EXPECT_EQ(report().transport.originalNetworkId, 2);
    sdt(0, "One");
    EXPECT_EQ(report().transport.originalNetworkId, 0x2114);
}

// A program that went and came back has its streams again, though its section is equal to the last one.
TEST_F(MeterServices, ARepeatedSectionIsReadWhereItsProgramIsNew) {
    const psi::Bytes section = psi::pmtSection(1, 0, 0x101, {{0x1B, 0x101, {}}});
    pat(0, {{1, kPmtPid}});
    feed(kPmtPid, section);
    pat(1, {{2, kPmtPid}});
    pat(2, {{1, kPmtPid}});
    EXPECT_FALSE(services_.model().programs[0].pmtKnown);
    EXPECT_THAT(feed(kPmtPid, section, true), IsEmpty());
    EXPECT_TRUE(services_.model().programs[0].pmtKnown);
}

TEST_F(MeterServices, LoopsThatDoNotFitEndWhereTheirSectionEnds) {
    pat(0, {{1, kPmtPid}});
    psi::Bytes section = psi::section(
        0x02, 1, 0, concat({psi::u16(0xE101), psi::u16(0xFFFF), {0x1B}, psi::u16(0xE101), psi::u16(0xFFFF)}));
    feed(kPmtPid, section);
    EXPECT_TRUE(services_.model().programs[0].pmtKnown);
    EXPECT_THAT(services_.model().programs[0].streams, IsEmpty());
    feed(kPmtPid, psi::section(0x02, 1, 1, {0xE1}));
    feed(0x11, psi::section(0x42, 7, 0, {0x21}));
    feed(0x12, psi::section(0x4E, 1, 0, {0x21}));
    feed(0x10, psi::section(0x40, 1, 0, {0xFF}));
    EXPECT_THAT(report().services.size(), 1U);
}

}  // namespace
}  // namespace meter
