// Pictures that are coded as two fields, made by hand: what is cut out of a stream, and what becomes of it.
#include <gtest/gtest.h>

#include <vector>

#include "picture.pb.h"
#include "shotFigures.h"
#include "support/bitWriter.h"
#include "videoDecoder.h"

namespace pictured {
namespace {

using test::BitWriter;
using test::mpegHeader;
using test::startCoded;
using Stream = std::vector<uint8_t>;

constexpr int kColumns = 4;  // macroblocks of a field
constexpr int kRows = 2;
constexpr uint32_t kWidth = 16 * kColumns;
constexpr uint32_t kHeight = 32 * kRows;
constexpr uint8_t kBright = 200;
constexpr uint8_t kDark = 60;
enum Parity : uint8_t { kTop = 1, kBottom = 2 };

void append(Stream& stream, const Stream& more) {
    stream.insert(stream.end(), more.begin(), more.end());
}
// Behind a start code, without a stop bit.
void appendHeader(Stream& stream, const BitWriter& header) {
    append(stream, startCoded(header.plain(), false));
}

// ---- ISO/IEC 13818-2

Stream mpeg2Sequence() {
    Stream stream = mpegHeader(
        {{0xB3, 8}, {kWidth, 12}, {kHeight, 12}, {1, 4}, {3, 4}, {1000, 18}, {1, 1}, {10, 10}, {0, 3}});
    append(stream,
           mpegHeader({{0xB5, 8}, {1, 4}, {0x48, 8}, {0, 1}, {1, 2}, {0, 4}, {0, 12}, {1, 1}, {0, 16}}));
    return stream;
}

// Flat: of each slice the first block says how far it is from middle grey, the others that nothing changes.
void mpeg2Blocks(BitWriter& slice, int difference) {
    if (difference == 0) {
        slice.bits(0b100, 3);
    } else {  // dct_dc_size_luminance of 7
        slice.bits(0b111110, 6)
            .bits(static_cast<uint64_t>(difference > 0 ? difference : difference + 127), 7);
    }
    slice.bits(0b10, 2);
    for (int block = 1; block < 4; ++block)
        slice.bits(0b100, 3).bits(0b10, 2);
    for (int block = 4; block < 6; ++block)
        slice.bits(0b00, 2).bits(0b10, 2);
}

Stream mpeg2Field(Parity parity, bool predicted, uint8_t luma) {
    Stream stream;
    BitWriter picture;
    picture.bits(0x00, 8).bits(0, 10).bits(predicted ? 2 : 1, 3).bits(0xFFFF, 16);
    if (predicted)
        picture.bits(7, 4);
    appendHeader(stream, picture.bits(0, 8));
    append(stream,
           mpegHeader(
               {{0xB5, 8}, {8, 4}, {predicted ? 0x11U : 0xFFU, 8}, {0xFF, 8}, {0, 2}, {parity, 2}, {0, 16}}));
    for (int row = 0; row < kRows; ++row) {
        BitWriter slice;
        slice.bits(static_cast<uint64_t>(row + 1), 8).bits(2, 5).bits(0, 1);
        for (int column = 0; column < kColumns; ++column) {
            slice.bits(1, 1).bits(predicted ? 0b00011 : 0b1, predicted ? 5 : 1);
            mpeg2Blocks(slice, column == 0 ? luma - 128 : 0);
        }
        appendHeader(stream, slice);
    }
    return stream;
}

// ---- ISO/IEC 14496-10

Stream h264Sequence() {
    BitWriter sequence;
    sequence.bits(0x67, 8).bits(77, 8).bits(0, 8).bits(30, 8).ue(0).ue(0).ue(2).ue(1).bits(0, 1);
    sequence.ue(kColumns - 1).ue(kRows - 1).bits(0b00, 2).bits(1, 1).bits(0, 2);
    BitWriter picture;
    picture.bits(0x68, 8).ue(0).ue(0).bits(0, 2).ue(0).ue(0).ue(0).bits(0, 3);
    picture.se(0).se(0).se(0).bits(0b100, 3);
    Stream stream = startCoded(sequence.bytes());
    append(stream, startCoded(picture.bytes()));
    return stream;
}

Stream h264Field(Parity parity, bool predicted, bool idr, uint8_t luma) {
    BitWriter slice;
    slice.bits(idr ? 0x65 : 0x61, 8).ue(0).ue(predicted ? 5 : 7).ue(0);
    slice.bits(0, 4).bits(1, 1).bits(parity == kBottom, 1);
    if (idr)
        slice.ue(0);
    if (predicted)
        slice.bits(0, 2);
    slice.bits(0, idr ? 2 : 1).se(0).ue(1);
    for (int macroblock = 0; macroblock < kColumns * kRows; ++macroblock) {
        if (predicted)
            slice.ue(0);
        slice.ue(predicted ? 30 : 25);  // I_PCM
        while (slice.plain().size() * 8 != slice.size())
            slice.bits(0, 1);
        for (int sample = 0; sample < 384; ++sample)
            slice.bits(sample < 256 ? luma : 128, 8);
    }
    return startCoded(slice.bytes());
}

TEST(PictureFields, MakeAWholePicture) {
    const struct {
        const char* what;
        uint32_t codec;
        std::vector<Stream> parts;
    } cases[] = {
        {"MPEG-2, I and P",
         picturing::VIDEO_MPEG2,
         {mpeg2Sequence(), mpeg2Field(kTop, false, kBright), mpeg2Field(kBottom, true, kDark)}},
        {"MPEG-2, I and I, the lower one first",
         picturing::VIDEO_MPEG2,
         {mpeg2Sequence(), mpeg2Field(kBottom, false, kDark), mpeg2Field(kTop, false, kBright)}},
        {"H.264, IDR and P",
         picturing::VIDEO_H264,
         {h264Sequence(), h264Field(kTop, false, true, kBright), h264Field(kBottom, true, false, kDark)}},
        {"H.264, I and I",
         picturing::VIDEO_H264,
         {h264Sequence(), h264Field(kTop, false, false, kBright), h264Field(kBottom, false, false, kDark)}},
    };
    constexpr double kMean = ((kBright + kDark) / 2.0 - 16) * 255 / 219;
    for (const auto& [what, codec, parts] : cases) {
        SCOPED_TRACE(what);
        Stream stream;
        for (const Stream& part : parts)
            append(stream, part);
        const DecodedPicture decoded = decodePicture(codec, stream);
        ASSERT_EQ(decoded.verdict, PictureVerdict::kDecoded);
        EXPECT_TRUE(decoded.whole);
        EXPECT_EQ(decoded.width, kWidth);
        EXPECT_EQ(decoded.height, kHeight);
        EXPECT_NEAR(measureLuma(decoded.small).mean, kMean, 5);  // one alone: far from it
    }
}

}  // namespace
}  // namespace pictured
