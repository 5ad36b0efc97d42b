#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sarn/gop.h"
#include "sarn/h264.h"
#include "support/consoleText.h"
#include "support/psiBuilder.h"

namespace {

using psi::Bytes;
using psi::concat;
using Size = std::pair<int32_t, int32_t>;  // width, height

constexpr Size kUnchanged = {-7, -9};

// The bytes that hold these bits, of which each group of digits is a field.
Bytes bits(std::string_view digits) {
    Bytes bytes;
    int count = 0;
    for (const char digit : digits)
        if (digit != ' ') {
            if (count % 8 == 0)
                bytes.push_back(0);
            bytes.back() = psi::low8(bytes.back() | (digit - '0') << (7 - count++ % 8));
        }
    return bytes;
}

// A four-byte start code and a NAL header before the bits.
Bytes nalUnit(uint8_t header, std::string_view digits) {
    return concat({{0, 0, 0, 1, header}, bits(digits)});
}

// Looks for a parameter set in a datagram of `length` bytes that holds `nal` at the offset.
Size sizeFound(const Bytes& nal, uint8_t offset = 20, std::size_t length = 188) {
    Bytes datagram(length, 0xFF);
    std::copy_n(nal.begin(), std::min(nal.size(), length - offset), datagram.begin() + offset);
    Size size = kUnchanged;
    parse_nal(datagram.data(), offset, static_cast<int32_t>(length), &size.second, &size.first);
    return size;
}

// ITU-T H.264 7.3.2.1.1. A parameter set is made up of its profile, with a level and its number, what high
// profiles add, the frame numbers, the order count, references, width, height, and what follows up to the
// VUI flag, which is 1.
const std::string kLevel = "00000000 00101000 1 ";
const std::string kBaseline = "01000010 " + kLevel;
const std::string kOrder0 = "1 1 011 ";
const std::string kWidth = "00101 0 00000101101 ";      // 45 macroblocks
const std::string kSize = kWidth + "00000100100 1 1 ";  // and 36 map units, frames only
const std::string kPlain = kBaseline + kOrder0 + kSize + "0 1";
// Chroma format 4:4:4, bit depths and a scaling matrix, of which the first list is sent or none.
const std::string kHigh = "00100 0 1 1 0 1 ";
const std::string kNoList = "0 0000000 ";
const std::string kHighEnd = kOrder0 + kSize + "0 1";

const Bytes kDelimiter = nalUnit(0x09, "11110000");
const Bytes kPlainSps = nalUnit(0x67, kPlain);
constexpr Size kPlainSize = {720, 576};

TEST(PictureSize, OfParameterSets) {
    const std::tuple<const char*, std::string, Size> cases[] = {
        {"progressive", kPlain, kPlainSize},
        {"interlaced", kBaseline + kOrder0 + kWidth + "000010010 0 0 1 0 1", kPlainSize},
        {"every crop", kBaseline + kOrder0 + kSize + "1 010 011 00100 0001011 1", {720 - 26, 576 - 6}},
        {"crop beyond the picture wraps",
         kBaseline + kOrder0 + kSize + "1 1 1 1 00000000101101010 1",
         {-2, 576}},
        {"order count 1", kBaseline + "1 010 0 011 010 011 0001010 0000000001001011001 " + kSize + "0 1",
         kPlainSize},
        {"order count 2", kBaseline + "1 011 " + kSize + "0 1", kPlainSize},
        {"profile 128 has no high fields", "10000000 " + kLevel + kHighEnd, kPlainSize},
        {"high profile", "11110100 " + kLevel + kHigh + kNoList + kHighEnd, kPlainSize},
        {"scaling list",
         "01100100 " + kLevel + kHigh +
             "1 010 010 010 010 010 010 010 010 010 010 010 010 010 010 010 010 0000000 " + kHighEnd,
         kPlainSize},
        // A next scale of 0 ends the codes of a list, reached from 8 at once or by way of -8.
        {"short list", "01010110 " + kLevel + kHigh + "1 0000000001000010001 0000000 " + kHighEnd,
         kPlainSize},
        {"negative scale",
         "01010011 " + kLevel + kHigh + "1 0000000001000100001 00000000111110001 0000000 " + kHighEnd,
         kPlainSize},
    };
    for (const auto& [name, set, size] : cases)
        EXPECT_EQ(sizeFound(nalUnit(0x67, set)), size) << name;
}

TEST(PictureSize, IsLookedForWhereThePayloadBegins) {
    const std::size_t two = 376;
    EXPECT_EQ(sizeFound(concat({kDelimiter, kPlainSps})), kPlainSize);
    EXPECT_EQ(sizeFound(concat({kDelimiter, nalUnit(0x06, "1"), kPlainSps})), kUnchanged);
    EXPECT_EQ(sizeFound(nalUnit(0x68, kPlain)), kUnchanged);
    EXPECT_EQ(sizeFound(Bytes(kPlainSps.begin() + 1, kPlainSps.end())), kUnchanged) << "short start code";
    EXPECT_EQ(sizeFound(kPlainSps, 184, two), kPlainSize) << "goes on into the next packet";
    EXPECT_EQ(sizeFound(kPlainSps, 185, two), kUnchanged) << "a start code lies inside its packet";
    const auto last = static_cast<uint8_t>(188 - kPlainSps.size());
    EXPECT_EQ(sizeFound(kPlainSps, last), kPlainSize);
    EXPECT_EQ(sizeFound(kPlainSps, last + 1), kUnchanged) << "the data ends early";
}

TEST(BitReaders, CodesOfAnyLength) {
    const std::string zeros(32, '0');
    // A thirty-third zero ends the prefix as a one does.
    for (const auto& [code, value] :
         {std::pair{zeros + "1" + zeros, UINT32_MAX}, {zeros + "0" + std::string(29, '0') + "101", 4U}}) {
        int32_t position = 0;
        EXPECT_EQ(ReadExponentialGolombCode(bits(code).data(), position, 9), value);
        EXPECT_EQ(position, 65);
    }
    int32_t position = 0;
    EXPECT_EQ(ReadSE(bits(zeros.substr(1) + std::string(32, '1')).data(), position, 8), -INT32_MAX);
    position = 8;
    EXPECT_EQ(ReadBits(Bytes(4, 0xFF).data(), position, 4, 32), -256) << "bits behind the data are 0";
}

std::vector<PesSample> framesOf(std::initializer_list<std::pair<int, uint64_t>> groups) {
    std::vector<PesSample> frames;
    for (const auto& [count, size] : groups)
        frames.insert(frames.end(), static_cast<std::size_t>(count), PesSample{size, 1, 0});
    return frames;
}

struct GopEstimate : testing::Test {
    Gop gop{};
    GopResult result{.length = 0, .minimum = 255, .maximum = 1, .b_frames = 0, .unused = {}};
    ~GopEstimate() override {
        freeGopRings(&gop);
    }
    std::string calculate(const std::vector<PesSample>& frames) {
        return test::printedBy([&] {
            calculateGOP(frames.data(), kGopFrames, &gop, 500, 257);
            getGOP(&result, gop);
        });
    }
    std::vector<int> reported() const {
        return {result.length, result.minimum, result.maximum, result.b_frames};
    }
};

TEST_F(GopEstimate, AveragesFromTheSecondCalculationOn) {
    const auto frames = framesOf({{60, 20000}, {420, 5000}, {19, 100000}, {1, 300000}});
    EXPECT_EQ(calculate(frames), test::consoleText("GOP"));
    EXPECT_THAT(reported(), testing::ElementsAre(0, 255, 1, 0)) << "nothing is valid after the first";
    calculate(frames);
    EXPECT_EQ(gop.b_frames + gop.length, 0) << "the averages leave out the entry just written";
    EXPECT_THAT(reported(), testing::ElementsAre(0, 255, 1, 0));
    calculate(frames);  // B (0 + 10) / 2, length (0 + 10 + 0 + 23) / 2
    EXPECT_THAT(reported(), testing::ElementsAre(16, 16, 16, 5));
    calculate(frames);  // B 20 / 3, length (20 + 46) / 3
    EXPECT_THAT(reported(), testing::ElementsAre(22, 16, 22, 6));
}

TEST_F(GopEstimate, KeepsItsAveragesWithoutAnchorFrames) {
    EXPECT_THAT(calculate(framesOf({{500, 1002}})), testing::HasSubstr("i_frame_number 501\n"));
    EXPECT_EQ(gop.averageISize, 1000U);
    EXPECT_EQ(gop.lengthRing, nullptr);
    EXPECT_EQ(saveGOP(&gop, 0, 5, 5, 0, 9, 500), -1);
    EXPECT_EQ(gop.averageISize, 1000U);
    // The threshold is 2 x (1500 + 1000) / 3 = 1666.7: 1112 x 1.5 exceeds it, 1111 x 1.5 does not.
    EXPECT_THAT(calculate(framesOf({{250, 1111}, {248, 1112}, {2, 1500}})),
                testing::HasSubstr("i_frame_number 251\np_frame_number/i_frame_number 1\n"));
}

TEST_F(GopEstimate, AveragesAreZeroWhenTheRingStartsOver) {
    for (int i = 0; i < 256; ++i)
        saveGOP(&gop, 0, 0, 0, 21, 61, 500);
    EXPECT_EQ(gop.b_frames, 9);  // 254 x 10 / 255
    saveGOP(&gop, 0, 0, 0, 21, 61, 500);
    EXPECT_EQ(gop.b_frames + gop.length + gop.lengthIndex, 0);
}

TEST_F(GopEstimate, EqualAveragesEndTheProcess) {
    for (int i = 0; i < 3; ++i)
        saveGOP(&gop, 0, 0, 0, 251, 252, 500);  // length 1, B frames -1 in 8 bits
    EXPECT_DEATH(saveGOP(&gop, 0, 0, 0, 251, 252, 500),
                 "source/gop:200: saveGOP: Assertion `\\(\\*gop\\).length != \\(\\*gop\\).b_frames' failed");
}

}  // namespace
