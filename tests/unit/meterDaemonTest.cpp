// kestor-meter without a network: times, filters, messages, shards, what waits to be sent, a worker.
#include <gtest/gtest.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <thread>

#include "arrivalClock.h"
#include "captureFilter.h"
#include "framing.h"
#include "joins.h"
#include "measure.h"
#include "outbox.h"
#include "reportLimit.h"
#include "reportMessages.h"
#include "shard.h"
#include "support/frameBuilder.h"
#include "support/fullReport.h"
#include "support/meterStream.h"
#include "support/reportJson.h"
#include "worker.h"

namespace {

using namespace meterd;
using namespace std::chrono_literals;

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecond = 1000 * kMs;
constexpr uint32_t kGroup = 0xEF010101;

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

test::Bytes tagged(test::Bytes frame, int tags) {
    for (int i = 0; i < tags; ++i) {
        const test::Bytes tag = {static_cast<uint8_t>(i + 1 < tags ? 0x81 : 0x88),
                                 static_cast<uint8_t>(i + 1 < tags ? 0x00 : 0xA8), 0, 7};
        frame.insert(frame.begin() + 12, tag.begin(), tag.end());
    }
    return frame;
}

// What the kernel would say of the frame.
bool passes(const std::vector<sock_filter>& filter, const test::Bytes& frame) {
    std::vector<bpf_insn> instructions(filter.size());
    std::memcpy(instructions.data(), filter.data(), filter.size() * sizeof(sock_filter));
    EXPECT_EQ(bpf_validate(instructions.data(), static_cast<int>(instructions.size())), 1);
    const bpf_program program{static_cast<u_int>(instructions.size()), instructions.data()};
    pcap_pkthdr header{};
    header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
    return pcap_offline_filter(&program, &header, frame.data()) != 0;
}

TEST(MeterCaptureFilter, LetsMulticastUdpThroughAlsoInVlansAndNothingElse) {
    const auto filter = multicastFilter({0, 1});
    const test::Bytes payload(188, 0x47);
    const test::Bytes frame = test::UdpFlow{}.frame(payload);
    for (int tags = 0; tags <= 2; ++tags) {
        EXPECT_TRUE(passes(filter, tagged(frame, tags))) << tags;
        // Each group is one share's.
        for (int last = 0; last < 9; ++last) {
            const test::Bytes toGroup =
                tagged(test::UdpFlow{.group = "239.1.1." + std::to_string(last)}.frame(payload), tags);
            for (unsigned share = 0; share < 3; ++share) {
                EXPECT_EQ(passes(multicastFilter({share, 3}), toGroup), last % 3 == static_cast<int>(share));
            }
        }
    }
    EXPECT_FALSE(passes(filter, tagged(frame, 3)));
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
    EXPECT_THROW(unframer.next(), std::length_error);
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

// Seven packets a datagram at their pace.
struct Feed {
    std::vector<test::TsPacket> packets = [] {
        test::MeterStream stream;
        stream.seconds = 3;
        return stream.packets();
    }();
    std::size_t at = 0;
    int64_t arrival = 10 * kSecond;
    std::vector<uint8_t> bytes;

    std::optional<meter::Datagram> next(uint32_t group = kGroup) {
        if (at + 7 > packets.size()) {
            return std::nullopt;
        }
        bytes.clear();
        for (int i = 0; i < 7; ++i) {
            bytes.insert(bytes.end(), packets[at].begin(), packets[at].end());
            ++at;
        }
        meter::Datagram datagram;
        datagram.arrival = datagram.wall = arrival;
        arrival += static_cast<int64_t>(7 * test::MeterStream::kPacketMs * 1e6);
        datagram.source = 0x0A000001;
        datagram.sourcePort = 1000;
        datagram.destination = group;
        datagram.destinationPort = 5000;
        datagram.payload = bytes;
        return datagram;
    }
};

metering::Group groupMessage(uint32_t group) {
    metering::Group message;
    message.set_group(group);
    return message;
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
    odd.report(10, second);
    ASSERT_EQ(second.report_size(), 1);
    EXPECT_TRUE(second.last());
    EXPECT_EQ(second.revision(), 5U);
    const metering::GroupReport first = second.report(0);
    EXPECT_DOUBLE_EQ(first.join_latency_ms(), 25);
    ASSERT_TRUE(first.has_description());
    // What comes out at the station is what the library says.
    EXPECT_EQ(meter::toJson(metering::readReport(first, first.description())), meter::toJson(alone.report()));

    second.Clear();
    odd.report(10, second);
    EXPECT_FALSE(second.report(0).has_description());
    EXPECT_EQ(second.report(0).epoch(), first.epoch());
    odd.describeAnew();
    second.Clear();
    odd.report(10, second);
    EXPECT_TRUE(second.report(0).has_description());

    // The same list again leaves it alone, another entry begins anew, an absent one is gone.
    odd.watch(list);
    second.Clear();
    odd.report(10, second);
    EXPECT_EQ(second.report(0).packets().received(), first.packets().received());
    groups.mutable_group(0)->set_pid_absence_ms(1000);
    odd.watch(watchListOf(groups));
    second.Clear();
    odd.report(10, second);
    EXPECT_EQ(second.report(0).packets().received(), 0U);
    EXPECT_NE(second.report(0).epoch(), first.epoch());
    odd.watch({});
    EXPECT_EQ(odd.groups(), 0U);
}

TEST(MeterShard, ReportsInSlicesEachGroupOnce) {
    metering::Groups groups;
    for (uint32_t i = 0; i < 50; ++i) {
        *groups.add_group() = groupMessage(kGroup + i);
    }
    Shard shard({0, 1});
    shard.watch(watchListOf(groups));
    metering::Second second;
    int slices = 0;
    do {
        shard.report(16, second);
        ++slices;
    } while (!second.last());
    EXPECT_EQ(slices, 4);
    ASSERT_EQ(second.report_size(), 50);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(second.report(i).group(), kGroup + static_cast<uint32_t>(i));
    }
}

// More than 64 cues with as many bytes of identifiers as a section holds: 8 KB each as text.
struct StuffedFeed : Feed {
    StuffedFeed() {
        constexpr uint16_t kCuePid = 0x1F0;
        test::MeterStream stream;
        stream.seconds = 4;
        stream.pmt = false;
        stream.tables.push_back(
            {test::kPmtPid,
             psi::pmtSection(1, 0, test::kVideoPid, {{0x1B, test::kVideoPid}, {0x86, kCuePid}}), 100});
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

TEST(MeterMessages, AreCutToTheirLimitInTheirOrder) {
    metering::GroupReport report;
    report.set_group(kGroup);
    const std::string text(1000, 'x');
    for (int i = 0; i < 100; ++i) {
        report.mutable_description()->add_cue()->set_pid(static_cast<uint32_t>(i));
        report.mutable_description()->mutable_cue(i)->add_segmentation()->set_upid(text);
        report.mutable_description()->add_change()->set_text(text);
    }
    metering::GroupReport levels = report;
    const std::size_t bytes = metering::fitReport(report);
    EXPECT_EQ(bytes, report.ByteSizeLong());
    EXPECT_GT(report.left_out().cues(), 50U);
    EXPECT_EQ(report.left_out().changes(), 0U);
    EXPECT_EQ(report.description().cue(report.description().cue_size() - 1).pid(), 99U) << "the newest stay";
    const std::string description = report.description().SerializeAsString();
    for (uint32_t i = 0; i < 20'000; ++i) {
        levels.add_stream()->set_gop_structure("IBBP");
        levels.add_pid()->set_kind(text);
        levels.add_check()->add_pid()->set_count(1U << 30);
    }
    const std::size_t all = metering::fitReport(levels);
    EXPECT_EQ(all, levels.ByteSizeLong());
    EXPECT_LE(all, metering::kReportLimit);
    EXPECT_EQ(levels.left_out().streams(), 20'000U);
    EXPECT_EQ(levels.left_out().pids(), 20'000U);
    EXPECT_EQ(levels.description().SerializeAsString(), description) << "levels change nothing in it";
}

TEST(MeterOutbox, DropsWholeSecondsWhenNobodyReadsAndCountsThem) {
    Outbox outbox;
    EXPECT_FALSE(outbox.pushSecond({"nobody listens"}));
    EXPECT_EQ(outbox.secondsLost(), 0U);
    outbox.open();
    const std::string large(Outbox::kBytes / 4, 'x');
    EXPECT_TRUE(outbox.pushSecond({large, large}));
    EXPECT_TRUE(outbox.pushSecond({large}));
    EXPECT_FALSE(outbox.pushSecond({"small", large, large}));
    EXPECT_TRUE(outbox.pushSecond({"small"}));
    EXPECT_EQ(outbox.secondsLost(), 1U);
    std::size_t events = 0;
    while (outbox.pushEvent(std::string(1000, 'e'))) {
        ++events;
    }
    EXPECT_EQ(events, Outbox::kEventBytes / 1000);
    EXPECT_EQ(outbox.eventsLost(), 1U);
    pollfd poll{outbox.descriptor(), POLLIN, 0};
    EXPECT_EQ(::poll(&poll, 1, 0), 1);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(outbox.pop().size(), large.size());
    }
    EXPECT_EQ(outbox.pop(), "small");
    EXPECT_TRUE(outbox.pushSecond({large, large, large}));
    outbox.close();
    EXPECT_EQ(outbox.pop(), "");
    EXPECT_EQ(::poll(&poll, 1, 0), 0);
}

// Made frames at the pace of this machine's clock; fails after so many reads.
class MadeCapture final : public Capture {
  public:
    MadeCapture(std::atomic<int>& reads, int failAfter) : reads_(reads), left_(failAfter) {
        feed_.arrival = std::chrono::steady_clock::now().time_since_epoch() / 1ns;
    }
    int descriptor() const override {
        return -1;
    }
    std::size_t read(std::size_t, const DatagramSink& sink) override {
        if (left_-- == 0) {
            throw std::runtime_error("the cable is gone");
        }
        ++reads_;
        std::this_thread::sleep_for(5ms);
        std::size_t count = 0;
        while (feed_.arrival <= std::chrono::steady_clock::now().time_since_epoch() / 1ns) {
            const auto datagram = feed_.next();
            if (!datagram) {
                break;
            }
            sink(*datagram);
            ++count;
        }
        frames_ += count;
        return count;
    }
    CaptureCounts counts() override {
        return {frames_, 3, 0};
    }
    std::string interface() const override {
        return "made0";
    }

  private:
    Feed feed_;
    std::atomic<int>& reads_;
    int left_;
    uint64_t frames_ = 0;
};

// Has always as many frames as are asked for: of kGroup for half a second, of another one for ever.
class BusyCapture final : public Capture {
  public:
    int descriptor() const override {
        return -1;
    }
    std::size_t read(std::size_t limit, const DatagramSink& sink) override {
        std::this_thread::sleep_for(5ms);
        while (feed_.arrival - begin_ < kSecond / 2 && feed_.arrival < now()) {
            sink(*feed_.next());
        }
        meter::Datagram other;
        other.arrival = now();
        other.destination = kGroup + 1;
        sink(other);
        return limit;
    }
    CaptureCounts counts() override {
        return {};
    }
    std::string interface() const override {
        return "busy0";
    }

  private:
    static int64_t now() {
        return std::chrono::steady_clock::now().time_since_epoch() / 1ns;
    }
    Feed feed_ = [] {
        test::MeterStream stream;
        // Another version of it with a stream less.
        stream.tables.push_back(
            {test::kPmtPid, psi::pmtSection(1, 1, test::kVideoPid, {{0x1B, test::kVideoPid}}), 100, 150});
        Feed feed;
        feed.packets = stream.packets();
        return feed;
    }();
    int64_t begin_ = feed_.arrival = now();
};

TEST(MeterWorker, TellsTimeAndEventsThoughTheRingIsNeverEmpty) {
    Outbox outbox;
    outbox.open();
    Worker worker(
        {0, 1}, [] { return std::make_unique<BusyCapture>(); }, outbox);
    metering::Groups groups;
    *groups.add_group() = groupMessage(kGroup);
    worker.watch(std::make_shared<const WatchList>(watchListOf(groups)));
    std::jthread thread([&](const std::stop_token& stop) { worker.run(stop); });
    bool event = false;
    bool silence = false;  // seen by time alone
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (std::chrono::steady_clock::now() < deadline && (!event || !silence)) {
        const std::string bytes = outbox.pop();
        if (bytes.empty()) {
            std::this_thread::sleep_for(10ms);
            continue;
        }
        metering::FromMeter message;
        ASSERT_TRUE(message.ParseFromArray(bytes.data() + 4, static_cast<int>(bytes.size()) - 4));
        event = event || message.has_happened();
        silence = silence || (message.has_second() && message.second().report(0).seconds() > 2.5);
    }
    EXPECT_TRUE(event);
    EXPECT_TRUE(silence);
}

TEST(MeterJoins, FailWhereThereIsNoInterface) {
    Joins joins;
    EXPECT_TRUE(joins.apply(0, {{kGroup, 0x0A000001}, {kGroup + 1, {}}}).empty());
    EXPECT_EQ(joins.failures(), 2U);
    EXPECT_FALSE(joins.problem().empty());
    joins.apply(0, {});
    EXPECT_EQ(joins.failures(), 0U);
}

TEST(MeterWorker, ReportsEachSecondTellsDropsAndCapturesAgain) {
    std::atomic<int> reads = 0;
    std::atomic<int> made = 0;
    Outbox outbox;
    outbox.open();
    Worker worker(
        {0, 1},
        [&]() -> std::unique_ptr<Capture> {
            // 1.2 s or later it fails, and is made anew once.
            return std::make_unique<MadeCapture>(reads, made++ == 0 ? 240 : -1);
        },
        outbox);
    metering::Groups groups;
    *groups.add_group() = groupMessage(kGroup);
    worker.watch(std::make_shared<const WatchList>(watchListOf(groups)));
    std::jthread thread([&](const std::stop_token& stop) { worker.run(stop); });
    std::vector<metering::Second> seconds;
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    bool problem = false;
    while (std::chrono::steady_clock::now() < deadline && (!problem || made < 2 || seconds.size() < 3)) {
        const std::string bytes = outbox.pop();
        if (bytes.empty()) {
            std::this_thread::sleep_for(10ms);
            continue;
        }
        metering::FromMeter message;
        ASSERT_TRUE(message.ParseFromArray(bytes.data() + 4, static_cast<int>(bytes.size()) - 4));
        if (message.has_second()) {
            problem = problem || message.second().capture().problem() == "the cable is gone";
            seconds.push_back(message.second());
        }
    }
    ASSERT_GE(seconds.size(), 3U);
    EXPECT_TRUE(problem);
    EXPECT_GE(made, 2);
    EXPECT_GT(seconds[0].report(0).packets().received(), 0U);
    EXPECT_EQ(seconds[0].capture().interface(), "made0");
    EXPECT_TRUE(seconds[0].capture().disturbed());  // 3 since the begin
    EXPECT_EQ(seconds[0].capture().kernel_drops(), 3U);
    for (std::size_t i = 1; i < seconds.size(); ++i) {
        EXPECT_GT(seconds[i].number(), seconds[i - 1].number());
        if (!seconds[i - 1].capture().problem().empty()) {
            EXPECT_TRUE(seconds[i].capture().disturbed());
        }
        EXPECT_GE(seconds[i].capture().frames(), seconds[i - 1].capture().frames());
        EXPECT_GE(seconds[i].report(0).packets().received(), seconds[i - 1].report(0).packets().received());
    }
}

TEST(MeterWorker, SaysOfARecordingWhatKestorMeasureSays) {
    const std::string path = testing::TempDir() + "meterRecording" + std::to_string(getpid()) + ".pcap";
    {
        test::PcapWriter recording(path, test::PcapWriter::Stamps::kNano);
        Feed feed;
        int count = 0;
        while (const auto datagram = feed.next()) {
            if (++count % 50 != 0) {  // the others are lost
                const std::vector<uint8_t> payload(datagram->payload.begin(), datagram->payload.end());
                recording.write(static_cast<uint64_t>(1'700'000'000 * kSecond + datagram->arrival),
                                test::UdpFlow{}.frame(payload));
            }
        }
    }
    const MeasuredFile measured = measureFile(path, {}, [](uint64_t, uint64_t) {});
    ASSERT_EQ(measured.reports.size(), 1U) << measured.failure;
    const auto wanted = test::comparable(nlohmann::json::parse(meter::toJson(measured.reports[0])));

    Outbox outbox;
    outbox.open();
    Worker worker(
        {0, 1},
        [&] {
            return openFile(path, {0, 1});
        },
        outbox);
    std::jthread thread([&](const std::stop_token& stop) { worker.run(stop); });
    metering::Groups groups;
    *groups.add_group() = groupMessage(kGroup);
    worker.watch(std::make_shared<const WatchList>(watchListOf(groups)));
    metering::Description description;
    nlohmann::json told;
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (std::chrono::steady_clock::now() < deadline && told != wanted) {
        const std::string bytes = outbox.pop();
        if (bytes.empty()) {
            std::this_thread::sleep_for(10ms);
            continue;
        }
        metering::FromMeter message;
        ASSERT_TRUE(message.ParseFromArray(bytes.data() + 4, static_cast<int>(bytes.size()) - 4));
        for (const metering::GroupReport& report : message.second().report()) {
            if (report.has_description()) {
                description = report.description();
            }
            told = test::comparable(
                nlohmann::json::parse(meter::toJson(metering::readReport(report, description))));
        }
    }
    EXPECT_EQ(told, wanted);
    std::filesystem::remove(path);
}

}  // namespace
