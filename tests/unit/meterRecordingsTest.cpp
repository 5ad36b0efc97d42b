// What kestor-measure reads: files of packets, captures, and the frames in them.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "address.h"
#include "measure.h"
#include "meter/frame.h"
#include "support/scratch.h"
#include "tsFile.h"

namespace {

using Bytes = std::vector<uint8_t>;
using meter::FrameContent;
using meter::LinkLayer;

void append(Bytes& bytes, const Bytes& more) {
    bytes.insert(bytes.end(), more.begin(), more.end());
}

// A null packet that tells its number, with no other byte 0x47.
Bytes packet(unsigned number) {
    Bytes bytes(TsFile::kPacketSize, 0xFF);
    bytes[0] = 0x47;
    bytes[1] = 0x1F;
    bytes[3] = 0x10;
    bytes[4] = static_cast<uint8_t>(number >> 6 & 0x3F);
    bytes[5] = static_cast<uint8_t>(number & 0x3F);
    return bytes;
}

void write(const std::string& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary) << std::string(bytes.begin(), bytes.end());
}

// The numbers of a file's packets that have their sync byte, and how many packets there are in all.
std::pair<std::vector<unsigned>, size_t> numbersIn(const std::string& path) {
    Input input(path);
    TsFile file(input);
    std::pair<std::vector<unsigned>, size_t> result;
    for (auto packets = file.next(); !packets.empty(); packets = file.next()) {
        for (size_t at = 0; at < packets.size(); at += TsFile::kPacketSize) {
            ++result.second;
            if (packets[at] == 0x47) {
                result.first.push_back(packets[at + 4] * 64U + packets[at + 5]);
            }
        }
    }
    return result;
}

constexpr unsigned kPackets = 4000;  // beyond a window at 204 bytes each... and no multiple of it
static_assert(kPackets < 64 * 64);

TEST(Recordings, FindPacketsOfEachSizeWhereverTheFileBegins) {
    const station::ScratchDirectory scratch;
    const std::string path = scratch.path() / "packets.ts";
    for (const unsigned stride : {188U, 192U, 204U}) {
        for (const size_t cutOff : {0, 1, 100, 187}) {
            Bytes bytes;
            // More than two windows, so that packets cross from one to the next.
            for (unsigned i = 0; i < 3 * kPackets; ++i) {
                append(bytes, stride == 192 ? Bytes(4, 0x11) : Bytes{});
                append(bytes, packet(i % kPackets));
                append(bytes, Bytes(stride == 204 ? 16 : 0, 0x22));
            }
            bytes.erase(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(cutOff));
            bytes.resize(bytes.size() - 30);  // the last packet is not whole
            write(path, bytes);
            const auto [numbers, count] = numbersIn(path);
            const unsigned first = cutOff > (stride == 192 ? 4 : 0) ? 1 : 0;
            const unsigned last = 3 * kPackets - 1;
            ASSERT_EQ(count, last - first) << stride << " bytes, " << cutOff << " cut off";
            ASSERT_EQ(numbers.size(), count);
            for (size_t i = 0; i < numbers.size(); ++i) {
                ASSERT_EQ(numbers[i], (i + first) % kPackets);
            }
        }
    }
}

TEST(Recordings, KeepPacketsWithoutSyncByteInTheirPlaceAndFindTheRestBehindACut) {
    const station::ScratchDirectory scratch;
    const std::string path = scratch.path() / "packets.ts";
    Bytes bytes;
    for (unsigned i = 0; i < 300; ++i) {
        append(bytes, packet(i));
    }
    for (unsigned i = 100; i < 110; ++i) {
        bytes[i * TsFile::kPacketSize] = 0;
    }
    // 50 bytes are missing within packet 200.
    const auto cut = bytes.begin() + 200 * static_cast<std::ptrdiff_t>(TsFile::kPacketSize) + 60;
    bytes.erase(cut, cut + 50);
    write(path, bytes);
    const auto [numbers, count] = numbersIn(path);
    // 200 whole places up to the cut, the places that are looked at until it is noticed, and what stands
    // behind those.
    EXPECT_GE(numbers.size(), 300 - 10 - 2 - TsFile::kLostAfter);
    EXPECT_EQ(numbers[99], 99U);
    EXPECT_EQ(numbers[100], 110U);
    EXPECT_EQ(numbers.back(), 299U);
    EXPECT_LE(count, 300U);
}

TEST(Recordings, TellWhatAFileIsNot) {
    const station::ScratchDirectory scratch;
    const std::string path = scratch.path() / "file";
    Bytes pcap = {0x4D, 0x3C, 0xB2, 0xA1, 2, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 0};
    Bytes wireless = pcap;
    append(wireless, {105, 0, 0, 0});
    Bytes broken = pcap;
    append(broken,
           {1, 0, 0, 0, /* a frame of a gigabyte */ 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 64, 0, 0, 0, 64});
    append(pcap, {1, 0, 0, 0});
    Bytes stream = packet(1);
    stream[1] = 0x01;
    const std::pair<Bytes, std::string> cases[] = {{{}, "empty"},
                                                   {Bytes(5000, 'x'), "neither a transport stream"},
                                                   {stream, ""},
                                                   {packet(1), "nothing but null packets"},
                                                   {wireless, "link type"},
                                                   {broken, path},
                                                   {pcap, "no transport stream to a multicast group"}};
    for (const auto& [bytes, failure] : cases) {
        write(path, bytes);
        const MeasuredFile measured = measureFile(path, {}, [](uint64_t, uint64_t) {});
        EXPECT_NE(measured.failure.find(failure), std::string::npos) << measured.failure;
        EXPECT_EQ(measured.failure.empty(), failure.empty()) << measured.failure;
    }
    // `pcap` is the last one written: a group that was asked for and is not there is no clean one.
    const MeasuredFile absent =
        measureFile(path, {.groups = {0xEF090909}, .bitrate = {}}, [](uint64_t, uint64_t) {});
    EXPECT_NE(absent.failure.find("no transport packets to 239.9.9.9"), std::string::npos) << absent.failure;
    EXPECT_NE(measureFile("/nowhere/at/all", {}, [](uint64_t, uint64_t) {}).failure.find("/nowhere/at/all"),
              std::string::npos);
    EXPECT_FALSE(measureFile("/tmp", {}, [](uint64_t, uint64_t) {}).failure.empty());
}

Bytes ethernet(const Bytes& tags, const Bytes& packet) {
    Bytes frame = {1, 0, 0x5E, 1, 1, 1, 2, 0, 0, 0, 0, 1};
    append(frame, tags);
    append(frame, {8, 0});
    append(frame, packet);
    return frame;
}

// IPv4 with UDP from 10.0.0.7:1234 to 239.1.1.1:5000, TTL 8, DSCP 34, and 4 bytes.
Bytes internet() {
    return {0x45, 34 << 2, 0, 32, 0,    0,    0x40, 0,    8, 17, 0, 0, 10, 0, 0, 7,
            239,  1,       1, 1,  0x04, 0xD2, 0x13, 0x88, 0, 12, 0, 0, 1,  2, 3, 4};
}

TEST(Frame, IsReadDownToTheDatagram) {
    Bytes withOptions = internet();
    withOptions[0] = 0x46;
    withOptions[3] = 36;
    withOptions.insert(withOptions.begin() + 20, 4, 1);
    Bytes padded = internet();
    append(padded, Bytes(14, 0xEE));
    Bytes cooked(14, 0);
    append(cooked, {8, 0});
    append(cooked, internet());
    Bytes cooked2 = {8, 0};
    append(cooked2, Bytes(18, 0));
    append(cooked2, internet());
    const std::tuple<LinkLayer, Bytes, std::vector<uint16_t>> cases[] = {
        {LinkLayer::kEthernet, ethernet({}, internet()), {}},
        {LinkLayer::kEthernet, ethernet({}, withOptions), {}},
        {LinkLayer::kEthernet, ethernet({}, padded), {}},
        {LinkLayer::kEthernet, ethernet({0x81, 0, 0xE0, 100}, internet()), {100}},
        {LinkLayer::kEthernet, ethernet({0x88, 0xA8, 0, 7, 0x81, 0, 0x2F, 0xFF}, internet()), {7, 0xFFF}},
        {LinkLayer::kCooked, cooked, {}},
        {LinkLayer::kCooked2, cooked2, {}},
        {LinkLayer::kInternetAlone, internet(), {}},
    };
    for (const auto& [link, frame, tags] : cases) {
        meter::Datagram datagram;
        ASSERT_EQ(readFrame(link, frame, datagram), FrameContent::kDatagram);
        EXPECT_EQ(dotted(datagram.source) + " " + dotted(datagram.destination), "10.0.0.7 239.1.1.1");
        EXPECT_EQ(datagram.sourcePort, 1234);
        EXPECT_EQ(datagram.destinationPort, 5000);
        EXPECT_EQ(datagram.ttl, 8);
        EXPECT_EQ(datagram.dscp, 34);
        EXPECT_EQ(Bytes(datagram.payload.begin(), datagram.payload.end()), (Bytes{1, 2, 3, 4}));
        EXPECT_EQ(std::vector<uint16_t>(datagram.vlan.begin(), datagram.vlan.begin() + datagram.vlanCount),
                  tags);
    }
}

TEST(Frame, IsLeftOutWhereItIsNoMulticastDatagramAndNeverReadBeyondItsEnd) {
    const auto changed = [](const std::function<void(Bytes&)>& change) {
        Bytes packet = internet();
        change(packet);
        return ethernet({}, packet);
    };
    const std::pair<Bytes, FrameContent> cases[] = {
        {changed([](Bytes& p) { p[16] = 10; }), FrameContent::kOther},
        {changed([](Bytes& p) { p[9] = 6; }), FrameContent::kOther},
        {changed([](Bytes& p) { p[0] = 0x65; }), FrameContent::kOther},
        {changed([](Bytes& p) { p[0] = 0x44; }), FrameContent::kOther},
        {changed([](Bytes& p) { p[0] = 0x4F; }), FrameContent::kOther},
        {changed([](Bytes& p) { p[3] = 27; }), FrameContent::kOther},
        {changed([](Bytes& p) { p[6] = 0x20; }), FrameContent::kFragment},
        {changed([](Bytes& p) { p[7] = 1; }), FrameContent::kFragment},
        {ethernet({0x81, 0, 0, 1, 0x81, 0, 0, 2, 0x81, 0, 0, 3}, internet()), FrameContent::kOther},
    };
    for (const auto& [frame, content] : cases) {
        meter::Datagram datagram;
        EXPECT_EQ(readFrame(LinkLayer::kEthernet, frame, datagram), content);
    }
    // A UDP length beyond the frame takes what is there; each shorter frame is read in a block of its own, so
    // that the address sanitizer sees a byte too many.
    const Bytes whole = changed([](Bytes& p) { p[25] = 200; });
    for (size_t length = 0; length <= whole.size(); ++length) {
        const std::vector<uint8_t> frame(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(length));
        for (const LinkLayer link :
             {LinkLayer::kEthernet, LinkLayer::kCooked, LinkLayer::kCooked2, LinkLayer::kInternetAlone}) {
            meter::Datagram datagram;
            if (readFrame(link, frame, datagram) == FrameContent::kDatagram && !datagram.payload.empty()) {
                EXPECT_LE(datagram.payload.data() + datagram.payload.size(), frame.data() + frame.size());
            }
        }
    }
}

}  // namespace
