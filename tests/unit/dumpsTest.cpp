// Names and printed texts, as readers of the diagnostics get them.
#include <gtest/gtest.h>

#include <memory>

#include "sarn/names.h"
#include "sarn/packetDumps.h"
#include "sarn/tableDumps.h"
#include "sarnDvbPsi/contextInternals.h"
#include "support/analysisContext.h"
#include "support/consoleText.h"

namespace {

using psi::Bytes;
using psi::concat;
using psi::descriptor;
using psi::loop12;
using psi::section;
using psi::u16;
using psi::u32;
using test::consoleText;
using test::printedBy;

Bytes text(std::string_view characters) {
    return {characters.begin(), characters.end()};
}

DescriptorList descriptorList(uint8_t tag, Bytes content) {
    return DescriptorList(dvbpsi_NewDescriptor(tag, static_cast<uint8_t>(content.size()), content.data()));
}

TEST(Names, RangesOfNumbersShareTheirTexts) {
    const std::string reserved = "ITU-T Rec. H.222.0 | ISO/IEC 13818-1 Reserved";
    EXPECT_EQ(GetTypeName(0x1C), reserved);
    EXPECT_EQ(GetTypeName(0x7E), reserved);
    EXPECT_STREQ(GetTypeName(0x17F), "IPMP stream") << "of a number only the low byte counts";
    EXPECT_EQ(GetDescriptorName(0x2D), reserved);
    EXPECT_EQ(GetDescriptorName(0x3F), reserved);
    EXPECT_STREQ(GetDescriptorName(0x89), "User Private");
    EXPECT_STREQ(GetDescriptorName(0x18A), "CUE Identifier descriptor");
}

struct PrintedTables : testing::Test {
    test::AnalysisContext context;
    test::TsStream packets;

    std::string feed(uint16_t pid, const std::vector<Bytes>& sections) {
        for (const Bytes& bytes : sections)
            packets.section(pid, bytes);
        return printedBy([&] { context.feed(packets); });
    }
};

TEST_F(PrintedTables, ServicesNetworksAndBouquetsPrintOncePerVersion) {
    const Bytes service = concat({u16(0x1234), {0xFD}, loop12(descriptor(0x48, text("Ab")), 0x8)});
    const Bytes offAir = concat({u16(7), {0xFE}, loop12({}, 0x3)});
    const Bytes sdt = section(0x42, 5, 3, concat({u16(9), {0xFF}, service, offAir}));
    const Bytes transport = concat({u16(11), u16(12), loop12(descriptor(0x41, text("1")))});
    const Bytes network = concat({loop12(descriptor(0x40, text("N"))), loop12(transport)});
    EXPECT_EQ(feed(0x11, {sdt, sdt, section(0x40, 77, 1, network), section(0x4A, 78, 2, network)}),
              consoleText("SDT, NIT, BAT"));
}

// The library reports an EIT only when its section has come a second time.
TEST_F(PrintedTables, EventsPrintWhenTheyComeAgainAndTimesAtOnce) {
    const Bytes utc = {0xC0, 0x79, 0x12, 0x45, 0x00};
    const Bytes event = concat({u16(600), utc, {0x01, 0x30, 0x00}, loop12(descriptor(0x54, text("0")), 0x9)});
    const Bytes eit = section(0x4E, 1, 0, concat({u16(5), u16(9), {0, 0x4E}, event}));
    EXPECT_EQ(feed(0x12, {eit}), "");
    EXPECT_EQ(feed(0x12, {eit}), consoleText("EIT"));
    const Bytes offset = loop12(descriptor(0x58, text("POL")));
    EXPECT_EQ(feed(0x14, {psi::shortSection(0x70, utc, false),
                          psi::shortSection(0x73, concat({utc, offset}), true)}),
              consoleText("TDT, TOT"));
}

// A splice_info_section with the command's bytes (type first) and descriptors. `length` is what the section
// says the command takes.
Bytes spliceSection(const Bytes& command, std::size_t length, const Bytes& descriptors,
                    uint8_t encryption = 0) {
    return psi::shortSection(0xFC,
                             concat({{2, encryption},
                                     u32(90000),
                                     {7, 0xFF},
                                     u16(0xF000 | length),
                                     command,
                                     u16(descriptors.size()),
                                     descriptors}),
                             true);
}

TEST_F(PrintedTables, SpliceSectionsPrintEachTimeAndMalformedOnesNever) {
    const Bytes descriptors = concat({descriptor(0, concat({text("CUEI"), u32(0x1234)})),
                                      descriptor(1, concat({text("CUEI"), {25, 0x60}, text("1234")})),
                                      descriptor(2, text("CUEIxy")), descriptor(0xF0, text("ABCDz"))});
    const Bytes tail = descriptor(2, text("CUEI"));
    const Bytes insert = concat({{5}, u32(1), {0x7F, 0xF0}, Bytes(9)});  // immediate, with a duration
    // A cancelled and a one-component event.
    const Bytes schedule = concat({{4, 2}, u32(1), {0xFF}, u32(2), {0x7F, 0x9F, 1}, Bytes(9)});
    Bytes damaged = spliceSection({0}, 0, {});
    damaged.back() ^= 1;
    EXPECT_EQ(feed(0x14, {spliceSection({0}, 0, descriptors), spliceSection({0}, 0, descriptors),
                          // A command whose length is left open is measured.
                          spliceSection(insert, 0xFFF, tail), spliceSection(schedule, 0xFFF, tail),
                          // Unless nobody knows its form, which hides the descriptors.
                          spliceSection({9, 1, 2}, 0xFFF, tail),
                          // Of an encrypted section only what stands in clear is read.
                          spliceSection({9, 9}, 1, Bytes(3, 0xFF), 0x83),
                          // From here on nothing prints.
                          damaged, section(0xFC, 0, 0, Bytes(20)), spliceSection({0}, 50, {}),
                          psi::shortSection(0xFC, concat({Bytes(7), {0, 0xF0, 0, 0}, u16(300)}), true),
                          spliceSection({0}, 0, {2, 9, 'C'}), spliceSection({5}, 0xFFF, {})}),
              consoleText("splice_info_section"));
    EXPECT_EQ(context->i_splice_protocol_version, 2);
    EXPECT_EQ(context.errors(kCrcError), 1U) << "a bad checksum counts";
    EXPECT_EQ(context->section_drops.back(), (std::array<uint64_t, kSectionDropKinds>{4, 0, 1, 0, 0}));
}

TEST(Descriptors, PrintTheirFields) {
    DumpSink& out = standardOutputSink();
    EXPECT_EQ(printedBy([&] {
                  dumpMaxBitrate(out, {4000});
                  dumpSystemClock(out, {true, 30, 2});
                  dumpStreamIdentifier(out, {17});
                  dumpSubtitling(out, {1, {{{'p', 'o', 'l'}, 16, 3, 4}}});
                  for (const uint8_t type : {0, 4, 5}) {
                      const dvbpsi_cuei_dr_t cue{type};
                      DumpCUEIDescriptor(out, &cue);
                  }
                  dumpCat(out, {4, true, descriptorList(9, text("x")).get()});
              }),
              consoleText("descriptors, CAT"));
}

TEST(DescriptorsDeathTest, TooShortSpliceDescriptorsEndTheProcess) {
    DumpSink& out = standardOutputSink();
    const auto dump = [&](uint8_t tag, std::size_t length) {
        DumpSISDescriptors(out, "", descriptorList(tag, Bytes(length)).get());
    };
    EXPECT_DEATH(dump(9, 3), "source/sarnDvbPsi:795: .*`p_descriptor->i_length >= 4'");
    EXPECT_DEATH(dump(0, 7), "source/sarnDvbPsi:811: .*`p_descriptor->i_length >= 8'");
    EXPECT_DEATH(dump(1, 5), "source/sarnDvbPsi:823: .*`p_descriptor->i_length >= 6'");
    EXPECT_DEATH(DumpCUEIDescriptor(out, nullptr), "source/sarnDvbPsi:751: .*`p_cuei_descriptor'");
}

TEST(Packets, PrintTheirHeadersBytesAndASummary) {
    ts_pid_t record{};
    record.b_seen = record.b_pcr_pid = 1;
    // PCR 1 s, splice_countdown -2, two private bytes, an extension with all its parts.
    const psi::TsPacket packet{0x47, 0x81, 0x23, 0xB0, 24,   0xB7, 0x00, 0x00, 0xAF, 0xC8,
                               0x7E, 0x00, 0xFE, 2,    0xAA, 0xBB, 11,   0xFF, 0x81, 0x02,
                               0xC1, 0x02, 0x03, 0x10, 0,    0,    0,    0};
    const auto stream = std::make_unique<ts_stream_t>();
    insertPid(stream->seen, 0x101);
    stream->i_packets = 40;
    stream->i_null_packets = 3;
    stream->i_lost_bytes = 5;
    stream->i_bitrate = 2000000;
    ts_pid_t& pid = stream->pid[0x101];
    pid.i_packets = pid.i_scrambled = 10;
    pid.b_discontinuity = 1;
    pid.i_first_pcr = 100;
    pid.i_last_pcr = 350;
    DumpSink& out = standardOutputSink();
    EXPECT_EQ(printedBy([&] {
                  dumpPacketHeader(out, psi::TsPacket{0x47, 0x41, 0x23, 0x1A}, {});
                  dumpPacketHeader(out, packet, record);
                  dumpHex(out, Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 255});
                  dumpPidSummary(out, *stream);
              }),
              consoleText("packets"));
}

}  // namespace
