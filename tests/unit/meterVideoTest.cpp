// Video by hand: what encoders here do not make, damage, and how pictures are found in PES packets.
#include <gmock/gmock.h>

#include <string>

#include "fields/bitReader.h"
#include "media/pictureGroups.h"
#include "media/videoStream.h"
#include "support/bitWriter.h"
#include "support/psiBuilder.h"

namespace meter {
namespace {

using psi::concat;
using test::BitWriter;
using test::mpegHeader;
using test::startCoded;

TEST(MeterBitReader, ReadsEachCodeAndStopsAtTheEnd) {
    BitWriter writer;
    const uint32_t values[] = {0, 1, 2, 7, 8, 254, 255, 65535, 1U << 31, UINT32_MAX - 1};
    for (const uint32_t value : values)
        writer.ue(value);
    for (const int32_t value : {0, 1, -1, 2, -2, 1000, -1000, INT32_MAX / 2})
        writer.se(value);
    writer.bits(0x123456789, 33);
    const std::vector<uint8_t> bytes = writer.bytes();
    BitReader reader(bytes);
    for (const uint32_t value : values)
        EXPECT_EQ(reader.ue(), value);
    for (const int32_t value : {0, 1, -1, 2, -2, 1000, -1000, INT32_MAX / 2})
        EXPECT_EQ(reader.se(), value);
    EXPECT_EQ(reader.longBits(33), 0x123456789U);
    EXPECT_FALSE(reader.overrun());
    EXPECT_TRUE(reader.flag());
    reader.skip(SIZE_MAX);
    EXPECT_TRUE(reader.overrun());
    EXPECT_EQ(reader.bits(32), 0U);
    EXPECT_EQ(reader.left(), 0U);

    // More zeros than a code has, and zeros to the end.
    const std::vector<uint8_t> zeros(6, 0);
    BitReader endless(zeros);
    EXPECT_EQ(endless.ue(), 0U);
    EXPECT_TRUE(endless.overrun());
    BitReader nothing({});
    EXPECT_EQ(nothing.se(), 0);
    EXPECT_TRUE(nothing.overrun());
}

struct H264Set {
    uint32_t profile = 77;
    uint32_t constraints = 0;
    bool frameMbsOnly = true;
    uint32_t mapUnits = 36;
    uint32_t crop[4] = {0, 0, 0, 0};
    uint32_t sarWidth = 0;
    uint32_t unitsInTick = 1;
    uint32_t timeScale = 50;
};

psi::Bytes sequenceSet(const H264Set& set) {
    BitWriter writer;
    writer.bits(0x67, 8).bits(set.profile, 8).bits(set.constraints, 8).bits(40, 8).ue(0);
    if (set.profile == 100)  // with scaling lists, one of which ends early
        writer.ue(1).ue(2).ue(2).bits(0, 1).bits(1, 1).bits(1, 1).se(-8).bits(0, 7);
    writer.ue(0).ue(1).bits(0, 1).se(-5).se(5).ue(2).se(1).se(-1);  // pic_order_cnt_type 1 with a cycle
    writer.ue(4).bits(0, 1).ue(44).ue(set.mapUnits - 1).bits(set.frameMbsOnly, 1);
    if (!set.frameMbsOnly)
        writer.bits(1, 1);
    writer.bits(1, 1).bits(1, 1);
    for (const uint32_t offset : set.crop)
        writer.ue(offset);
    writer.bits(1, 1).bits(1, 1).bits(255, 8).bits(set.sarWidth, 16).bits(15, 16);
    writer.fields({{1, 1}, {1, 1}, {1, 1}, {5, 3}, {0, 1}, {1, 1}, {9, 8}, {14, 8}, {9, 8}});
    writer.bits(1, 1).ue(0).ue(0).bits(1, 1).bits(set.unitsInTick, 32).bits(set.timeScale, 32).bits(1, 1);
    return startCoded(writer.bytes());
}

psi::Bytes pictureSet() {
    return startCoded(BitWriter().bits(0x68, 8).ue(0).ue(0).bits(0, 8).bytes());
}

// `field`: 0 frame, 1 top, 2 bottom, of a sequence that has fields.
psi::Bytes slice(uint8_t nal, uint32_t type, uint32_t frameNumber, int field = -1, uint32_t first = 0) {
    BitWriter writer;
    writer.bits(nal, 8).ue(first).ue(type).ue(0).bits(frameNumber, 4);
    if (field >= 0)
        writer.bits(field > 0, 1);
    if (field > 0)
        writer.bits(field == 2, 1);
    return concat({startCoded(writer.bytes()), psi::Bytes(60, 0x55)});
}

psi::Bytes sei(uint8_t type, const psi::Bytes& payload, const psi::Bytes& header = {6}) {
    return startCoded(concat({header, {type, psi::low8(payload.size())}, payload, {0x80}}));
}

// PES packets, each in pieces of 184 bytes as long as more is wanted; the time goes on by 3600.
class Feeder {
  public:
    explicit Feeder(Codec codec, std::size_t piece = 184) : stream_(codec), piece_(piece) {}

    Feeder& pes(const psi::Bytes& bytes, bool randomAccess = false) {
        bool more = true;
        for (std::size_t at = 0; at < bytes.size() && more; at += piece_) {
            more = stream_.feed(at == 0, randomAccess,
                                Bytes(bytes).subspan(at, std::min(piece_, bytes.size() - at)), dts_);
            ++pieces_;
        }
        dts_ = (dts_ + 3600) % (Ticks{1} << 33);
        return *this;
    }
    VideoReport video() const {
        return report().first;
    }
    GopReport gop() const {
        return report().second;
    }
    int pieces() const {
        return pieces_;
    }

  private:
    std::pair<VideoReport, GopReport> report() const {
        std::pair<VideoReport, GopReport> report;
        stream_.fill(report.first, report.second);
        return report;
    }

    VideoStream stream_;
    std::size_t piece_;
    Ticks dts_ = (Ticks{1} << 33) - 7200;  // wraps in the first group
    int pieces_ = 0;
};

TEST(MeterH264, ParameterSetsAreReadPastAllThatMayStandInThem) {
    for (const uint32_t profile : {66U, 77U, 100U}) {
        for (const bool frames : {true, false}) {
            H264Set set{.profile = profile, .constraints = 0x40, .frameMbsOnly = frames};
            set.mapUnits = frames ? 68 : 34;
            set.crop[1] = 2;
            set.crop[3] = frames ? 4 : 2;
            set.sarWidth = 16;
            Feeder feeder(Codec::kH264, 7);  // cut anywhere
            feeder.pes(concat({sequenceSet(set), pictureSet(), slice(0x65, 7, 0, frames ? -1 : 0)}));
            const VideoReport video = feeder.video();
            EXPECT_EQ(video.width, 716U);
            EXPECT_EQ(video.height, 1080U);
            EXPECT_EQ(video.interlaced, !frames);
            EXPECT_EQ(video.pixelAspect, "16:15");
            EXPECT_EQ(video.frameRate, 25);
            EXPECT_EQ(video.profile, profile == 66   ? "Constrained Baseline"
                                     : profile == 77 ? "Main"
                                                     : "High");
            EXPECT_EQ(video.bitDepth, profile == 100 ? 10U : 8U);
            EXPECT_EQ(video.colour, "BT.2020");
            EXPECT_EQ(video.transfer, "BT.2020");
        }
    }
}

TEST(MeterH264, WhatCannotBeIsNotShown) {
    H264Set cropped;
    cropped.crop[0] = UINT32_MAX - 1;
    H264Set huge{.mapUnits = 1U << 30};
    H264Set noRate{.unitsInTick = 0};
    H264Set timeBase{.unitsInTick = 1, .timeScale = 180'000};
    for (const H264Set& set : {cropped, huge})
        EXPECT_EQ(Feeder(Codec::kH264).pes(concat({sequenceSet(set), slice(0x65, 7, 0)})).video().width,
                  std::nullopt);
    for (const H264Set& set : {noRate, timeBase}) {
        Feeder feeder(Codec::kH264);
        feeder.pes(concat({sequenceSet(set), pictureSet(), slice(0x65, 7, 0)}));
        EXPECT_EQ(feeder.video().width, 720U);
        EXPECT_EQ(feeder.video().frameRate, std::nullopt);
        for (int i = 0; i < 60; ++i)
            feeder.pes(slice(0x41, 5, 0));
        EXPECT_EQ(feeder.video().frameRate, 25);  // by decoding time stamps
    }
    // Cut at any byte: what is not there is not known.
    const psi::Bytes whole = sequenceSet({});
    for (std::size_t size = 0; size < whole.size(); ++size) {
        const psi::Bytes cut(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size));
        const VideoReport video = Feeder(Codec::kH264).pes(concat({cut, slice(0x65, 7, 0)})).video();
        EXPECT_EQ(video.width.value_or(720), 720U);
    }
}

// What a gap cut off ends where the next PES packet begins, and is not believed.
TEST(MeterH264, AParameterSetWithAGapInItChangesNothing) {
    Feeder feeder(Codec::kH264);
    feeder.pes(concat({sequenceSet({}), pictureSet(), slice(0x65, 7, 0)}));
    psi::Bytes cut = sequenceSet({.mapUnits = 18});
    cut.resize(cut.size() - 6);
    feeder.pes(cut).pes(slice(0x41, 5, 1));
    EXPECT_EQ(feeder.video().height, 576U);
    EXPECT_EQ(feeder.video().frameRate, 25);
}

TEST(MeterH264, FieldsArePaired) {
    const H264Set set{.frameMbsOnly = false};
    const auto gopOf = [&set](const std::vector<psi::Bytes>& units) {
        Feeder feeder(Codec::kH264);
        for (const psi::Bytes& unit : units)
            feeder.pes(concat({sequenceSet(set), pictureSet(), unit}));
        return feeder.gop();
    };
    // I with P as its second field, B fields, P fields; in PES packets of their own, then two in each.
    const psi::Bytes i1 = slice(0x65, 7, 0, 1);
    const psi::Bytes i2 = slice(0x41, 5, 0, 2);
    const psi::Bytes b1 = slice(0x01, 6, 1, 1);
    const psi::Bytes b2 = slice(0x01, 6, 1, 2);
    const psi::Bytes frame = slice(0x41, 5, 2, 0);
    const GopReport apart = gopOf({i1, i2, b1, b2, b1, b2, frame, i1});
    EXPECT_EQ(apart.structure, "|IBBP");
    EXPECT_EQ(apart.ms, 7 * 40);
    EXPECT_EQ(gopOf({concat({i1, i2}), concat({b1, b2}), concat({b1, b2}), frame, i1}).structure, "|IBBP");
}

TEST(MeterH264, GroupsBeginAtIPicturesAndSayWhatDecodingCanBeginWith) {
    const psi::Bytes sets = concat({sequenceSet({}), pictureSet()});
    const psi::Bytes p = slice(0x41, 5, 1);
    const psi::Bytes i = slice(0x41, 7, 1);
    Feeder feeder(Codec::kH264);
    feeder.pes(p).pes(concat({sets, slice(0x65, 7, 0)})).pes(p).pes(p);
    EXPECT_EQ(feeder.gop().structure, std::nullopt);  // what was joined within is no whole group
    feeder.pes(i);
    EXPECT_EQ(feeder.gop().structure, "|IPP");
    EXPECT_EQ(feeder.gop().closed, true);
    EXPECT_EQ(feeder.gop().ms, 120);
    feeder.pes(p).pes(concat({sei(6, {0x84}), i}));
    EXPECT_EQ(feeder.gop().structure, "IP");
    EXPECT_EQ(feeder.gop().closed, false);
    feeder.pes(p).pes(p).pes(p).pes(i, true);
    EXPECT_EQ(feeder.gop().structure, "|IPPP");  // a recovery point
    feeder.pes(slice(0x65, 7, 0));
    EXPECT_EQ(feeder.gop().structure, "|I");  // random_access_indicator
    EXPECT_EQ(feeder.gop().lowest, 1);
    EXPECT_EQ(feeder.gop().highest, 4);
    EXPECT_EQ(feeder.gop().mean, 2.5);
    EXPECT_EQ(feeder.gop().intraWithoutIdr, 3U);
    // Refreshed bit by bit: decoding can begin at P pictures.
    feeder.pes(p).pes(concat({sei(6, {0x84}), p})).pes(p).pes(concat({sei(6, {0x84}), p}));
    EXPECT_EQ(feeder.gop().structure, "|PP");
}

TEST(MeterVideo, APesPacketIsLookedAtToItsEndWhereOneHoldsSeveralPictures) {
    const psi::Bytes sets = concat({sequenceSet({}), pictureSet()});
    const psi::Bytes body(2000, 0x77);
    Feeder one(Codec::kH264);
    one.pes(concat({sets, slice(0x65, 7, 0), body}));
    for (int i = 0; i < 100; ++i)
        one.pes(concat({slice(0x41, 5, 1), slice(0x41, 5, 1, -1, 99), body}));
    EXPECT_LT(one.pieces(), 101 + 30 * 12);
    Feeder several(Codec::kH264);
    several.pes(concat({sets, slice(0x65, 7, 0), body}));
    for (int i = 0; i < 40; ++i)
        several.pes(concat({slice(0x41, 5, 1), body}));
    for (int i = 0; i < 100; ++i)
        several.pes(concat({slice(0x41, 5, 1), body, slice(0x41, 5, 2), body}));
    several.pes(concat({slice(0x65, 7, 0), body}));
    // Those before it was noticed are missing.
    EXPECT_GT(several.gop().pictures.value_or(0), 41U + 200 - 64);
    EXPECT_NEAR(several.gop().ms.value_or(0), 141 * 40, 0.1);
}

TEST(MeterVideo, WhatIsShownOfAGroupIsBounded) {
    PictureGroups groups;
    const PictureStart idr{.type = PictureType::kI, .closed = true, .randomAccess = true};
    groups.add(idr, 0);
    for (Ticks i = 1; i < 10'000; ++i)
        groups.add({.type = PictureType::kP}, i * 3600);
    groups.add(idr, 36'000'000);
    GopReport report;
    groups.fill(report);
    EXPECT_EQ(report.structure.value_or("").size(), kStructureLimit + 1);
    EXPECT_EQ(report.pictures, 10'000U);
    EXPECT_EQ(report.ms, std::nullopt);  // more than a minute: the time stamps are not of one time
    for (int second = 0; second < 60; ++second)
        groups.secondEnded();
    groups.fill(report);
    EXPECT_EQ(report.highest, 10'000);
    groups.secondEnded();
    GopReport later;
    groups.fill(later);
    EXPECT_EQ(later.highest, std::nullopt);
    EXPECT_EQ(later.pictures, 10'000U);
}

psi::Bytes mpeg2Picture(uint32_t type, uint32_t temporal, uint32_t structure) {
    return concat({mpegHeader({{0, 8}, {temporal, 10}, {type, 3}, {0xFFFF, 16}}),
                   mpegHeader({{0xB5, 8}, {8, 4}, {0xFFFF, 16}, {0, 2}, {structure, 2}, {0, 16}}),
                   startCoded({0x01, 0x22, 0x33}, false), psi::Bytes(300, 0x44),
                   startCoded({0x02, 0x22}, false)});
}

psi::Bytes mpeg2Sequence(uint32_t aspect, uint32_t rate) {
    return mpegHeader({{0xB3, 8}, {720, 12}, {576, 12}, {aspect, 4}, {rate, 4}, {0xFFFF, 32}});
}

TEST(MeterMpeg2, FieldsAspectAndClosedGroups) {
    const psi::Bytes extension =
        mpegHeader({{0xB5, 8}, {1, 4}, {0x85, 8}, {0, 1}, {2, 2}, {0, 4}, {0xFFF, 12}, {1, 1}, {0, 16}});
    const psi::Bytes display = mpegHeader(
        {{0xB5, 8}, {2, 4}, {1, 3}, {1, 1}, {9, 8}, {18, 8}, {9, 8}, {704, 14}, {1, 1}, {576, 14}});
    const psi::Bytes sequence = concat({mpeg2Sequence(3, 3), extension, display});
    const auto group = [](bool closed) { return mpegHeader({{0xB8, 8}, {0, 25}, {closed, 1}, {0, 6}}); };
    for (const std::size_t piece : {184U, 5U}) {
        Feeder feeder(Codec::kMpeg2Video, piece);
        feeder.pes(concat({sequence, group(true), mpeg2Picture(1, 0, 1)})).pes(mpeg2Picture(2, 0, 2));
        feeder.pes(mpeg2Picture(2, 1, 3)).pes(mpeg2Picture(3, 2, 2)).pes(mpeg2Picture(3, 2, 1));
        feeder.pes(concat({group(false), mpeg2Picture(1, 0, 3)}));
        const VideoReport video = feeder.video();
        EXPECT_EQ(video.width, 720U);
        EXPECT_EQ(video.profile, "4:2:2");
        EXPECT_EQ(video.level, 5U);
        EXPECT_EQ(video.chroma, "4:2:2");
        EXPECT_EQ(video.interlaced, true);
        EXPECT_EQ(video.pixelAspect, "16:11");  // 16:9 of 704 x 576
        EXPECT_EQ(video.transfer, "HLG");
        EXPECT_EQ(feeder.gop().structure, "|IPB");
        EXPECT_EQ(feeder.gop().closed, true);
        feeder.pes(mpeg2Picture(2, 1, 3)).pes(concat({sequence, group(false), mpeg2Picture(1, 0, 3)}));
        EXPECT_EQ(feeder.gop().structure, "IP");
        EXPECT_EQ(feeder.gop().closed, false);
    }
}

// Extensions that come again and again would multiply the rate until nothing is left of it.
TEST(MeterMpeg2, ARateIsExtendedOnceHoweverOftenItsExtensionComes) {
    const psi::Bytes extension = mpegHeader(
        {{0xB5, 8}, {1, 4}, {0x48, 8}, {1, 1}, {1, 2}, {0, 4}, {0xFFF, 12}, {1, 1}, {0, 9}, {3, 2}, {0, 5}});
    psi::Bytes pictures;
    for (uint32_t i = 0; i < 4; ++i)
        pictures = concat({pictures, mpeg2Picture(i == 0 ? 1 : 2, i, 3)});
    psi::Bytes extensions;
    for (int i = 1; i <= 40; ++i) {
        extensions = concat({extensions, extension});
        Feeder feeder(Codec::kMpeg2Video);
        const psi::Bytes packet = concat({mpeg2Sequence(2, 2), extensions, pictures});
        feeder.pes(packet).pes(packet);
        EXPECT_EQ(feeder.video().frameRate, 24 * 4) << i;
        EXPECT_EQ(feeder.gop().structure, "|IPPP") << i;
    }
}

// PES packets that begin anywhere in the elementary stream.
TEST(MeterMpeg2, PicturesAreFoundWhereverPesPacketsBegin) {
    psi::Bytes stream = mpeg2Sequence(2, 3);
    std::string types;
    for (uint32_t i = 0; i < 60; ++i) {
        const uint32_t type = i % 6 == 0 ? 1 : (i % 3 == 0 ? 2 : 3);
        types += "?IPB"[type];
        const psi::Bytes picture = mpeg2Picture(type, i, 3);
        stream.insert(stream.end(), picture.begin(), picture.end());
    }
    Feeder feeder(Codec::kMpeg2Video);
    for (std::size_t at = 0; at < stream.size(); at += 1234)
        feeder.pes({stream.begin() + static_cast<std::ptrdiff_t>(at),
                    stream.begin() + static_cast<std::ptrdiff_t>(std::min(at + 1234, stream.size()))});
    EXPECT_EQ(feeder.gop().structure, types.substr(6, 6));
    EXPECT_EQ(feeder.gop().lowest, 6);
    EXPECT_EQ(feeder.gop().highest, 6);
    EXPECT_EQ(feeder.gop().intraWithoutIdr, 10U);
}

TEST(MeterH265, ParameterSetsAreReadPastSubLayersAndReferenceSets) {
    const auto profileTierLevel = [](BitWriter& writer) -> BitWriter& {
        writer.bits(2, 8).bits(0x20000000, 32).bits(1, 1).bits(0, 1).bits(0, 46).bits(120, 8);
        writer.bits(3, 2).bits(1, 2).bits(0, 12);  // sub-layers 0 with profile and level, 1 with level
        return writer.bits(0, 64).bits(0, 32).bits(0, 8);  // 88 + 8 + 8
    };
    const auto sequenceSet = [&](bool fields) {
        BitWriter set;
        set.bits(0x4201, 16).bits(0, 4).bits(2, 3).bits(1, 1);
        profileTierLevel(set).ue(0).ue(1).ue(3840).ue(2176).bits(1, 1).ue(0).ue(0).ue(0).ue(8);
        set.ue(2).ue(2).ue(4);
        set.bits(1, 1);
        for (int i = 0; i < 9; ++i)
            set.ue(1);
        for (int i = 0; i < 6; ++i)
            set.ue(i == 5 ? 3 : 0);
        set.bits(0, 1).bits(3, 2).bits(0, 1);
        set.ue(3).ue(1).ue(1).ue(0).bits(1, 1).ue(0).bits(1, 1);           // two pictures
        set.bits(1, 1).bits(0, 1).ue(0).bits(1, 1).bits(0, 2).bits(1, 1);  // from them: two of three
        set.bits(1, 1).bits(1, 1).ue(3).bits(1, 1).bits(1, 1).bits(1, 1);  // from these: all three
        set.bits(1, 1).ue(1).bits(0, 8).bits(0, 1);                        // a long-term picture
        set.bits(3, 2).bits(1, 1);
        set.fields({{1, 1}, {1, 8}, {0, 1}, {1, 1}, {5, 3}, {0, 1}, {1, 1}, {9, 8}, {14, 8}, {9, 8}});
        set.bits(0, 2).bits(fields, 1).bits(fields, 1).bits(1, 1).ue(1).ue(1).ue(1).ue(1);
        return startCoded(set.bits(1, 1).bits(1001, 32).bits(60000, 32).bytes());
    };
    // slice headers have an extra bit
    const psi::Bytes pictures =
        startCoded(BitWriter().bits(0x4401, 16).ue(3).ue(0).bits(0, 2).bits(1, 3).bytes());
    const auto slice265 = [](uint32_t nal, uint32_t type, uint32_t layer = 0) {
        BitWriter writer;
        writer.bits(nal, 7).bits(layer, 6).bits(1, 3).bits(1, 1);
        if (nal >= 16)
            writer.bits(0, 1);
        return startCoded(writer.ue(3).bits(1, 1).ue(type).bits(0, 32).bytes());
    };
    Feeder feeder(Codec::kH265, 11);
    feeder.pes(concat({sequenceSet(false), pictures, slice265(19, 2)}));
    feeder.pes(slice265(1, 1)).pes(slice265(0, 0)).pes(slice265(1, 0, 1));
    VideoReport video = feeder.video();
    EXPECT_EQ(video.width, 3840U);
    EXPECT_EQ(video.height, 2160U);
    EXPECT_EQ(video.profile, "Main 10");
    EXPECT_EQ(video.level, 120U);
    EXPECT_EQ(video.bitDepth, 10U);
    EXPECT_NEAR(video.frameRate.value_or(0), 59.94, 0.001);
    EXPECT_EQ(video.transfer, "BT.2020");
    // A slice shorter than what is read of one ends with its PES packet, when the next one begins.
    feeder.pes(concat({sei(147, {18}, {0x4E, 0x01}), slice265(21, 2)})).pes(slice265(1, 1));
    EXPECT_EQ(feeder.video().transfer, "HLG");
    EXPECT_EQ(feeder.gop().structure, "|IPB");
    EXPECT_EQ(feeder.gop().closed, true);
    feeder.pes(slice265(1, 2)).pes({});
    feeder.pes(slice265(1, 1));
    EXPECT_EQ(feeder.gop().structure, "|IP");
    EXPECT_EQ(feeder.gop().closed, false);
    // Two fields make a frame, which has their width and twice their height; square samples of these fields
    // would make it upright.
    Feeder fields(Codec::kH265, 11);
    fields.pes(concat({sequenceSet(true), pictures, slice265(19, 2)})).pes(slice265(1, 1));
    video = fields.video();
    EXPECT_EQ(video.width, 3840U);
    EXPECT_EQ(video.height, 4320U);
    EXPECT_EQ(video.pixelAspect, "2:1");
    EXPECT_EQ(video.interlaced, true);
    EXPECT_NEAR(video.frameRate.value_or(0), 29.97, 0.001);
}

}  // namespace
}  // namespace meter
