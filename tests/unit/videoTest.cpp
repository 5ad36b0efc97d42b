#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sarn/gop.h"
#include "sarn/h264.h"
#include "support/spsBuilder.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Size = std::pair<int32_t, int32_t>;  // width, height

constexpr Size kUnchanged = {-7, -9};

// Looks for a parameter set in a datagram of `length` bytes that holds `nal` at the offset. The datagram is
// allocated to size, so a read behind it is seen by the address sanitizer.
Size sizeFound(const Bytes& nal, uint8_t offset, std::size_t length = 188) {
    Bytes datagram(length, 0xFF);
    std::copy_n(nal.begin(), std::min(nal.size(), length - offset), datagram.begin() + offset);
    Size size = kUnchanged;
    parse_nal(datagram.data(), offset, static_cast<int32_t>(length), &size.second, &size.first);
    return size;
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const Bytes kDelimiter = nalUnit(0x09, {0xF0});
const Bytes kPlainSps = nalUnit(0x67, spsBody({}));
constexpr Size kPlainSize = {720, 576};

TEST(PictureSize, OfParameterSets) {
    struct Case {
        const char* name;
        Sps sps;
        Size size;
    };
    const Sps cropped = {.widthInMacroblocks = 120, .heightInMapUnits = 68, .crop = {0, 0, 0, 4}};
    const std::vector<int32_t> sixteenCodes(16, 1);
    const Case cases[] = {
        {"progressive", {}, kPlainSize},
        {"interlaced", {.heightInMapUnits = 18, .frameMbsOnly = false}, kPlainSize},
        {"bottom crop comes off the width", cropped, {1912, 1088}},
        {"every crop", {.crop = {1, 2, 3, 10}}, {720 - 26, 576 - 6}},
        {"crop beyond the picture wraps", {.crop = {0, 0, 0, 361}}, {-2, 576}},
        {"order count 1", {.pictureOrderCountType = 1, .refFrameOffsets = {5, -300}}, kPlainSize},
        {"order count 2", {.pictureOrderCountType = 2}, kPlainSize},
        {"profile 128 has no high fields", {.profile = 128}, kPlainSize},
        {"high profile", {.profile = 244, .highFields = true}, kPlainSize},
        {"scaling list", {.profile = 100, .highFields = true, .scalingDeltas = sixteenCodes}, kPlainSize},
        // A next scale of 0 ends the codes of a list, reached from 8 at once or by way of -8.
        {"short list", {.profile = 86, .highFields = true, .scalingDeltas = {-264}}, kPlainSize},
        {"negative scale", {.profile = 83, .highFields = true, .scalingDeltas = {-272, -248}}, kPlainSize},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(sizeFound(nalUnit(0x67, spsBody(c.sps)), 20), c.size) << c.name;
    }
}

TEST(PictureSize, IsLookedForWhereThePayloadBegins) {
    const Bytes shortStartCode(kPlainSps.begin() + 1, kPlainSps.end());
    const std::size_t two = 376;
    EXPECT_EQ(sizeFound(kDelimiter + kPlainSps, 18), kPlainSize);
    EXPECT_EQ(sizeFound(kDelimiter + nalUnit(0x06, {1}) + kPlainSps, 18), kUnchanged);
    EXPECT_EQ(sizeFound(nalUnit(0x68, spsBody({})), 18), kUnchanged);
    EXPECT_EQ(sizeFound(shortStartCode, 18), kUnchanged);
    EXPECT_EQ(sizeFound(kPlainSps, 180, two), kPlainSize) << "goes on into the next packet";
    EXPECT_EQ(sizeFound(kPlainSps, 184, two), kPlainSize);
    EXPECT_EQ(sizeFound(kPlainSps, 185, two), kUnchanged) << "a start code lies inside its packet";
    const auto last = static_cast<uint8_t>(188 - kPlainSps.size());
    EXPECT_EQ(sizeFound(kPlainSps, last), kPlainSize);
    for (uint8_t at = last + 1; at < 188; ++at) {
        EXPECT_EQ(sizeFound(kPlainSps, at), kUnchanged) << "the data ends early, from " << int{at};
    }
}

TEST(PictureSize, HostileParameterSetsEndWithTheirData) {
    Bytes delimiters;
    while (delimiters.size() < 188) {
        delimiters = delimiters + kDelimiter;
    }
    EXPECT_EQ(sizeFound(delimiters, 0), kUnchanged);
    EXPECT_EQ(sizeFound(delimiters, 0, 65000), kUnchanged);
    BitWriter endlessCycle;
    endlessCycle.u(24, 0x42'00'28).ue(0).ue(0).ue(1).u(1, 0).se(0).se(0).ue(UINT32_MAX);
    EXPECT_EQ(sizeFound(nalUnit(0x67, endlessCycle.bytes()), 20, 65000), kUnchanged);
    BitWriter hugeDelta;
    hugeDelta.u(24, 0x64'00'28).ue(0).ue(1).ue(0).ue(0).u(1, 0).u(1, 1).u(1, 1).se(INT32_MAX).se(INT32_MAX);
    hugeDelta.u(64, UINT64_MAX).u(64, UINT64_MAX);
    EXPECT_EQ(sizeFound(nalUnit(0x67, hugeDelta.bytes() + Bytes(40, 0xFF)), 20), Size(16, 16));
}

TEST(BitReaders, CodesOfAnyLength) {
    const std::tuple<BitWriter, uint32_t, int32_t> cases[] = {
        {BitWriter().ue(0xFFFFFFFF), 0xFFFFFFFF, 65},
        {BitWriter().u(33, 0).u(32, 5), 4, 65},  // a thirty-third zero ends the prefix as a one does
    };
    for (const auto& [bits, code, end] : cases) {
        int32_t position = 0;
        EXPECT_EQ(ReadExponentialGolombCode(bits.bytes().data(), position,
                                            static_cast<int32_t>(bits.bytes().size())),
                  code);
        EXPECT_EQ(position, end);
    }
    const BitWriter lowest = BitWriter().se(-INT32_MAX);
    int32_t start = 0;
    EXPECT_EQ(ReadSE(lowest.bytes().data(), start, static_cast<int32_t>(lowest.bytes().size())), -INT32_MAX);
    const Bytes ones(4, 0xFF);
    int32_t position = 8;
    EXPECT_EQ(ReadBits(ones.data(), position, 4, 32), -256) << "bits behind the data are 0";
    EXPECT_EQ(ReadBits(ones.data(), position, 4, 0), 0);
}

std::vector<PesSample> framesOf(std::initializer_list<std::pair<int, uint64_t>> groups) {
    std::vector<PesSample> frames;
    for (const auto& [count, size] : groups) {
        frames.insert(frames.end(), static_cast<std::size_t>(count), PesSample{size, 1, 0});
    }
    return frames;
}

struct GopEstimate : testing::Test {
    Gop gop{};
    GopResult result{.length = 0, .minimum = 255, .maximum = 1, .b_frames = 0, .unused = {}};
    ~GopEstimate() override {
        freeGopRings(&gop);
    }
    std::string calculate(const std::vector<PesSample>& frames) {
        testing::internal::CaptureStdout();
        calculateGOP(frames.data(), kGopFrames, &gop, 500, 257);
        getGOP(&result, gop);
        return testing::internal::GetCapturedStdout();
    }
    std::vector<int> reported() const {
        return {result.length, result.minimum, result.maximum, result.b_frames};
    }
};

TEST_F(GopEstimate, AveragesFromTheSecondCalculationOn) {
    const auto frames = framesOf({{60, 20000}, {420, 5000}, {19, 100000}, {1, 300000}});
    EXPECT_EQ(calculate(frames),
              "przed calculateGOP 257\n"
              "GOP \ni_frame_number 21\np_frame_number/i_frame_number 2\nAverage I Size 0\n"
              "B Frames 0 Current Length 0 \n"
              "GOP \ni_frame_number 21\np_frame_number/i_frame_number 2\nAverage I Size 104761\n"
              "B Frames 10 Current Length 23 \n"
              "po calculateGOP 257\n");
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
    for (int i = 0; i < 256; ++i) {
        saveGOP(&gop, 0, 0, 0, 21, 61, 500);
    }
    EXPECT_EQ(gop.b_frames, 9);  // 254 x 10 / 255
    saveGOP(&gop, 0, 0, 0, 21, 61, 500);
    EXPECT_EQ(gop.b_frames + gop.length + gop.lengthIndex, 0);
}

TEST_F(GopEstimate, EqualAveragesEndTheProcess) {
    for (int i = 0; i < 3; ++i) {
        saveGOP(&gop, 0, 0, 0, 251, 252, 500);  // length 1, B frames -1 in 8 bits
    }
    EXPECT_DEATH(saveGOP(&gop, 0, 0, 0, 251, 252, 500),
                 "source/gop:200: saveGOP: Assertion `\\(\\*gop\\).length != \\(\\*gop\\).b_frames' failed");
}

}  // namespace
