// Names and printed texts, as readers of the diagnostics get them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "sarn/names.h"
#include "sarnDvbPsi/packetDumps.h"
#include "sarnDvbPsi/tableDumps.h"
#include "support/analysisContext.h"

namespace {

using psi::Bytes;
using psi::concat;
using psi::descriptor;
using psi::loop12;
using psi::u16;
using psi::u32;

class StringSink : public DumpSink {
  public:
    std::string take() {
        return std::exchange(text_, {});
    }

  protected:
    void write(std::string_view text) override {
        text_ += text;
    }

  private:
    std::string text_;
};

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
    const std::pair<unsigned int, std::string> tags[] = {
        {0x29, "IPMP descriptor (defined in ISO/IEC 13818-11; break; MPEG-2 IPMP)"},
        {0x2D, reserved},
        {0x3F, reserved},
        {0x89, "User Private"},
        {0x18A, "CUE Identifier descriptor"}};
    for (const auto& [tag, name] : tags) {
        EXPECT_EQ(GetDescriptorName(tag), name) << tag;
    }
}

// A context that is fed sections, and what it prints meanwhile.
class PrintedTables : public testing::Test {
  protected:
    std::string feed(uint16_t pid, const Bytes& section) {
        packets_.section(pid, section);
        testing::internal::CaptureStdout();
        context_.feed(packets_);
        return testing::internal::GetCapturedStdout();
    }

    test::AnalysisContext context_;

  private:
    test::TsStream packets_;
};

TEST_F(PrintedTables, ServicesNetworksAndBouquetsPrintOncePerVersion) {
    const Bytes service = concat({u16(0x1234), {0xFD}, loop12(descriptor(0x48, text("Ab")), 0x8)});
    const Bytes offAir = concat({u16(7), {0xFE}, loop12({}, 0x3)});
    const Bytes sdt = psi::section(0x42, 5, 3, concat({u16(9), {0xFF}, service, offAir}));
    const std::string sdtText =
        "SDT: Session Descriptor Table\n\tVersion number : 3\n\tTransport stream id : 5\n"
        "\tNetwork id     : 9\n"
        "\t  | Service id   : 0x1234 \n\t  | EIT schedule : no\n\t  | EIT present  : yes\n"
        "\t  | Running      : yes\n\t  | Free CA      : no\n\t  | Descriptor loop length: 4\n"
        "\t  |  ]72 User Private | Service\n65 98 \tA b \n"
        "\t  | Service id   : 0x07 \n\t  | EIT schedule : yes\n\t  | EIT present  : no\n"
        "\t  | Running      : no\n\t  | Free CA      : yes\n\t  | Descriptor loop length: 0\n";
    EXPECT_EQ(feed(0x11, sdt), sdtText);
    EXPECT_EQ(feed(0x11, sdt), "");

    const Bytes transport = concat({u16(11), u16(12), loop12(descriptor(0x41, {1}))});
    const Bytes networkPayload = concat({loop12(descriptor(0x40, text("N"))), loop12(transport)});
    const std::string loopsText =
        "\tCurrent next   : yes\n\t  |  ]64 User Private | Network Name\n78 \tN \n"
        "\t  | transport id: 11\n\t  | original network id: 12\n"
        "\t  |  ]65 User Private | Service List\n1 \t\x01 \n";
    EXPECT_EQ(feed(0x11, psi::section(0x40, 77, 1, networkPayload)),
              "NIT: Network Information Table\n\tVersion number : 1\n\tNetwork id     : 77\n" + loopsText);
    EXPECT_EQ(feed(0x11, psi::section(0x4A, 78, 2, networkPayload)),
              "BAT: Bouquet Association Table\n\tVersion number : 2\n\tBouquet id     : 78\n" + loopsText);
    EXPECT_EQ(context_.errors(kCrcError), 0U);
}

// The library reports an EIT only when its section has come a second time.
TEST_F(PrintedTables, EventsPrintWhenTheyComeAgainAndTimesAtOnce) {
    const Bytes utc = {0xC0, 0x79, 0x12, 0x45, 0x00};
    const Bytes event = concat({u16(600), utc, {0x01, 0x30, 0x00}, loop12(descriptor(0x54, {0x10}), 0x9)});
    const Bytes eit = psi::section(0x4E, 1, 0, concat({u16(5), u16(9), {0, 0x4E}, event}));
    EXPECT_EQ(feed(0x12, eit), "");
    EXPECT_EQ(feed(0x12, eit),
              "\t  | Event id: 600\n\t  | Start time: 826664961280\n\t  | Duration: 77824\n"
              "\t  | Running status: 4\n\t  | Free CA mode: yes\n\t  | Descriptor loop length: 3\n"
              "\t  |  ]84 User Private | Content\n16 \t\x10 \n");

    EXPECT_EQ(feed(0x14, psi::shortSection(0x70, utc, false)),
              "TDT: Time and Date Table\n\tUTC time       : 826664961280\n\tCRC 32         : 0\n");
    const Bytes tot = psi::shortSection(0x73, concat({utc, loop12(descriptor(0x58, text("POL")))}), true);
    const auto crc = static_cast<int32_t>(psi::crc32Mpeg(std::span(tot).first(tot.size() - 4)));
    EXPECT_EQ(feed(0x14, tot),
              "TOT: Time Offset Table\n\tUTC time       : 826664961280\n\tCRC 32         : " +
                  std::to_string(crc) + "\n\t  |  ]88 Local Time Offset\n80 79 76 \tP O L \n");
}

// A splice_info_section with the command's bytes (type first) and descriptors. `length` is what the section
// says the command takes.
Bytes spliceSection(const Bytes& command, std::size_t length, const Bytes& descriptors,
                    uint8_t encryption = 0) {
    return psi::shortSection(0xFC,
                             concat({{2, encryption},
                                     u32(90000),
                                     {7},
                                     {0xFF, psi::low8(0xF0 | length >> 8)},
                                     {psi::low8(length)},
                                     command,
                                     u16(descriptors.size()),
                                     descriptors}),
                             true);
}

std::string spliceHead(int length, const std::string& command, const std::string& encrypted = "no",
                       int algorithm = 0, int64_t pts = 90000) {
    return "\n  SIS: Splice Info Section\n\tProtocol version : 2\n\tEncrypted        : " + encrypted +
           "\n\tEncryption algorithm  : " + std::to_string(algorithm) +
           "\n\tPTS adjustment   : " + std::to_string(pts) +
           "\n\tCA Control word index : 7\n\tSplice command length : " + std::to_string(length) +
           "\n\tSplice command : " + command + "\n";
}

TEST_F(PrintedTables, SpliceSectionsPrintEachTimeWithTheirDescriptors) {
    const Bytes descriptors = concat({descriptor(0, concat({text("CUEI"), u32(0x1234)})),
                                      descriptor(1, concat({text("CUEI"), {25, 0x60}, text("123")})),
                                      descriptor(2, text("CUEIxy")), descriptor(0xF0, text("ABCDz"))});
    const std::string expected = spliceHead(0, "splice_null") +
                                 "\t   ] 0x00 : CUEI\"0x1234\" (avail descriptor)\n"
                                 "\t   ] 0x01 : CUEI\"123\" preroll 2.50 sec. (DTMF descriptor)\n"
                                 "\t   ] 0x02 : CUEI\"xy\" (segmentation descriptor)\n"
                                 "\t   ] 0xf0 : unknown\"z\" (User Private)\n";
    EXPECT_EQ(feed(0x14, spliceSection({0}, 0, descriptors)), expected);
    EXPECT_EQ(feed(0x14, spliceSection({0}, 0, descriptors)), expected);
    EXPECT_EQ(context_->i_splice_protocol_version, 2);

    // A command whose length is left open is measured: immediate splice_insert with a duration,
    // splice_schedule of a cancelled and a one-component event.
    const Bytes tail = descriptor(2, text("CUEI"));
    const std::string tailText = "\t   ] 0x02 : CUEI\"\" (segmentation descriptor)\n";
    EXPECT_EQ(feed(0x14, spliceSection(concat({{5}, u32(1), {0x7F, 0xF0}, Bytes(9)}), 0xFFF, tail)),
              spliceHead(4095, "splice_insert") + tailText);
    EXPECT_EQ(feed(0x14, spliceSection(concat({{4, 2}, u32(1), {0xFF}, u32(2), {0x7F, 0x9F, 1}, Bytes(9)}),
                                       0xFFF, tail)),
              spliceHead(4095, "splice_schedule") + tailText);
    // Of an encrypted section only what stands in clear is read.
    EXPECT_EQ(feed(0x14, spliceSection({9, 9}, 1, Bytes(3, 0xFF), 0x83)),
              spliceHead(1, "splice_null", "yes", 1, (int64_t{1} << 32) + 90000));
    EXPECT_EQ(context_.errors(kCrcError), 0U);
}

TEST_F(PrintedTables, MalformedSpliceSectionsAreDroppedAndABadChecksumCounts) {
    Bytes damaged = spliceSection({0}, 0, {});
    damaged.back() ^= 1;
    EXPECT_EQ(feed(0x14, damaged), "");
    EXPECT_EQ(context_.errors(kCrcError), 1U);
    const Bytes overlong = psi::shortSection(0xFC, concat({Bytes(7), {0, 0xF0, 0, 0}, u16(300)}), true);
    for (const Bytes& section : {psi::section(0xFC, 0, 0, Bytes(20)), overlong, spliceSection({0}, 50, {}),
                                 spliceSection({0}, 0, {2, 9, 'C'}), spliceSection({5}, 0xFFF, {})}) {
        EXPECT_EQ(feed(0x14, section), "");
    }
    EXPECT_EQ(context_.errors(kCrcError), 1U);
}

TEST(Descriptors, PrintTheirFields) {
    StringSink sink;
    dumpMaxBitrate(sink, {4000});
    dumpSystemClock(sink, {true, 30, 2});
    dumpStreamIdentifier(sink, {17});
    dumpSubtitling(sink, {1, {{{'p', 'o', 'l'}, 16, 3, 4}}});
    for (const uint8_t type : {0, 4, 5}) {
        const dvbpsi_cuei_dr_t cue{type};
        DumpCUEIDescriptor(sink, &cue);
    }
    EXPECT_EQ(sink.take(),
              "Bitrate: 4000\nExternal clock: yes, Accuracy: 3.000000E-01\nComponent tag: 17\n1 subtitles,\n"
              "\t\t   | 0 - lang: pol, type: 16, cpid: 3, apid: 4\n"
              "CUE Identifier stream type: (0d) splice_insert, splice_null, splice_schedule\n"
              "CUE Identifier stream type: (4d) Tiered Segmentation\n");

    const DescriptorList list = descriptorList(9, {255});
    dumpCat(sink, {4, true, list.get()});
    EXPECT_EQ(sink.take(),
              "CAT: Conditional Access Table\n\tVersion number : 4\n\tCurrent next   : yes\n"
              "\t   ]9 CA descriptor\n255 \t\xFF \n");
}

TEST(DescriptorsDeathTest, TooShortSpliceDescriptorsEndTheProcess) {
    const auto dump = [](uint8_t tag, std::size_t length) {
        StringSink sink;
        DumpSISDescriptors(sink, "", descriptorList(tag, Bytes(length)).get());
    };
    StringSink sink;
    EXPECT_DEATH(dump(9, 3), "source/sarnDvbPsi:795: .*`p_descriptor->i_length >= 4'");
    EXPECT_DEATH(dump(0, 7), "source/sarnDvbPsi:811: .*`p_descriptor->i_length >= 8'");
    EXPECT_DEATH(dump(1, 5), "source/sarnDvbPsi:823: .*`p_descriptor->i_length >= 6'");
    EXPECT_DEATH(DumpCUEIDescriptor(sink, nullptr), "source/sarnDvbPsi:751: .*`p_cuei_descriptor'");
}

TEST(Packets, HeaderPrintsTheFieldsThePacketCarries) {
    StringSink sink;
    ts_pid_t pid{};
    psi::TsPacket packet{0x47, 0x41, 0x23, 0x1A};
    dumpPacketHeader(sink, packet, pid);
    EXPECT_THAT(sink.take(), testing::EndsWith("word: 0x0\n\tAdaptation field control: no\n"));
    pid.b_seen = pid.b_pcr_pid = 1;
    // PCR 1 s, splice_countdown -2, two private bytes, an extension with all its parts.
    packet = {0x47, 0x81, 0x23, 0xB0, 24,   0xB7, 0x00, 0x00, 0xAF, 0xC8, 0x7E, 0x00, 0xFE, 2,
              0xAA, 0xBB, 11,   0xFF, 0x81, 0x02, 0xC1, 0x02, 0x03, 0x10, 0,    0,    0,    0};
    dumpPacketHeader(sink, packet, pid);
    EXPECT_EQ(
        sink.take(),
        "\tPID 0x123 seen yes\n\tContinuity counter: 0\n\tTransport Error indicator: yes\n"
        "\tPayload unit start indicator: no\n\tScrambling control: yes\n\tScrambling control word: 0x2\n"
        "\tAdaptation field control: yes\n\tDiscontinuity indicator: yes\n\tRandom access indicator: no\n"
        "\tElementary stream priority indicator: yes\n\tTransport private data: yes\n"
        "\tTransport private data length: 2\n\tSplicing point: yes\n\tSplice countdown: -2 (0xfe)\n"
        "\tOriginal PCR: no\n\tPCR PID: yes\n\tPCR: 1000000000\n"
        "\tadaptation field extension, length: 11\n\tlegal time window (ltw): yes\n\tltw valid: yes\n"
        "\tlegal time window offset: 258\n\tpiecewise rate: yes\n\tpiecewise rate: 66051\n"
        "\tseamless splice: yes\n"
        "\tsplice type 0x1 (splice_decoding_delay = 150 ms; max_splice_rate = 12.0 × 106 bit/s)\n");
}

TEST(Packets, BytesAndPidSummaryPrint) {
    StringSink sink;
    dumpHex(sink, Bytes{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 255});
    EXPECT_THAT(sink.take(),
                testing::EndsWith(" \n\t 0000: 00 01 02 03 04 05 06 07  08 09 0a 0b 0c 0d 0e 0f  "
                                  "\n\t 0010: ff "));

    const auto stream = std::make_unique<ts_stream_t>();
    stream->seen[0x101 / 64] = uint64_t{1} << 0x101 % 64;
    stream->i_packets = 40;
    stream->i_null_packets = 3;
    stream->i_lost_bytes = 5;
    stream->i_bitrate = 2000000;
    ts_pid_t& pid = stream->pid[0x101];
    pid.i_packets = pid.i_scrambled = 10;
    pid.b_discontinuity = 1;
    pid.i_first_pcr = 100;
    pid.i_last_pcr = 350;
    dumpPidSummary(sink, *stream);
    EXPECT_EQ(sink.take(),
              "\tFound PID:  257 (0x 101), DRM: yes, bitrate 500.0000 kbit/s, seen 10 packets"
              "\tPCR discontinuity was signalled for PID:  257 (0x 101)\n"
              "\tPCR first: 100, last: 350, duration: 250\n"
              "\n\t---------------------------------------------------------\n"
              "\n\tNumber of packets: 40, stuffing 3 packets, lost 5 bytes, bitrate: 2000.0000 kbit/s\n");
}

}  // namespace
