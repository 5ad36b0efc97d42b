// kestor-meter's threads and ends without a network: a worker and its captures, the link to the station,
// joins.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <filesystem>
#include <memory>
#include <thread>

#include "basics/descriptor.h"
#include "basics/unixListener.h"
#include "joins.h"
#include "measure.h"
#include "outbox.h"
#include "reportMessages.h"
#include "stationLink.h"
#include "support/frameBuilder.h"
#include "support/meterFeed.h"
#include "support/reportJson.h"
#include "worker.h"

namespace {

using namespace meterd;
using namespace std::chrono_literals;
using test::Feed;
using test::groupMessage;
using test::kGroup;
using test::kSecond;

// A station's socket.
struct Listener {
    ~Listener() {
        unlink(path.c_str());
    }
    basics::Descriptor accept() const {
        return basics::Descriptor(::accept(socket.number(), nullptr, nullptr));
    }

    const std::string path = testing::TempDir() + "/station" + std::to_string(getpid()) + ".sock";
    const basics::Descriptor socket{basics::listenUnix(path)};
};

TEST(MeterStationLink, LeavesAStationThatDoesNotSayWhoItIs) {
    Listener station;
    Outbox outbox;
    StationLink link(station.path, "1", outbox, {[] {}, [](const metering::Groups&) {}});
    const auto begin = std::chrono::steady_clock::now();
    link.serve(10);
    const basics::Descriptor connection = station.accept();
    ASSERT_TRUE(connection.isOpen());
    std::array<char, 256> bytes;
    ssize_t count = 1;
    while (count != 0 && std::chrono::steady_clock::now() - begin < 60s) {
        link.serve(50);
        count = recv(connection.number(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    }
    EXPECT_EQ(count, 0) << "it ends the connection";
    EXPECT_GT(std::chrono::steady_clock::now() - begin, 4s);
}

TEST(MeterStationLink, WaitsForNoStationThatHangsAndLosesWholeSecondsAlone) {
    Listener station;
    Outbox outbox;
    int connected = 0;
    StationLink link(station.path, "1", outbox, {[&] { ++connected; }, [](const metering::Groups&) {}});
    link.serve(10);
    const basics::Descriptor connection = station.accept();
    metering::FromStation hello;
    hello.mutable_hello()->set_major(metering::kMajor);
    const std::string bytes = metering::framed(hello);
    ASSERT_EQ(write(connection.number(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    for (int i = 0; i < 500 && connected == 0; ++i) {
        link.serve(10);
    }
    ASSERT_EQ(connected, 1);
    // Nobody reads.
    uint64_t told = 0;
    for (uint64_t number = 1; number <= 60; ++number) {
        metering::FromMeter message;
        message.mutable_second()->set_number(number);
        message.mutable_second()->set_seconds_lost(outbox.secondsLost());
        message.mutable_second()->add_report()->set_begin(std::string(1'000'000, 'x'));
        std::string second = metering::framed(message);
        if (!outbox.reserve(second.size())) {
            outbox.loseSecond(0);
        } else if (outbox.pushSecond({std::move(second)})) {
            ++told;
        }
        const auto begin = std::chrono::steady_clock::now();
        link.serve(1);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
    }
    EXPECT_GT(outbox.secondsLost(), 20U);
    EXPECT_EQ(told + outbox.secondsLost(), 60U);
    // It reads again: each message is whole, in its order.
    metering::Unframer unframer;
    std::vector<char> read(1 << 20);
    uint64_t came = 0;
    for (int i = 0; i < 100'000 && came < told; ++i) {
        link.serve(1);
        const ssize_t count = recv(connection.number(), read.data(), read.size(), MSG_DONTWAIT);
        if (count <= 0) {
            continue;
        }
        unframer.add({read.data(), static_cast<std::size_t>(count)});
        while (const auto text = unframer.next()) {
            metering::FromMeter message;
            ASSERT_TRUE(message.ParseFromArray(text->data(), static_cast<int>(text->size())));
            if (message.has_second()) {
                EXPECT_EQ(message.second().number(), ++came);
                EXPECT_EQ(message.second().seconds_lost(), 0U);
            }
        }
    }
    EXPECT_EQ(came, told);
}

// Made frames.
class FakeCapture : public Capture {
  public:
    int descriptor() const override {
        return -1;
    }
    CaptureCounts counts() override {
        return {frames, drops, 0};
    }
    std::string interface() const override {
        return "made0";
    }

  protected:
    static int64_t now() {
        return std::chrono::steady_clock::now().time_since_epoch() / 1ns;
    }
    uint64_t frames = 0;
    uint64_t drops = 0;
};

// At the pace of this machine's clock; fails after so many reads.
class MadeCapture final : public FakeCapture {
  public:
    explicit MadeCapture(int failAfter) : left_(failAfter) {
        feed_.arrival = now();
        drops = 3;
    }
    std::size_t read(std::size_t, const DatagramSink& sink) override {
        if (left_-- == 0) {
            throw std::runtime_error("the cable is gone");
        }
        std::this_thread::sleep_for(5ms);
        const uint64_t before = frames;
        while (feed_.arrival <= now()) {
            const auto datagram = feed_.next();
            if (!datagram) {
                break;
            }
            sink(*datagram);
            ++frames;
        }
        return frames - before;
    }

  private:
    Feed feed_;
    int left_;
};

// Has always as many frames as are asked for: of kGroup for half a second, of another one for ever.
class BusyCapture final : public FakeCapture {
  public:
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

  private:
    Feed feed_ = [] {
        // Another version of it with a stream less.
        const auto pmt = psi::pmtSection(1, 1, test::kVideoPid, {{0x1B, test::kVideoPid}});
        Feed feed;
        feed.packets = test::MeterStream({.tables = {{test::kPmtPid, pmt, 100, 150}}}).packets();
        return feed;
    }();
    int64_t begin_ = feed_.arrival = now();
};

// Runs a worker for a few groups, and hands over what it says; of a `heard` one from its begin.
class RunningWorker {
  public:
    RunningWorker(std::size_t groups, CaptureMaker maker, bool heard = true,
                  std::function<int64_t()> suspended = suspendedTime)
        : worker_({0, 1}, std::move(maker), outbox, std::move(suspended)) {
        metering::Groups message;
        for (uint32_t i = 0; i < groups; ++i) {
            *message.add_group() = groupMessage(kGroup + i);
        }
        worker_.watch(std::make_shared<const WatchList>(watchListOf(message)));
        if (heard) {
            outbox.open();
        }
        thread_ = std::jthread([this](const std::stop_token& stop) { worker_.run(stop); });
    }
    // The next message that is as asked for; false: none came in time.
    bool waitForMessage(const std::function<bool(const metering::FromMeter&)>& what) {
        const auto deadline = std::chrono::steady_clock::now() + 60s;
        while (std::chrono::steady_clock::now() < deadline) {
            const std::string bytes = outbox.pop();
            if (bytes.empty()) {
                std::this_thread::sleep_for(5ms);
                continue;
            }
            metering::FromMeter message;
            EXPECT_TRUE(message.ParseFromArray(bytes.data() + 4, static_cast<int>(bytes.size()) - 4));
            if (what(message)) {
                return true;
            }
        }
        return false;
    }
    // The next second's last part.
    bool waitFor(const std::function<bool(const metering::Second&)>& what) {
        return waitForMessage([&](const metering::FromMeter& message) {
            return message.has_second() && message.second().last() && what(message.second());
        });
    }

    Outbox outbox;

  private:
    Worker worker_;
    std::jthread thread_;
};

TEST(MeterWorker, TellsTimeAndEventsThoughTheRingIsNeverEmpty) {
    RunningWorker worker(1, [] { return std::make_unique<BusyCapture>(); });
    bool event = false;
    bool silence = false;  // seen by time alone
    EXPECT_TRUE(worker.waitForMessage([&](const metering::FromMeter& message) {
        event = event || message.has_happened();
        silence = silence || (message.has_second() && message.second().report(0).seconds() > 2.5);
        return event && silence;
    })) << event
        << silence;
}

TEST(MeterJoins, FailWhereThereIsNoInterface) {
    Joins joins;
    EXPECT_TRUE(joins.apply(0, {{kGroup, 0x0A000001}, {kGroup + 1, {}}}).empty());
    EXPECT_EQ(joins.failures(), 2U);
    EXPECT_FALSE(joins.problem().empty());
    joins.apply(0, {});
    EXPECT_EQ(joins.failures(), 0U);
}

TEST(MeterWorker, ReportsManyGroupsWithinTheSecondAlsoWithoutAnInterface) {
    RunningWorker worker(1600, []() -> std::unique_ptr<Capture> { throw std::runtime_error("gone"); });
    uint64_t before = UINT64_MAX - 1;  // none
    EXPECT_TRUE(worker.waitFor([&](const metering::Second& second) {
        return std::exchange(before, second.number()) + 1 == second.number();
    }));
}

TEST(MeterWorker, LosesAWholeSecondWhereThereIsNoRoomForItAndReportsTheNextOne) {
    RunningWorker worker(
        100, []() -> std::unique_ptr<Capture> { throw std::runtime_error("gone"); }, false);
    ASSERT_TRUE(worker.outbox.reserve(Outbox::kBytes - 1000));  // by the other threads
    worker.outbox.open();
    while (worker.outbox.secondsLost() < 2) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(worker.outbox.pop(), "");
    worker.outbox.loseSecond(Outbox::kBytes - 1000);
    EXPECT_TRUE(worker.waitFor([](const metering::Second& second) {
        EXPECT_EQ(second.report_size(), 100);
        EXPECT_GE(second.seconds_lost(), 2U);
        EXPECT_TRUE(second.report(99).has_description());
        return true;
    }));
}

TEST(MeterWorker, MarksASecondInWhichTheMachineSleptUntilItWasTold) {
    std::atomic<int64_t> asleep = 7 * kSecond;
    std::atomic<int> looks = 0;
    RunningWorker worker(
        1, [] { return std::make_unique<BusyCapture>(); }, false,
        [&] {
            ++looks;
            return asleep.load();
        });
    const auto looked = [&](int times) {
        const int from = looks;
        while (looks < from + times) {
            std::this_thread::sleep_for(10ms);
        }
    };
    looked(2);
    asleep += 30 * kSecond;
    looked(5);  // nobody listens, and the mark's own time passes
    worker.outbox.open();
    EXPECT_TRUE(worker.waitFor([](const metering::Second& second) {
        EXPECT_TRUE(second.capture().disturbed());
        EXPECT_LE(second.report(0).disturbed_seconds(), 3U);  // 1, and those by which the thread was late
        EXPECT_EQ(second.capture().suspended_ms(), 30'000U);
        EXPECT_GT(second.events_lost(), 0U) << "those of before are not told as new";
        return true;
    }));
    EXPECT_TRUE(worker.waitFor([](const metering::Second& second) { return !second.capture().disturbed(); }));
}

// Frames of a recording whose times are damaged.
TEST(MeterFileCapture, GoesOnWhereTimesLeap) {
    const std::string path = testing::TempDir() + "/leaps" + std::to_string(getpid()) + ".pcap";
    const test::Bytes frame = test::UdpFlow{}.frame(test::Bytes(188, 0x47));
    {
        test::PcapWriter recording(path, test::PcapWriter::Stamps::kNano);
        for (const uint64_t second : {0ULL, 4'294'967'295ULL, 5ULL, 2'000'000'000ULL}) {
            recording.write(second * 1'000'000'000, frame);
        }
    }
    const auto capture = openFile(path, {0, 1});
    std::vector<int64_t> arrivals;
    while (!capture->ended()) {
        capture->read(10, [&](const meter::Datagram& datagram) { arrivals.push_back(datagram.arrival); });
        ASSERT_LE(arrivals.size(), 4U);
    }
    ASSERT_EQ(arrivals.size(), 4U) << "none is waited for";
    EXPECT_TRUE(std::ranges::is_sorted(arrivals));
    std::remove(path.c_str());
}

TEST(MeterWorker, ReportsEachSecondTellsDropsAndCapturesAgain) {
    std::atomic<int> made = 0;
    std::atomic<bool> problem = false;
    RunningWorker worker(1, [&]() -> std::unique_ptr<Capture> {
        if (made > 0 && !problem) {
            throw std::runtime_error("the cable is gone");
        }
        // 1.2 s or later it fails, and is made anew once that was told.
        return std::make_unique<MadeCapture>(made++ == 0 ? 240 : -1);
    });
    std::vector<metering::Second> seconds;
    worker.waitFor([&](const metering::Second& second) {
        problem = problem || second.capture().problem() == "the cable is gone";
        seconds.push_back(second);
        return problem && made >= 2 && seconds.size() >= 3;
    });
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

    RunningWorker worker(1, [&] { return openFile(path, {0, 1}); });
    metering::Description description;
    nlohmann::json told;
    worker.waitForMessage([&](const metering::FromMeter& message) {
        for (const metering::GroupReport& report : message.second().report()) {
            if (report.has_description()) {
                description = report.description();
            }
            told = test::comparable(
                nlohmann::json::parse(meter::toJson(metering::readReport(report, description))));
        }
        return told == wanted;
    });
    EXPECT_EQ(told, wanted);
    std::filesystem::remove(path);
}

}  // namespace
