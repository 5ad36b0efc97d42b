// Audio by hand: what encoders here do not make, damage, and frames cut anywhere.
#include <gmock/gmock.h>

#include <string>

#include "media/audioStream.h"
#include "support/bitWriter.h"
#include "support/psiBuilder.h"

namespace meter {
namespace {

using psi::concat;
using test::BitWriter;

constexpr uint8_t kFill = 0x5A;  // no sync word in it

psi::Bytes filled(psi::Bytes head, std::size_t size) {
    head.resize(size, kFill);
    return head;
}

psi::Bytes repeated(const psi::Bytes& frame, int count) {
    psi::Bytes all;
    for (int i = 0; i < count; ++i)
        all.insert(all.end(), frame.begin(), frame.end());
    return all;
}

psi::Bytes adts(uint32_t rateIndex, uint32_t channels, std::size_t size, const psi::Bytes& content = {}) {
    BitWriter writer;
    writer.bits(0xFFF, 12).bits(0, 1).bits(0, 2).bits(1, 1).bits(1, 2).bits(rateIndex, 4).bits(0, 1);
    writer.bits(channels, 3).bits(0, 4).bits(size, 13).bits(0x7FF, 11).bits(0, 2);
    return filled(concat({writer.plain(), content}), size);
}

psi::Bytes loas(const psi::Bytes& element) {
    return concat({BitWriter().bits(0x2B7, 11).bits(element.size(), 13).plain(), element});
}

// `type`: 0 independent, 1 dependent; `map`: chanmap of a dependent one.
psi::Bytes eac3(uint32_t type, uint32_t substream, uint32_t mode, bool lfe, std::size_t size, int map = -1) {
    BitWriter writer;
    writer.bits(0x0B77, 16).bits(type, 2).bits(substream, 3).bits(size / 2 - 1, 11).bits(0, 2).bits(3, 2);
    writer.bits(mode, 3).bits(lfe, 1).bits(16, 5).bits(27, 5).bits(0, 1);
    if (type == 1)
        writer.bits(map >= 0, 1).bits(static_cast<uint64_t>(std::max(map, 0)), 16);
    return filled(writer.plain(), size);
}

struct Expected {
    uint32_t sampleRate;
    uint32_t channels;
    uint64_t bitrate;
    std::string profile;
};

AudioReport heard(Codec codec, const psi::Bytes& bytes, std::size_t piece = 184,
                  std::optional<uint8_t> descriptor = std::nullopt) {
    AudioStream stream(codec, descriptor);
    for (std::size_t at = 0; at < bytes.size(); at += piece)
        stream.feed(Bytes(bytes).subspan(at, std::min(piece, bytes.size() - at)));
    AudioReport report;
    stream.fill(report);
    return report;
}

void expectHeard(const AudioReport& report, const Expected& expected) {
    EXPECT_EQ(report.sampleRate.value_or(0), expected.sampleRate);
    EXPECT_EQ(report.channels.value_or(0), expected.channels);
    // The last frame is not counted before another one follows.
    const auto bitrate = static_cast<double>(expected.bitrate);
    EXPECT_NEAR(static_cast<double>(report.bitrate.value_or(0)), bitrate, bitrate / 50);
    EXPECT_EQ(report.profile.value_or(""), expected.profile);
}

TEST(MeterAudio, HeadersSayWhatIsHeard) {
    // Layer I at 48 kHz, 384 kbit/s; layer II at 24 kHz, 64 kbit/s, mono.
    const psi::Bytes layer1 = filled({0xFF, 0xFF, 0xC4, 0x00}, 384);
    const psi::Bytes layer2 = filled({0xFF, 0xF5, 0x84, 0xC0}, 384);
    // A raw data block that begins with a program_config_element: front single and pair, back pair, LFE.
    BitWriter elements;
    elements.bits(5, 3).bits(0, 4).bits(1, 2).bits(3, 4).bits(2, 4).bits(0, 4).bits(1, 4).bits(1, 2).bits(0,
                                                                                                          3);
    elements.bits(0, 4).bits(0, 3).bits(0, 1).bits(0, 4).bits(1, 1).bits(0, 4).bits(1, 1).bits(0, 4).bits(0,
                                                                                                          4);
    // useSameStreamMux 0, version 0, one program and layer: SBR over AAC LC at 24 kHz, and PS of one channel.
    BitWriter highEfficiency;
    highEfficiency.bits(0, 1).bits(0, 1).bits(1, 1).bits(0, 6).bits(0, 7);
    highEfficiency.bits(5, 5).bits(6, 4).bits(2, 4).bits(3, 4).bits(2, 5).bits(0, 3);
    BitWriter parametric;
    parametric.bits(0, 1).bits(0, 1).bits(1, 1).bits(0, 6).bits(0, 7);
    parametric.bits(29, 5).bits(6, 4).bits(1, 4).bits(3, 4).bits(2, 5).bits(0, 3);
    const psi::Bytes again = loas(filled({0x80}, 300 - 3));
    const uint32_t sevenOne = 0x1800 | 0x0200;  // side and rear surrounds
    struct Row {
        const char* name;
        Codec codec;
        psi::Bytes bytes;
        Expected expected;
        std::optional<uint8_t> descriptor = std::nullopt;
    };
    const Row rows[] = {
        {"layer I", Codec::kMpegAudio, layer1, {48000, 2, 384000, ""}},
        {"layer II", Codec::kMpegAudio, layer2, {24000, 1, 64000, ""}},
        {"ADTS", Codec::kAac, adts(3, 6, 512), {48000, 6, 192000, "LC"}},
        {"ADTS with elements", Codec::kAac, adts(3, 0, 512, elements.plain()), {48000, 6, 192000, "LC"}},
        {"ADTS, HE-AAC by descriptor", Codec::kAac, adts(6, 2, 256), {48000, 2, 48000, "HE-AAC"}, 0x58},
        {"ADTS, second version", Codec::kAac, adts(6, 1, 256), {48000, 2, 48000, "HE-AACv2"}, 0x60},
        {"ADTS, full rate", Codec::kAac, adts(3, 2, 512), {48000, 2, 192000, "LC"}, 0x58},
        {"LATM",
         Codec::kAacLatm,
         concat({loas(filled(highEfficiency.plain(), 297)), again}),
         {48000, 2, 56250, "HE-AAC"}},
        {"LATM, second version",
         Codec::kAacLatm,
         concat({loas(filled(parametric.plain(), 297)), again}),
         {48000, 2, 56250, "HE-AACv2"}},
        {"AC-3 5.1", Codec::kAc3, filled({0x0B, 0x77, 0, 0, 0x1C, 0x40, 0xE1}, 1536), {48000, 6, 384000, ""}},
        {"AC-3 mono at 44.1 kHz",
         Codec::kAc3,
         filled({0x0B, 0x77, 0, 0, 0x4D, 0x40, 0x20}, 418),
         {44100, 1, 96000, ""}},
        {"E-AC-3", Codec::kEac3, eac3(0, 0, 2, false, 768), {48000, 2, 192000, ""}},
        {"E-AC-3 7.1 in two substreams",
         Codec::kEac3,
         concat({eac3(0, 0, 7, true, 768), eac3(1, 0, 6, false, 256, sevenOne)}),
         {48000, 8, 256000, ""}},
        {"E-AC-3 with another program",
         Codec::kEac3,
         concat({eac3(0, 0, 2, false, 768), eac3(0, 1, 7, true, 256)}),
         {48000, 2, 256000, ""}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const psi::Bytes all = repeated(row.bytes, 24);
        for (const std::size_t piece : {std::size_t{184}, std::size_t{1}, all.size()})
            expectHeard(heard(row.codec, all, piece, row.descriptor), row.expected);
    }
}

TEST(MeterAudio, AFrameIsBelievedWhenAnotherOneFollowsIt) {
    const psi::Bytes frame = adts(3, 2, 400);
    const psi::Bytes other = adts(4, 6, 300);  // looks like one, and none follows
    const psi::Bytes damaged(frame.begin() + 100, frame.end());
    const AudioReport report = heard(Codec::kAac, concat({{0xFF, 0xF1, 0xFF, 1, 2},
                                                          {other.begin(), other.begin() + 50},
                                                          repeated(frame, 20),
                                                          damaged,
                                                          repeated(frame, 20)}));
    EXPECT_EQ(report.sampleRate, 48000U);
    EXPECT_EQ(report.channels, 2U);
    EXPECT_EQ(report.bitrate, 150000U);
    const AudioReport nothing = heard(Codec::kAac, psi::Bytes(5000, 0xFF));
    EXPECT_EQ(nothing.sampleRate, std::nullopt);
    EXPECT_EQ(nothing.bitrate, std::nullopt);
    EXPECT_EQ(heard(Codec::kAac, concat({frame, psi::Bytes(1000, 0)})).sampleRate, std::nullopt);
}

TEST(MeterAudio, ReservedValuesAreNoFrames) {
    struct Row {
        AudioFrameReader read;
        psi::Bytes head;
    };
    const Row rows[] = {
        {readMpegAudioFrame, {0xFF, 0xFF, 0x04, 0, 0, 0, 0, 0}},  // free format
        {readMpegAudioFrame, {0xFF, 0xFF, 0xF4, 0, 0, 0, 0, 0}},
        {readMpegAudioFrame, {0xFF, 0xFF, 0xCC, 0, 0, 0, 0, 0}},  // sampling frequency
        {readMpegAudioFrame, {0xFF, 0xEF, 0xC4, 0, 0, 0, 0, 0}},  // version
        {readMpegAudioFrame, {0xFF, 0xF9, 0xC4, 0, 0, 0, 0, 0}},  // layer
        {readAdtsFrame, {0xFF, 0xF1, 0x7C, 0x80, 0x40, 0, 0, 0}},
        {readAdtsFrame, {0xFF, 0xF1, 0x4C, 0x80, 0x00, 0x40, 0, 0}},  // shorter than its header
        {readAc3Frame, {0x0B, 0x77, 0, 0, 0xDC, 0x40, 0xE1, 0}},
        {readAc3Frame, {0x0B, 0x77, 0, 0, 0x3F, 0x40, 0xE1, 0}},
        {readAc3Frame, {0x0B, 0x77, 0, 0, 0x1C, 0x88, 0xE1, 0}},     // bsid
        {readAc3Frame, {0x0B, 0x77, 0xC1, 0x7F, 0x34, 0x80, 0, 0}},  // type of substream
        {readAc3Frame, {0x0B, 0x77, 0x01, 0x7F, 0xF4, 0x80, 0, 0}},  // both sampling rates
        {readLoasFrame, {0x56, 0xE0, 0x01, 0, 0, 0, 0, 0}},
    };
    for (const Row& row : rows) {
        EXPECT_FALSE(row.read(row.head)) << testing::PrintToString(row.head);
        EXPECT_FALSE(row.read({}));
    }
}

TEST(MeterAudio, TheBitRateIsThatOfTheLastSecond) {
    AudioStream stream(Codec::kAac, std::nullopt);
    stream.feed(repeated(adts(3, 2, 256), 48));
    stream.secondEnded();
    stream.feed(repeated(adts(3, 2, 512), 48));
    AudioReport report;
    stream.fill(report);
    EXPECT_EQ(report.bitrate, 96000U);
    stream.secondEnded();
    stream.fill(report);
    EXPECT_NEAR(static_cast<double>(report.bitrate.value_or(0)), 192000, 3000);
}

}  // namespace
}  // namespace meter
