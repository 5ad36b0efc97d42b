// Excerpts: the coded picture and the piece of sound that are cut out of a channel while somebody wants them.
#include <gmock/gmock.h>

#include <functional>
#include <string>

#include "excerpt/keyPicture.h"
#include "meter/channelAnalyser.h"
#include "shard.h"
#include "support/bitWriter.h"
#include "support/meterFeed.h"

namespace {

using meter::ExcerptOutcome;
using meter::ExcerptVideo;
using psi::Bytes;
using psi::concat;
using test::BitWriter;
using test::kAudioPid;
using test::kGroup;
using test::kMs;
using test::kPmtPid;
using test::kSecond;
using test::kVideoPid;
using test::startCoded;
using test::TsPacket;

// ---- H.264 by hand: sets, and slices that say what they are

Bytes sequenceSet(bool fields = false) {
    BitWriter writer;
    writer.bits(0x67, 8).bits(77, 8).bits(0, 8).bits(40, 8).ue(0).ue(0).ue(2).ue(1).bits(0, 1).ue(44).ue(17);
    writer.bits(fields ? 0 : 1, 1);
    if (fields)
        writer.bits(1, 1);
    writer.bits(1, 1).bits(0, 1).bits(0, 1).bits(1, 1);
    return startCoded(writer.bytes());
}
Bytes pictureSet(uint32_t id = 0) {
    return startCoded(BitWriter().bits(0x68, 8).ue(id).ue(0).bits(0xAA, 8).bits(1, 1).bytes());
}
constexpr uint32_t kI = 7;
constexpr uint32_t kP = 5;
// `field`: 0 frame, 1 top, 2 bottom, of a sequence that has fields.
Bytes slice(uint8_t nal, uint32_t type, uint32_t frameNumber, std::size_t size = 600, uint32_t first = 0,
            int field = -1) {
    BitWriter writer;
    writer.bits(nal, 8).ue(first).ue(type).ue(0).bits(frameNumber, 4);
    if (field >= 0)
        writer.bits(field > 0, 1);
    if (field > 0)
        writer.bits(field == 2, 1);
    return concat({startCoded(writer.bytes()), Bytes(size, 0x55)});
}
Bytes idr(std::size_t size = 600) {
    return slice(0x65, kI, 0, size);
}

std::string text(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}
// Units with the four bytes of start code that an excerpt has.
std::string units(const std::vector<Bytes>& all) {
    std::string expected;
    for (const Bytes& unit : all)
        expected += std::string(1, '\0') + text(unit);
    return expected;
}

std::optional<std::string> cut(ExcerptVideo codec, const Bytes& stream, std::size_t piece) {
    meter::KeyPicture picture(codec);
    for (std::size_t at = 0; at < stream.size() && !picture.isEnded(); at += piece)
        picture.feed(meter::Bytes(stream).subspan(at, std::min(piece, stream.size() - at)));
    return picture.isEnded() && !picture.isTooLarge() ? std::optional(picture.take()) : std::nullopt;
}

TEST(MeterKeyPicture, IsCutOutWithItsSetsWhateverStandsAround) {
    const Bytes aud = {0, 0, 0, 1, 9, 0xF0};
    const Bytes sei = {0, 0, 1, 6, 6, 1, 0xC4, 0x80};
    const Bytes sps = sequenceSet();
    const Bytes pps = pictureSet();
    const Bytes p = slice(0x41, kP, 1);
    const Bytes iPicture = slice(0x61, kI, 0);
    const Bytes fields = sequenceSet(true);
    const Bytes top = slice(0x65, kI, 0, 600, 0, 1);
    const Bytes bottom = slice(0x61, kP, 0, 300, 0, 2);
    const Bytes mpegSequence = {0, 0, 1, 0xB3, 0x2D, 0x02, 0x40, 0x33, 0, 0, 0, 0};
    const Bytes mpegExtension = {0, 0, 1, 0xB5, 0x14, 0x82, 0, 1, 0, 0};
    const Bytes mpegPicture = {0, 0, 1, 0, 0, 0x08, 0xFF, 0};  // I, and a header that ends with zeros
    const Bytes mpegGroup = {0, 0, 1, 0xB8, 0, 8, 0, 0x40};
    const Bytes mpegP = {0, 0, 1, 0, 0, 0x50, 0xFF, 0xF8};
    const Bytes mpegSecond = {0, 0, 1, 0, 0, 0x10, 0xFF, 0xF8};  // P of mpegPicture's frame
    const Bytes mpegCoding = {0, 0, 1, 0xB5, 0x8F, 0xFF, 0xF3, 0x41, 0x80};
    const Bytes mpegTop = {0, 0, 1, 0xB5, 0x8F, 0xFF, 0xF1, 0x00, 0x80};
    const Bytes mpegBottom = {0, 0, 1, 0xB5, 0x8F, 0xFF, 0xF2, 0x00, 0x80};
    const Bytes mpegNext = {0, 0, 1, 0, 0, 0x48, 0xFF, 0x80};  // I, temporal_reference 1
    const Bytes mpegSlice = concat({{0, 0, 1, 1}, Bytes(300, 0x22)});
    const Bytes hevcVps = {0, 0, 1, 0x40, 1, 0x11, 0x80};
    const Bytes hevcSps = {0, 0, 1, 0x42, 1, 0x22, 0x80};
    const Bytes hevcPps =
        startCoded(BitWriter().bits(0x44, 8).bits(1, 8).ue(0).ue(0).bits(0, 6).bits(1, 1).bytes());
    const auto hevcSlice = [](uint8_t nal, uint32_t type, bool first) {
        BitWriter writer;
        writer.bits(nal, 8).bits(1, 8).bits(first, 1);
        if (nal >= 32)
            writer.bits(0, 1);
        return concat({startCoded(writer.ue(0).ue(type).bits(0x7FFF, 15).bytes()), Bytes(90, 0x66)});
    };
    const Bytes cra = hevcSlice(0x2A, 2, true);
    const Bytes craMore = hevcSlice(0x2A, 2, false);
    const Bytes trail = hevcSlice(0x02, 1, true);
    const struct {
        const char* what;
        ExcerptVideo codec;
        Bytes stream;
        std::optional<std::string> expected;
    } cases[] = {
        {"IDR", ExcerptVideo::kH264, concat({p, aud, sps, pps, sei, idr(), aud, p}),
         units({sps, pps, sei, idr()})},
        {"several slices", ExcerptVideo::kH264,
         concat({sps, pps, idr(), slice(0x65, kI, 0, 80, 99), slice(0x65, kI, 0, 80, 199), p}),
         units({sps, pps, idr(), slice(0x65, kI, 0, 80, 99), slice(0x65, kI, 0, 80, 199)})},
        {"I picture without IDR, sets before", ExcerptVideo::kH264, concat({sps, pps, p, iPicture, p}),
         units({sps, pps, iPicture})},
        {"I field with P field", ExcerptVideo::kH264,
         concat({fields, pps, top, bottom, slice(0x61, kP, 1, 60, 0, 1)}), units({fields, pps, top, bottom})},
        {"a field without its other one", ExcerptVideo::kH264,
         concat({fields, pps, top, slice(0x61, kP, 1, 60, 0, 1), slice(0x61, kP, 1, 60, 0, 2), top, bottom,
                 slice(0x61, kP, 1, 60, 0, 1)}),
         units({fields, pps, top, bottom})},
        {"fields of several slices, the second with a set of its own", ExcerptVideo::kH264,
         concat({fields, pps, top, slice(0x65, kI, 0, 80, 99), pictureSet(1), bottom,
                 slice(0x61, kP, 0, 80, 99), pictureSet(2), slice(0x61, kP, 1, 60, 0, 1)}),
         units({fields, pps, top, slice(0x65, kI, 0, 80, 99), pictureSet(1), bottom,
                slice(0x61, kP, 0, 80, 99)})},
        {"some slices of a picture alone are intra coded", ExcerptVideo::kH264,
         concat({sps, pps, slice(0x61, 2, 0), slice(0x61, 0, 0, 80, 99), iPicture, p}),
         units({sps, pps, iPicture})},
        {"a field that ends the sequence", ExcerptVideo::kH264,
         concat({fields, pps, top, {0, 0, 1, 10, 0, 0, 1}}), std::nullopt},
        {"sets that come twice, other ones before", ExcerptVideo::kH264,
         concat({sps, pps, pps, p, fields, pps, pictureSet(1), pps, top, bottom, aud, top}),
         units({fields, pps, pictureSet(1), top, bottom})},
        {"end of sequence", ExcerptVideo::kH264, concat({sps, pps, idr(), {0, 0, 1, 10, 0, 0, 1}}),
         units({sps, pps, idr()})},
        {"no picture behind", ExcerptVideo::kH264, concat({sps, pps, idr()}), std::nullopt},
        {"no sets", ExcerptVideo::kH264, concat({idr(), p, pps, idr(), p}), std::nullopt},
        {"no I picture", ExcerptVideo::kH264, concat({sps, pps, p, p, p}), std::nullopt},
        {"set without end", ExcerptVideo::kH264,
         concat({sps, {0, 0, 1, 0x68}, Bytes(100'000, 0x44), idr(), p}), std::nullopt},
        {"MPEG-2", ExcerptVideo::kMpeg2,
         concat({mpegP, mpegCoding, mpegSlice, mpegSequence, mpegExtension, mpegGroup, mpegPicture,
                 mpegCoding, mpegSlice, mpegSlice, mpegP, mpegCoding, mpegSlice}),
         units({mpegSequence, mpegExtension, mpegPicture, mpegCoding, mpegSlice, mpegSlice})},
        {"MPEG-2 fields, I and P", ExcerptVideo::kMpeg2,
         concat({mpegSequence, mpegExtension, mpegPicture, mpegTop, mpegSlice, mpegSecond, mpegBottom,
                 mpegSlice, mpegNext, mpegTop, mpegSlice}),
         units({mpegSequence, mpegExtension, mpegPicture, mpegTop, mpegSlice, mpegSecond, mpegBottom,
                mpegSlice})},
        {"MPEG-2, from the second field on", ExcerptVideo::kMpeg2,
         concat({mpegSequence, mpegExtension, mpegNext, mpegBottom, mpegSlice, mpegPicture, mpegTop,
                 mpegSlice, mpegPicture, mpegBottom, mpegSlice, mpegNext, mpegTop, mpegSlice}),
         units({mpegSequence, mpegExtension, mpegPicture, mpegTop, mpegSlice, mpegPicture, mpegBottom,
                mpegSlice})},
        {"H.265", ExcerptVideo::kH265, concat({trail, hevcVps, hevcSps, hevcPps, cra, craMore, trail}),
         units({hevcVps, hevcSps, hevcPps, cra, craMore})},
        {"nothing", ExcerptVideo::kH265, Bytes(4000, 0), std::nullopt},
    };
    for (const auto& [what, codec, stream, expected] : cases)
        for (const std::size_t piece : {1, 2, 3, 7, 184, 100'000})
            EXPECT_EQ(cut(codec, stream, piece), expected) << what << " in pieces of " << piece;
}

TEST(MeterKeyPicture, IsGivenUpWhereItIsTooLargeAndTakesTheNextBehindAGap) {
    meter::KeyPicture large(ExcerptVideo::kH264);
    large.feed(concat({sequenceSet(), pictureSet(), idr()}));
    const Bytes more(184, 0x33);
    std::size_t fed = 0;
    for (; fed < 2 * meter::kExcerptVideoBytes && !large.isEnded(); fed += more.size())
        large.feed(more);
    EXPECT_TRUE(large.isTooLarge());
    EXPECT_LE(fed, meter::kExcerptVideoBytes);

    meter::KeyPicture picture(ExcerptVideo::kH264);
    picture.feed(concat({sequenceSet(), pictureSet(), idr(500)}));
    picture.gap();
    picture.feed(concat({Bytes(100, 0x55), idr(70), slice(0x41, kP, 1)}));
    ASSERT_TRUE(picture.isEnded());
    EXPECT_EQ(picture.take(), units({sequenceSet(), pictureSet(), idr(70)}));
}

// ---- packets

// A channel's packets, as a multiplexer makes them.
class Sender {
  public:
    explicit Sender(std::vector<std::pair<uint8_t, uint16_t>> streams = {{0x1B, kVideoPid},
                                                                         {0x03, kAudioPid}}) {
        tables(std::move(streams));
    }
    void tables(std::vector<std::pair<uint8_t, uint16_t>> streams, uint8_t version = 0) {
        std::vector<psi::ElementaryStream> all;
        for (const auto& [type, pid] : streams)
            all.push_back({type, pid});
        section(0, psi::section(0, 1, 0, concat({psi::u16(1), psi::u16(0xE000 | kPmtPid)})));
        section(kPmtPid, psi::pmtSection(1, version, kVideoPid, all));
    }
    // `headerStuffing`: bytes of it; a header may be longer than a packet.
    Sender& pes(uint16_t pid, const Bytes& content, uint8_t headerStuffing = 0) {
        const Bytes head = concat(
            {{0, 0, 1, pid == kAudioPid ? uint8_t{0xC0} : uint8_t{0xE0}, 0, 0, 0x80, 0x00, headerStuffing},
             Bytes(headerStuffing, 0xFF)});
        const Bytes all = concat({head, content});
        for (std::size_t at = 0; at < all.size();) {
            const std::size_t count = std::min<std::size_t>(184, all.size() - at);
            const std::size_t stuffing = 184 - count;
            TsPacket packet = test::MeterStream::header(pid, at == 0, stuffing > 0 ? 0x30 : 0x10);
            if (stuffing > 0) {
                packet[4] = psi::low8(stuffing - 1);
                if (stuffing > 1)
                    packet[5] = 0;
            }
            std::copy_n(all.begin() + static_cast<std::ptrdiff_t>(at), count,
                        packet.begin() + static_cast<std::ptrdiff_t>(4 + stuffing));
            add(packet);
            at += count;
        }
        return *this;
    }
    Sender& pictures(int count = 1) {
        for (int i = 0; i < count; ++i)
            pes(kVideoPid, concat({sequenceSet(), pictureSet(), idr(3000)}))
                .pes(kVideoPid, slice(0x41, kP, 1));
        return *this;
    }
    std::vector<TsPacket> packets;

  private:
    void add(TsPacket packet) {
        uint8_t& counter = counters_[test::MeterStream::pidOf(packet)];
        packet[3] = static_cast<uint8_t>((packet[3] & 0xF0) | (counter++ & 0xF));
        packets.push_back(packet);
    }
    void section(uint16_t pid, const Bytes& section) {
        TsPacket packet = test::MeterStream::header(pid, true, 0x10);
        packet[4] = 0;
        std::ranges::copy(section, packet.begin() + 5);
        add(packet);
    }
    std::map<uint16_t, uint8_t> counters_;
};

const std::string kPicture = units({sequenceSet(), pictureSet(), idr(3000)});

// Fed a packet a datagram, one each `packetMs`, with an excerpt from the third packet on.
struct Taken {
    meter::Excerpt excerpt;
    bool ended = false;
};
Taken take(const std::vector<TsPacket>& packets, bool audio = false, int64_t packetMs = 1) {
    meter::ChannelAnalyser analyser{meter::Settings{}};
    int64_t arrival = kSecond;
    for (std::size_t i = 0; i < packets.size(); ++i, arrival += packetMs * kMs) {
        if (i == 2)
            analyser.beginExcerpt(audio);
        meter::Datagram datagram = test::datagram(arrival, packets[i]);
        datagram.wall = arrival;
        analyser.feed(datagram);
    }
    Taken taken;
    taken.ended = analyser.excerptIsEnded();
    taken.excerpt = analyser.takeExcerpt().value();
    EXPECT_FALSE(analyser.takeExcerpt()) << "once";
    return taken;
}

TEST(MeterExcerpt, SaysWhyThereIsNoPicture) {
    using Fault = std::function<void(std::vector<TsPacket>&)>;
    const auto video = [](std::vector<TsPacket>& packets, std::size_t from, std::size_t to,
                          const auto& change) {
        std::size_t number = 0;
        for (TsPacket& packet : packets)
            if (test::MeterStream::pidOf(packet) == kVideoPid && number++ >= from && number <= to)
                change(packet);
    };
    const struct {
        const char* what;
        Fault fault;
        ExcerptOutcome outcome;
        bool ended;
    } cases[] = {
        {"clean", [](auto&) {}, ExcerptOutcome::kTaken, true},
        {"a packet missing in each first picture", [](auto& packets) { packets.erase(packets.begin() + 5); },
         ExcerptOutcome::kTaken, true},
        {"fifteen packets missing in the first one, so that a counter comes twice",
         [](auto& packets) { packets.erase(packets.begin() + 4, packets.begin() + 19); },
         ExcerptOutcome::kTaken, true},
        {"first one damaged, second one scrambled midway",
         [&](auto& packets) {
             video(packets, 3, 4, [](TsPacket& packet) { packet[1] |= 0x80; });
             video(packets, 25, 26, [](TsPacket& packet) { packet[3] |= 0xC0; });
         },
         ExcerptOutcome::kTaken, true},
        {"packets sent twice",
         [](auto& packets) {
             for (std::size_t i = 2; i < packets.size(); i += 3)
                 packets.insert(packets.begin() + static_cast<std::ptrdiff_t>(i), packets[i - 1]);
         },
         ExcerptOutcome::kTaken, true},
        {"all scrambled",
         [&](auto& packets) { video(packets, 0, 1000, [](TsPacket& packet) { packet[3] |= 0x80; }); },
         ExcerptOutcome::kScrambled, true},
        {"each PES packet's begin is clear",
         [&](auto& packets) {
             video(packets, 0, 1000,
                   [](TsPacket& packet) { packet[3] |= (packet[1] & 0x40) != 0 ? 0 : 0x80; });
         },
         ExcerptOutcome::kScrambled, false},
        {"adaptation fields that lead out of the packet",
         [&](auto& packets) {
             video(packets, 0, 1000, [](TsPacket& packet) {
                 packet[3] |= 0x20;
                 packet[4] = 255;
             });
         },
         ExcerptOutcome::kNoRandomAccess, false},
        {"no start code prefix",
         [&](auto& packets) {
             video(packets, 0, 1000,
                   [](TsPacket& packet) { packet[6] = (packet[1] & 0x40) != 0 ? 9 : packet[6]; });
         },
         ExcerptOutcome::kNoRandomAccess, false},
        {"no video comes",
         [](auto& packets) {
             std::erase_if(packets,
                           [](const TsPacket& p) { return test::MeterStream::pidOf(p) == kVideoPid; });
         },
         ExcerptOutcome::kNoVideo, false},
    };
    for (const auto& [what, fault, outcome, ended] : cases) {
        Sender sender;
        sender.pes(kAudioPid, Bytes(50, 1)).pictures(6).pes(kAudioPid, Bytes(50, 1));
        fault(sender.packets);
        const Taken taken = take(sender.packets);
        EXPECT_EQ(taken.excerpt.outcome, outcome) << what;
        EXPECT_EQ(taken.ended, ended) << what;
        EXPECT_EQ(taken.excerpt.video.has_value(), outcome == ExcerptOutcome::kTaken) << what;
        if (taken.excerpt.video) {
            EXPECT_EQ(taken.excerpt.video->data, kPicture) << what;
        }
    }
    Sender radio({{0x0F, kAudioPid}});
    EXPECT_EQ(take(radio.pes(kAudioPid, Bytes(50, 1)).packets).excerpt.outcome, ExcerptOutcome::kNoVideo);
    Sender other({{0x33, kVideoPid}});
    EXPECT_EQ(take(other.pictures(2).packets).excerpt.outcome, ExcerptOutcome::kUnsupportedCodec);
    meter::ChannelAnalyser silent{meter::Settings{}};
    silent.beginExcerpt(true);
    EXPECT_FALSE(silent.excerptIsEnded());
    EXPECT_EQ(silent.takeExcerpt()->outcome, ExcerptOutcome::kNoPackets);
}

TEST(MeterExcerpt, FollowsThePmtAndPassesLongPesHeaders) {
    Sender sender;
    sender.pes(kVideoPid, concat({sequenceSet(), pictureSet(), idr(3000)}));
    sender.tables({{0x1B, 0x110}, {0x03, kAudioPid}}, 1);
    sender.pes(kVideoPid, slice(0x41, kP, 1));  // would end the picture
    sender.pes(0x110, concat({sequenceSet(), pictureSet(), idr(40)}), 255)
        .pes(0x110, slice(0x41, kP, 1), 200);
    const Taken taken = take(sender.packets);
    ASSERT_EQ(taken.excerpt.outcome, ExcerptOutcome::kTaken);
    EXPECT_EQ(taken.excerpt.video->data, units({sequenceSet(), pictureSet(), idr(40)}));
}

TEST(MeterExcerpt, HasTwoSecondsOfSoundFromAPesPacketOnWithinItsBound) {
    Sender sender;
    sender.pictures(2);
    std::string heard;
    for (int i = 0; i < 200; ++i)  // two packets each
        sender.pes(kAudioPid, Bytes(300, psi::low8(i)));
    // The first one began before the excerpt did.
    const Taken taken = take(sender.packets, true, 10);
    EXPECT_TRUE(taken.ended);
    ASSERT_TRUE(taken.excerpt.audio);
    EXPECT_EQ(taken.excerpt.audio->codec, meter::ExcerptAudio::kMpeg);
    EXPECT_NEAR(static_cast<double>(taken.excerpt.audio->data.size()), 300 * 100, 600);
    EXPECT_EQ(taken.excerpt.audio->data.substr(0, 300), std::string(300, '\0'));

    Sender loud;
    loud.pictures(2);
    for (int i = 0; i < 60; ++i)
        loud.pes(kAudioPid, Bytes(20'000, 7));
    EXPECT_EQ(take(loud.packets, true, 0).excerpt.audio->data.size(), meter::kExcerptAudioBytes);
    // No sound comes: the picture is not kept for it for long.
    Sender mute;
    mute.pictures(200);
    EXPECT_TRUE(take(mute.packets, true, 2).ended);
}

// ---- who asks

TEST(MeterShardExcerpts, AreHandedOverWhenTheyAreWholeOrDueAndForUnknownGroups) {
    meterd::Shard shard({0, 1});
    metering::Groups groups;
    groups.add_group()->set_group(kGroup);
    shard.watch(meterd::watchListOf(groups));
    std::vector<meterd::ExcerptTaken> taken;
    const auto wanted = [&](uint32_t group, uint64_t ticket) {
        return meterd::ExcerptWanted{group, ticket, false,
                                     [&](meterd::ExcerptTaken&& one) { taken.push_back(std::move(one)); }};
    };
    shard.beginExcerpt(wanted(kGroup, 1), 8 * kSecond);
    shard.beginExcerpt(wanted(kGroup + 1, 2), 8 * kSecond);
    shard.takeExcerpts(0);
    ASSERT_EQ(taken.size(), 1U);
    EXPECT_EQ(taken[0].ticket, 2U);
    EXPECT_FALSE(taken[0].excerpt);
    Sender sender;
    sender.pictures(2);
    int64_t arrival = kSecond;
    const auto feed = [&](meterd::Shard& to, const Sender& from, uint32_t group = kGroup) {
        for (const TsPacket& packet : from.packets) {
            meter::Datagram datagram = test::datagram(arrival += kMs, packet);
            datagram.destination = group;
            to.feed(datagram);
        }
    };
    feed(shard, sender);
    shard.takeExcerpts(kSecond);
    ASSERT_EQ(taken.size(), 2U);
    EXPECT_EQ(taken[1].excerpt->video->data, kPicture);

    shard.beginExcerpt(wanted(kGroup, 3), 8 * kSecond);
    shard.takeExcerpts(8 * kSecond - 1);
    EXPECT_EQ(taken.size(), 2U);
    shard.takeExcerpts(8 * kSecond);
    ASSERT_EQ(taken.size(), 3U);
    EXPECT_EQ(taken[2].excerpt->outcome, ExcerptOutcome::kNoPackets);
    // All together they hold no more than so much.
    meterd::Shard::Limits limits;
    limits.excerpts = 2000;
    meterd::Shard narrow({0, 1}, limits);
    narrow.watch(meterd::watchListOf(groups));
    narrow.beginExcerpt(wanted(kGroup, 9), 8 * kSecond);
    Sender unended;
    unended.pes(kVideoPid, concat({sequenceSet(), pictureSet(), idr(9000)}));
    feed(narrow, unended);
    narrow.takeExcerpts(0);
    ASSERT_EQ(taken.size(), 4U);
    EXPECT_EQ(taken[3].excerpt->outcome, ExcerptOutcome::kTooLarge);
    EXPECT_FALSE(taken[3].crowded) << "alone";
    taken.pop_back();
    // Two that have room, but not both.
    limits.excerpts = 16'000;
    meterd::Shard crowded({0, 1}, limits);
    auto both = groups;
    *both.add_group() = both.group(0);
    both.mutable_group(1)->set_group(kGroup + 1);
    crowded.watch(meterd::watchListOf(both));
    for (const uint32_t group : {kGroup, kGroup + 1}) {
        crowded.beginExcerpt(wanted(group, 10), 8 * kSecond);
        feed(crowded, unended, group);
    }
    crowded.takeExcerpts(0);
    ASSERT_EQ(taken.size(), 4U);
    EXPECT_TRUE(taken[3].crowded);
    taken.pop_back();
    // The group goes while one is open.
    shard.beginExcerpt(wanted(kGroup, 4), 8 * kSecond);
    shard.watch({});
    shard.takeExcerpts(0);
    ASSERT_EQ(taken.size(), 4U);
    EXPECT_FALSE(taken[3].excerpt);
}

}  // namespace
