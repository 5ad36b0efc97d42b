// kestor-meter without a network: times, filters, messages, shards, what waits to be sent.
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <poll.h>

#include <array>
#include <cstring>
#include <deque>
#include <map>
#include <set>

#include "arrivalClock.h"
#include "captureFilter.h"
#include "framing.h"
#include "outbox.h"
#include "reportLimit.h"
#include "reportMessages.h"
#include "shard.h"
#include "stationSession.h"
#include "support/frameBuilder.h"
#include "support/fullReport.h"
#include "support/meterFeed.h"
#include "support/vlanTags.h"

namespace {

using namespace meterd;
using test::Feed;
using test::groupMessage;
using test::kGroup;
using test::kMs;
using test::kSecond;
using test::tagged;

TEST(MeterArrivalClock, KeepsArrivalsWhereTheyAreWhenTheWallClockIsSet) {
    for (const int64_t step : {-3600 * kSecond, 3600 * kSecond, 200 * kMs, -50 * kMs}) {
        SCOPED_TRACE(step);
        int64_t wall = 1'700'000'000 * kSecond;
        int64_t steady = 5 * kSecond;
        ArrivalClock clock({wall, steady, 100});
        // A frame each 10 ms, read 30 ms late; the clock is set between frames 50 and 51.
        std::deque<int64_t> ring;
        int64_t next = steady;
        for (int i = 0; i < 150; ++i) {
            ring.push_back(wall);
            if (ring.size() > 3) {
                clock.look({wall + 500, steady + 500, 100});
                EXPECT_EQ(clock.arrival(ring.front()), next) << i;
                ring.pop_front();
                next += 10 * kMs;
            }
            wall += 10 * kMs;
            steady += 10 * kMs;
            if (i == 50) {
                wall += step;
            }
        }
        EXPECT_EQ(clock.steps(), 1U);
    }
}

// What the kernel would say of the frame.
bool passes(const std::vector<sock_filter>& filter, const test::Bytes& frame) {
    std::vector<bpf_insn> instructions(filter.size());
    std::memcpy(instructions.data(), filter.data(), filter.size() * sizeof(sock_filter));
    EXPECT_EQ(bpf_validate(instructions.data(), static_cast<int>(instructions.size())), 1);
    const auto bytes = static_cast<u_int>(frame.size());
    return bpf_filter(instructions.data(), frame.data(), bytes, bytes) != 0;
}

TEST(MeterCaptureFilter, LetsMulticastUdpThroughAlsoInVlansAndNothingElse) {
    const auto filter = multicastFilter({0, 1});
    const test::Bytes payload(188, 0x47);
    const test::Bytes frame = test::UdpFlow{}.frame(payload);
    for (const std::vector<uint16_t>& tags : {std::vector<uint16_t>{}, {7}, {9, 7}}) {
        EXPECT_TRUE(passes(filter, tagged(frame, tags))) << tags.size();
        // Each group is one share's.
        for (int last = 0; last < 9; ++last) {
            const test::Bytes toGroup =
                tagged(test::UdpFlow{.group = "239.1.1." + std::to_string(last)}.frame(payload), tags);
            for (unsigned share = 0; share < 3; ++share) {
                EXPECT_EQ(passes(multicastFilter({share, 3}), toGroup), last % 3 == static_cast<int>(share));
            }
        }
    }
    test::Bytes oldTag = tagged(frame, {9, 7});
    oldTag[12] = 0x91;
    oldTag[13] = 0x00;
    EXPECT_TRUE(passes(filter, oldTag));
    EXPECT_FALSE(passes(filter, tagged(frame, {9, 8, 7})));
    EXPECT_FALSE(passes(filter, test::UdpFlow{.group = "10.0.0.9"}.frame(payload)));
    EXPECT_FALSE(passes(filter, test::UdpFlow{.group = "240.0.0.9"}.frame(payload)));
    test::Bytes tcp = frame;
    tcp[14 + 9] = 6;
    EXPECT_FALSE(passes(filter, tcp));
    test::Bytes other = frame;
    other[12] = 0x86;
    other[13] = 0xDD;
    EXPECT_FALSE(passes(filter, other));
    EXPECT_FALSE(passes(filter, test::Bytes(frame.begin(), frame.begin() + 20)));
}

TEST(MeterFraming, GivesWholeMessagesHoweverTheyCome) {
    metering::FromMeter message;
    message.mutable_hello()->set_version("1");
    const std::string one = metering::framed(message);
    message.mutable_hello()->set_version(std::string(70000, 'x'));
    const std::string bytes = one + metering::framed(message) + one;
    for (const std::size_t step : {std::size_t{1}, std::size_t{3}, std::size_t{5000}, bytes.size()}) {
        metering::Unframer unframer;
        std::vector<std::size_t> sizes;
        for (std::size_t at = 0; at < bytes.size(); at += step) {
            unframer.add(std::string_view(bytes).substr(at, step));
            while (const auto text = unframer.next()) {
                metering::FromMeter read;
                ASSERT_TRUE(read.ParseFromArray(text->data(), static_cast<int>(text->size())));
                sizes.push_back(read.hello().version().size());
            }
        }
        EXPECT_EQ(sizes, (std::vector<std::size_t>{1, 70000, 1})) << step;
    }
    metering::Unframer unframer;
    unframer.add(std::string_view("\x01\x00\x00\x01", 4));
    EXPECT_THROW(unframer.next(), metering::Unreadable);
}

TEST(MeterStationSession, TakesNoMoreThanAMeterWatchesAndEndsWithNonsense) {
    int connected = 0;
    std::vector<metering::Groups> lists;
    const auto receive = [&](const std::vector<metering::FromStation>& messages) -> std::string {
        StationSession session("1", {[&](const std::string& version) {
                                         ++connected;
                                         EXPECT_EQ(version, "2.1[31m");
                                     },
                                     [&](const metering::Groups& groups) { lists.push_back(groups); }});
        try {
            for (const metering::FromStation& message : messages) {
                session.received(metering::framed(message));
            }
        } catch (const StationLost& lost) {
            return lost.what() + std::string(lost.refused ? " (refused)" : "");
        }
        return "";
    };
    metering::FromStation hello;
    hello.mutable_hello()->set_major(metering::kMajor);
    hello.mutable_hello()->set_version("2.\n1\x1B[31m\xC2\x9B");
    metering::FromStation list;
    list.mutable_groups()->set_revision(7);
    for (std::size_t i = 0; i < metering::kGroupsLimit + 1000; ++i) {
        list.mutable_groups()->add_group()->set_group(kGroup + static_cast<uint32_t>(i));
    }
    EXPECT_EQ(receive({list, hello, list}), "");
    EXPECT_EQ(connected, 1);
    ASSERT_EQ(lists.size(), 1U) << "what comes before the hello counts for nothing";
    EXPECT_EQ(lists[0].group_size(), static_cast<int>(metering::kGroupsLimit));
    EXPECT_EQ(lists[0].revision(), 7U);
    EXPECT_EQ(receive({hello, hello}), "the station sent twice who it is");
    metering::FromStation other = hello;
    other.mutable_hello()->set_major(metering::kMajor + 1);
    EXPECT_EQ(
        receive({other}),
        "the station (2.1[31m) speaks version 2 of the messages, this meter (1) 1: install both from one "
        "release (refused)");
    metering::FromStation refused;
    refused.mutable_refused()->set_reason("another meter\n");
    EXPECT_EQ(receive({hello, refused}), "the station refuses this meter: another meter (refused)");
    list.mutable_groups()
        ->mutable_group(3)
        ->GetReflection()
        ->MutableUnknownFields(list.mutable_groups()->mutable_group(3))
        ->AddLengthDelimited(99, std::string(2000, 'x'));
    EXPECT_EQ(receive({hello, list}), "the station sent a metering.Group that cannot be read");
}

TEST(MeterMessages, CarryEveryMemberThereAndBack) {
    const auto carried = [](const meter::Report& report) {
        metering::GroupReport levels;
        metering::Description description;
        levels.set_group(*report.group);
        metering::writeLevels(report, levels);
        metering::writeDescription(report, description);
        metering::GroupReport levelsRead;
        metering::Description descriptionRead;
        EXPECT_TRUE(levelsRead.ParseFromString(levels.SerializeAsString()));
        EXPECT_TRUE(descriptionRead.ParseFromString(description.SerializeAsString()));
        return metering::readReport(levelsRead, descriptionRead);
    };
    const meter::Report full = test::fullReport(kGroup);
    const meter::Report read = carried(full);
    EXPECT_EQ(meter::toJson(read), meter::toJson(full));
    // What the JSON does not show.
    EXPECT_EQ(read.checks[0].first, full.checks[0].first);
    EXPECT_EQ(read.services.at(0).ca.size(), 1U);
    EXPECT_EQ(read.services.at(0).streams.at(0).video->pixelAspect, "1:1");
    EXPECT_EQ(read.services.at(0).streams.at(2).pages, full.services.at(0).streams.at(2).pages);
    EXPECT_EQ(read.services.at(0).audioVideoMs, -12.5);
    EXPECT_EQ(read.pids.at(0).keyChanges, 88U);
    EXPECT_EQ(read.cues.at(0).autoReturn, true);
    meter::Report empty;
    empty.group = kGroup;
    empty.checks = meter::allChecks();
    EXPECT_EQ(meter::toJson(carried(empty)), meter::toJson(empty));
}

TEST(MeterShard, MeasuresItsShareAndTellsWhatChangedOnce) {
    metering::Groups groups;
    groups.set_revision(5);
    for (const uint32_t group :
         {kGroup, kGroup + 1, kGroup + 2, kGroup, 0x0A000001U}) {  // one twice, one unicast
        *groups.add_group() = groupMessage(group);
    }
    groups.mutable_group(2)->set_port(70000);
    const WatchList list = watchListOf(groups);
    ASSERT_EQ(list.groups.size(), 2U);
    Shard odd({1, 2});
    Shard even({0, 2});
    for (Shard* shard : {&odd, &even}) {
        shard->watch(list);
        EXPECT_EQ(shard->groups(), 1U);
    }
    Feed feed;
    meter::Settings settings;
    settings.group = kGroup;
    meter::ChannelAnalyser alone(settings);
    odd.joined(kGroup, feed.arrival - 25 * kMs);
    while (const auto datagram = feed.next()) {
        odd.feed(*datagram);
        even.feed(*datagram);
        alone.feed(*datagram);
    }
    odd.tick(feed.arrival);
    alone.tick(feed.arrival);
    metering::Second second;
    const auto report = [&] {
        second.Clear();
        odd.report(10, second);
        return second.report(0);
    };
    report();
    ASSERT_EQ(second.report_size(), 1);
    EXPECT_TRUE(second.last());
    EXPECT_EQ(second.revision(), 5U);
    const metering::GroupReport first = second.report(0);
    EXPECT_DOUBLE_EQ(first.join_latency_ms(), 25);
    ASSERT_TRUE(first.has_description());
    // What comes out at the station is what the library says.
    EXPECT_EQ(meter::toJson(metering::readReport(first, first.description())), meter::toJson(alone.report()));

    EXPECT_FALSE(report().has_description());
    EXPECT_EQ(report().epoch(), first.epoch());
    odd.describeAnew();
    EXPECT_TRUE(report().has_description());

    // The same list again leaves it alone, another entry begins anew, an absent one is gone.
    odd.watch(list);
    metering::GroupReport again = report();
    EXPECT_EQ(again.packets().received(), first.packets().received());
    EXPECT_TRUE(again.has_description()) << "who sent the list may have dropped it meanwhile";
    EXPECT_FALSE(again.has_last_disturbed());
    odd.disturbed(2);
    odd.tick(feed.arrival + 3 * kSecond);
    odd.disturbed(1);
    odd.tick(feed.arrival + 5 * kSecond);
    again = report();
    EXPECT_EQ(again.disturbed_seconds(), 3U);
    EXPECT_NEAR(again.last_disturbed(), again.seconds() - 2, 0.001);
    groups.mutable_group(0)->set_pid_absence_ms(1000);
    odd.watch(watchListOf(groups));
    again = report();
    EXPECT_EQ(again.packets().received(), 0U);
    EXPECT_NE(again.epoch(), first.epoch());
    odd.watch({});
    EXPECT_EQ(odd.groups(), 0U);
}

// More than 64 cues with as many bytes of identifiers as a section holds: 8 KB each as text.
struct StuffedFeed : Feed {
    StuffedFeed() {
        constexpr uint16_t kCuePid = 0x1F0;
        const auto pmt = psi::pmtSection(1, 0, test::kVideoPid, {{0x1B, test::kVideoPid}, {0x86, kCuePid}});
        test::MeterStream stream({.seconds = 4, .pmt = false, .tables = {{test::kPmtPid, pmt, 100}}});
        for (std::size_t cue = 0; cue < kCues; ++cue) {
            test::Bytes descriptors;
            for (std::size_t i = 0; i < 16; ++i) {
                const test::Bytes content = psi::concat({psi::u32(0x43554549),
                                                         psi::u32(cue * 16 + i),
                                                         {0x7F, 0xBF, 0x0C, 230},
                                                         test::Bytes(230, 0xAB),
                                                         {0x30, 0, 0}});
                descriptors = psi::concat({descriptors, psi::descriptor(2, content)});
            }
            const test::Bytes time = {0xFE, 0, 0, 0, 0};
            stream.tables.push_back(
                {kCuePid,
                 psi::withCrc(psi::concat({{0xFC},
                                           psi::u16(0x3000 | (11 + time.size() + 2 + descriptors.size() + 4)),
                                           {0, 0, 0, 0, 0, 0, 0, 0xFF, 0xF0, psi::low8(time.size()), 6},
                                           time,
                                           psi::u16(descriptors.size()),
                                           descriptors})),
                 10'000, 200});
        }
        packets = stream.packets();
    }
    static constexpr std::size_t kCues = 70;
};

TEST(MeterShard, SaysWhatOneStuffedChannelHasNoRoomForAndReportsTheOthersWhole) {
    metering::Groups groups;
    for (uint32_t i = 0; i < 3; ++i) {
        *groups.add_group() = groupMessage(kGroup + i);
    }
    Shard shard({0, 1});
    shard.watch(watchListOf(groups));
    StuffedFeed stuffed;
    while (const auto datagram = stuffed.next(kGroup + 1)) {
        shard.feed(*datagram);
    }
    Feed feed;
    while (const auto datagram = feed.next(kGroup + 2)) {
        shard.feed(*datagram);
    }
    metering::Second second;
    const std::size_t bytes = shard.report(10, second);
    ASSERT_EQ(second.report_size(), 3);
    EXPECT_NEAR(static_cast<double>(bytes), static_cast<double>(second.ByteSizeLong()), 100);
    const metering::GroupReport& report = second.report(1);
    EXPECT_LE(report.ByteSizeLong(), metering::kReportLimit);
    EXPECT_GT(report.ByteSizeLong(), metering::kReportLimit / 3);
    EXPECT_GT(report.left_out().cues(), 30U);
    EXPECT_EQ(report.left_out().cues() + static_cast<uint32_t>(report.description().cue_size()), 64U);
    EXPECT_EQ(report.description().service_size(), 1);
    EXPECT_FALSE(second.report(2).has_left_out());
    EXPECT_EQ(second.report(2).description().service_size(), 1);
}

// Nearly every channel has more to tell than its part of a second.
struct CrowdedShard {
    static constexpr uint32_t kChannels = 40;
    static constexpr std::size_t kLevels = kChannels * std::size_t{4096};
    static constexpr std::size_t kDescriptions = 400'000;  // four that are stuffed

    CrowdedShard() {
        metering::Groups groups;
        for (uint32_t i = 0; i < 2 * kChannels; ++i) {  // each other one is another thread's, as is its room
            *groups.add_group() = groupMessage(kGroup + i);
        }
        shard.watch(watchListOf(groups));
        const auto crowd = [pid = 0](double, psi::TsPacket& packet) mutable {
            if ((packet[1] & 0x1F) == 0x1F) {  // null packets
                pid = (pid + 1) % 240;
                packet[1] = 0x03;
                packet[2] = static_cast<uint8_t>(pid);
            }
        };
        Feed manyPids;
        manyPids.packets = test::MeterStream({.seconds = 1, .plant = crowd}).packets();
        const StuffedFeed stuffed;
        for (uint32_t i = 0; i < kChannels; ++i) {
            feed(i == kHonest ? Feed() : i % 4 == 0 ? Feed(stuffed) : manyPids, kGroup + 2 * i);
        }
    }
    void feed(Feed from, uint32_t group) {
        while (const auto datagram = from.next(group)) {
            shard.feed(*datagram);
        }
    }
    metering::Second second() {
        metering::Second second;
        std::set<uint32_t> told;
        for (int before = 0; !second.last(); before = second.report_size()) {
            shard.report(7, second);
            EXPECT_LE(second.report_size(), before + 7) << "a slice";
        }
        for (const metering::GroupReport& report : second.report()) {
            EXPECT_TRUE(told.insert(report.group()).second) << "twice";
        }
        EXPECT_EQ(told.size(), kChannels);
        return second;
    }

    static constexpr uint32_t kHonest = kChannels - 2;
    Shard shard{{1, 2}, {.levels = 2 * kLevels, .descriptions = 2 * kDescriptions}};
};

TEST(MeterShard, TellsInTurnWhatASecondHasNoRoomFor) {
    CrowdedShard crowded;
    std::map<uint32_t, int> described;
    for (int i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        if (i == 1) {  // given up in its middle: nothing of it was told
            metering::Second lost;
            crowded.shard.report(20, lost);
            crowded.shard.reportAnew();
            crowded.shard.describeAnew();
        }
        std::size_t levels = 0;
        std::size_t descriptions = 0;
        bool cut = false;
        metering::Second second = crowded.second();
        for (metering::GroupReport& report : *second.mutable_report()) {
            descriptions += report.description().ByteSizeLong();
            described[report.group()] += report.has_description() ? 1 : 0;
            report.clear_description();
            levels += report.ByteSizeLong();
            cut = cut || report.left_out().pids() > 0;
            if (report.group() == kGroup + 2 * CrowdedShard::kHonest) {
                EXPECT_FALSE(report.has_left_out());
                EXPECT_GT(report.pid_size(), 3);
            }
        }
        EXPECT_LE(levels, CrowdedShard::kLevels + 40 * CrowdedShard::kChannels);  // left out of descriptions
        EXPECT_GT(levels, CrowdedShard::kLevels * 9 / 10);
        EXPECT_LE(descriptions, CrowdedShard::kDescriptions + metering::kHalfReport);
        EXPECT_TRUE(cut);
    }
    EXPECT_EQ(described.size(), CrowdedShard::kChannels);
    for (const auto& [group, times] : described) {
        EXPECT_GE(times, 1) << group;
    }
    const metering::Second fifth = crowded.second();
    for (const metering::GroupReport& report : fifth.report()) {
        EXPECT_FALSE(report.has_description()) << "nothing changed";
    }
}

TEST(MeterMessages, AreCutToTheirLimitInTheirOrder) {
    metering::GroupReport report;
    report.set_group(kGroup);
    const std::string text(1000, 'x');
    metering::GroupReport levels = report;
    for (int i = 0; i < 100; ++i) {
        report.mutable_description()->add_cue()->set_pid(static_cast<uint32_t>(i));
        report.mutable_description()->mutable_cue(i)->add_segmentation()->set_upid(text);
        report.mutable_description()->add_change()->set_text(text);
    }
    const std::size_t bytes = metering::fitDescription(report);
    EXPECT_EQ(bytes, report.description().ByteSizeLong());
    EXPECT_LE(bytes, metering::kHalfReport);
    EXPECT_GT(report.left_out().cues(), 50U);
    EXPECT_EQ(report.left_out().changes(), 0U);
    EXPECT_EQ(report.description().cue(report.description().cue_size() - 1).pid(), 99U) << "the newest stay";
    for (uint32_t i = 0; i < 20'000; ++i) {
        levels.add_stream()->set_gop_structure("IBBP");
        levels.add_pid()->set_kind(text);
        levels.add_check()->add_pid()->set_count(1U << 30);
        levels.add_clock()->set_measured(1U << 30);
        levels.add_service()->set_program(i);
    }
    levels.mutable_check()->DeleteSubrange(30, levels.check_size() - 30);
    const std::size_t all = metering::fitLevels(levels, 4096);
    EXPECT_EQ(all, levels.ByteSizeLong());
    EXPECT_LE(all, 4096U);
    EXPECT_EQ(levels.left_out().streams(), 20'000U);
    EXPECT_EQ(levels.left_out().pids(), 20'000U);
    EXPECT_EQ(levels.left_out().check_pids(), 30U);
    EXPECT_EQ(levels.left_out().clocks(), 20'000U);
    EXPECT_GT(levels.left_out().service_levels(), 19'000U);
}

TEST(MeterOutbox, DropsWholeSecondsWhenNobodyReadsAndCountsThem) {
    Outbox outbox;
    // As a worker does it.
    const auto push = [&](std::vector<std::string> parts) {
        std::size_t reserved = 0;
        for (const std::string& part : parts) {
            if (!outbox.reserve(part.size())) {
                outbox.loseSecond(reserved);
                return false;
            }
            reserved += part.size();
        }
        return outbox.pushSecond(std::move(parts));
    };
    EXPECT_FALSE(push({"nobody listens"}));
    EXPECT_EQ(outbox.secondsLost(), 0U);
    outbox.open();
    const std::string large(Outbox::kBytes / 4, 'x');
    EXPECT_TRUE(push({large, large}));
    EXPECT_TRUE(push({large}));
    EXPECT_FALSE(push({"small", large, large}));
    EXPECT_TRUE(push({"small"}));
    EXPECT_EQ(outbox.secondsLost(), 1U);
    EXPECT_FALSE(outbox.reserve(large.size())) << "what waits counts";
    std::size_t events = 0;
    while (outbox.pushEvent(std::string(1000, 'e'))) {
        ++events;
    }
    EXPECT_EQ(events, Outbox::kEventBytes / 1000);
    EXPECT_EQ(outbox.eventsLost(), 1U);
    EXPECT_FALSE(outbox.pushEvent(std::string(metering::kHappenedLimit + 1, 'e')));
    EXPECT_EQ(outbox.eventsLost(), 2U);
    pollfd poll{outbox.descriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&poll, 1, 0), 1);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(outbox.pop().size(), large.size());
    }
    EXPECT_EQ(outbox.pop(), "small");
    EXPECT_TRUE(outbox.reserve(large.size())) << "by another thread, to the end";
    EXPECT_FALSE(push({large, large, large, large}));
    EXPECT_TRUE(push({large, large, large}));
    outbox.close();
    EXPECT_FALSE(push({large, large, large, large}));
    EXPECT_TRUE(outbox.reserve(3 * large.size()));
    EXPECT_EQ(outbox.pop(), "");
    EXPECT_EQ(::poll(&poll, 1, 0), 0);
    EXPECT_EQ(outbox.eventsLost(), 2 + events) << "those that waited";
    EXPECT_FALSE(outbox.pushEvent("nobody listens"));
    EXPECT_EQ(outbox.eventsLost(), 3 + events);
}

}  // namespace
