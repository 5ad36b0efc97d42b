// How much a second of a thousand groups is.
#include <gtest/gtest.h>

#include "meter.pb.h"
#include "shard.h"
#include "support/meterFeed.h"

namespace {

using namespace meterd;
using test::Feed;
using test::kGroup;
using test::kSecond;
using test::MeterStream;

// Groups of ten PIDs, with loss and other errors: their second is about a megabyte, so that a station and its
// socket are not what bounds the number of channels.
TEST(MeterVolume, IsAboutAMegabyteForASecondOfAThousandGroups) {
    constexpr uint32_t kGroups = 20;  // each reports as much
    constexpr std::size_t kAimed = 1000;
    constexpr std::size_t kBytesAGroup = 1500;
    MeterStream stream;
    stream.seconds = 4;
    for (const uint16_t pid : {0x103, 0x104, 0x105, 0x106, 0x107}) {
        stream.tables.push_back({pid, psi::section(0x90, 1, 0, {1, 2, 3}), 40});
    }
    stream.plant = [](double ms, test::TsPacket& packet) {
        if (static_cast<int>(ms) % 500 == 250) {
            packet[3] ^= 0x08;  // its counter
        }
    };
    const std::vector<test::TsPacket> packets = stream.packets();
    metering::Groups groups;
    for (uint32_t i = 0; i < kGroups; ++i) {
        *groups.add_group() = test::groupMessage(kGroup + i);
    }
    Shard shard({0, 1});
    shard.watch(watchListOf(groups));
    metering::Second second;
    for (const std::size_t half : {0, 1}) {  // the first one has descriptions
        second.Clear();
        int64_t end = 0;
        for (uint32_t i = 0; i < kGroups; ++i) {
            Feed feed;
            feed.packets.assign(
                packets.begin() + static_cast<std::ptrdiff_t>(half * packets.size() / 2),
                packets.begin() + static_cast<std::ptrdiff_t>((half + 1) * packets.size() / 2));
            feed.arrival += static_cast<int64_t>(half) * 2 * kSecond;
            while (const auto datagram = feed.next(kGroup + i)) {
                shard.feed(*datagram);
            }
            end = feed.arrival;
        }
        shard.tick(end);
        shard.report(kGroups, second);
    }
    ASSERT_EQ(second.report_size(), static_cast<int>(kGroups));
    EXPECT_GE(second.report(0).pid_size(), 10);
    EXPECT_FALSE(second.report(0).has_description());
    RecordProperty("bytesAGroup", static_cast<int>(second.ByteSizeLong() / kGroups));
    EXPECT_LE(second.ByteSizeLong() / kGroups * kAimed, kBytesAGroup * kAimed) << second.ByteSizeLong();
    EXPECT_GE(second.ByteSizeLong() / kGroups, 200U) << "so little is no second's report";
}

}  // namespace
