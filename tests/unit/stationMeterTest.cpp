// The station's end of the link to kestor-meter: what a meter sends, and the socket where it does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "basics/descriptor.h"
#include "meter/meterPort.h"
#include "meter/meterSession.h"
#include "meter/reportText.h"
#include "meter/sourceJoins.h"
#include "support/fullReport.h"
#include "support/scratch.h"

namespace station {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint32_t kA = 0xEF010101;
constexpr uint32_t kB = 0xEF010102;
const Group kGroupA = *Group::parse("239.1.1.1");
const Group kGroupB = *Group::parse("239.1.1.2");

std::string hello(uint32_t major = metering::kMajor, const std::string& version = "1.2.3") {
    metering::FromMeter message;
    message.mutable_hello()->set_major(major);
    message.mutable_hello()->set_version(version);
    return metering::framed(message);
}

metering::FromMeter second(std::vector<metering::GroupReport> reports, bool last = true) {
    metering::FromMeter message;
    metering::Second& made = *message.mutable_second();
    made.set_threads(1);
    made.set_last(last);
    made.set_part(last ? 0 : 1);
    made.mutable_capture()->set_frames(12);
    for (metering::GroupReport& report : reports) {
        *made.add_report() = std::move(report);
    }
    return message;
}

// A message with this content, whatever it is, in the field of a second.
std::string rawSecond(const std::string& content) {
    std::string varint;
    for (std::size_t rest = content.size(); rest > 0 || varint.empty(); rest >>= 7) {
        varint += static_cast<char>((rest & 0x7F) | (rest > 0x7F ? 0x80 : 0));
    }
    const std::string message = "\x12" + varint + content;
    std::string framed;
    for (int shift = 24; shift >= 0; shift -= 8) {
        framed += static_cast<char>(message.size() >> shift & 0xFF);
    }
    return framed + message;
}

struct StationMeterSession : testing::Test {
    StationMeterSession() {
        book.watch({kA, kB}, 0);
        metering::quietParser();
    }
    MeterState state() const {
        return book.state(now.steady);
    }

    MeterBook book;
    MeterSession session{book};
    Now now = systemNow();
};

TEST_F(StationMeterSession, KeepsTheNewestReportOfEachGroup) {
    EXPECT_FALSE(state().connected);
    session.received(hello(metering::kMajor, "1.2\n3"), now);
    EXPECT_TRUE(session.agreed());
    EXPECT_EQ(state().version, "1.23");
    const meter::Report full = test::fullReport(kA);
    const std::string bytes = metering::framed(
        second({test::reportMessage(full), test::reportMessage(test::fullReport(0xEF0909FF))}));
    for (const char byte : bytes) {  // however it comes
        session.received({&byte, 1}, now);
    }
    ASSERT_TRUE(book.find(kGroupA));
    EXPECT_FALSE(book.find(kGroupB));
    EXPECT_FALSE(book.find(*Group::parse("239.9.9.255"))) << "nobody wants it";
    const auto jsonOf = [&] { return nlohmann::json::parse(meter::toJson(book.find(kGroupA)->read())); };
    nlohmann::json told = jsonOf();
    EXPECT_EQ(told["live"]["disturbed"], false);
    told.erase("live");
    EXPECT_EQ(told, nlohmann::json::parse(meter::toJson(full)));

    // What seldom changes is not told again and stays.
    meter::Report later = full;
    later.seconds = 99;
    auto message = second({test::reportMessage(later, false)});
    message.mutable_second()->mutable_capture()->set_disturbed(true);
    session.received(metering::framed(message), now);
    told = jsonOf();
    EXPECT_EQ(told["seconds"], 99);
    EXPECT_EQ(told["services"].size(), 2U);
    EXPECT_EQ(told["live"]["disturbed"], true);
    EXPECT_EQ(state().reported, 1U);
    EXPECT_TRUE(state().disturbed);
    now.steady += MeterBook::kSilence + 1s;
    EXPECT_TRUE(state().silent);

    book.watch({kB}, 0);
    EXPECT_FALSE(book.find(kGroupA));
    session.received(metering::framed(second({test::reportMessage(test::fullReport(kB))})), now);
    EXPECT_TRUE(book.find(kGroupB));
    book.disconnected(now);
    EXPECT_FALSE(book.find(kGroupB)) << "nothing is known without a meter";
    EXPECT_FALSE(state().connected);
}

TEST_F(StationMeterSession, RefusesWhatMakesNoSense) {
    const std::string report =
        second({test::reportMessage(test::fullReport(kA))}).second().SerializeAsString();
    auto threads = second({});
    threads.mutable_second()->set_thread(7);
    auto talkative = second({});
    talkative.mutable_second()->mutable_capture()->set_problem(std::string(MeterSession::kHeadBytes, 'x'));
    std::string many;
    for (std::size_t i = 0; i <= metering::kGroupsLimit; ++i) {
        many += std::string("\x42\x00", 2);  // a report without anything in it
    }
    const struct {
        const char* what;
        std::string bytes;
        const char* why;
        bool greeted = true;
    } kCases[] = {
        {"a length beyond the limit", "\x7F\xFF\xFF\xFF", "bytes"},
        {"no message", rawSecond("\xFF\xFF\xFF"), "cannot be read"},
        {"HTTP", "GET / HTTP/1.1\r\n\r\n", "bytes", false},
        {"before the hello", metering::framed(second({})), "before it said who it is", false},
        {"another version", hello(2, "9.9"), "(9.9) speaks version 2", false},
        {"a second hello", hello(), "twice"},
        {"half a report", rawSecond(report.substr(0, report.size() / 2)), "cannot be read"},
        {"a report that is none", rawSecond(second({}).second().SerializeAsString() + "\x42\x02\xFF\xFF"),
         "cannot be read"},
        {"a large head", metering::framed(talkative), "too long"},
        {"more groups than there can be", rawSecond(many), "more groups"},
        {"a thread that cannot be", metering::framed(threads), "thread 7 of 1"},
    };
    for (const auto& one : kCases) {
        SCOPED_TRACE(one.what);
        MeterSession other(book);
        if (one.greeted) {
            other.received(hello(), now);
        }
        try {
            other.received(one.bytes, now);
            ADD_FAILURE() << "was taken";
        } catch (const MeterRefused& refused) {
            EXPECT_THAT(refused.what(), HasSubstr(one.why));
        }
    }
}

TEST_F(StationMeterSession, SkipsAReportThatIsTooLargeAndTakesThoseBesideIt) {
    session.received(hello(), now);
    metering::GroupReport large;
    large.set_group(kA);
    large.mutable_flow()->set_encapsulation(std::string(metering::kReportLimit, 'x'));
    session.received(metering::framed(second({large, test::reportMessage(test::fullReport(kB))})), now);
    EXPECT_FALSE(book.find(kGroupA));
    EXPECT_TRUE(book.find(kGroupB));
    EXPECT_EQ(state().reportsDropped, 1U);
}

TEST_F(StationMeterSession, SurvivesReportsThatAreDamaged) {
    session.received(hello(), now);
    std::mt19937 random(7);
    const std::string whole = test::reportMessage(test::fullReport(kA)).SerializeAsString();
    int taken = 0;
    for (int i = 0; i < 800; ++i) {
        std::string bytes = whole;
        for (int flips = 1 + i % 4; flips > 0; --flips) {
            bytes[random() % bytes.size()] = static_cast<char>(random());
        }
        metering::GroupReport report;
        if (!report.ParseFromString(bytes)) {
            continue;
        }
        report.set_group(kA);
        session.received(metering::framed(second({report})), now);
        const meter::Report read = book.find(kGroupA)->read();
        EXPECT_TRUE(nlohmann::json::accept(meter::toJson(read)));
        EXPECT_FALSE(meter::reportText(read, {}).empty());
        ++taken;
    }
    EXPECT_GT(taken, 100);
}

TEST_F(StationMeterSession, KeepsNoMoreThanItsBound) {
    std::set<uint32_t> groups;
    const std::size_t fit = MeterBook::kBytes / 200'000;
    for (uint32_t i = 0; i < fit + 10; ++i) {
        groups.insert(kA + i);
    }
    book.watch(groups, 0);
    const auto levels = std::make_shared<const std::string>(200'000, 'x');
    for (int round = 0; round < 2; ++round) {
        for (const uint32_t group : groups) {
            book.report(group, {.levels = levels, .description = {}});
        }
    }
    EXPECT_GE(state().reportsDropped, 20U);
    EXPECT_LE(state().reportsDropped, 24U);
    book.watch({kA}, 3);
    EXPECT_EQ(state().groupsLeftOut, 3U);
    EXPECT_TRUE(book.report(kA, {.levels = levels, .description = {}}));
}

TEST(StationSourceJoins, ChangeNothingForAMeterThatIsRestarted) {
    SourceJoins joins;
    SteadyTime now{1h};
    SteadyTime since;
    bool connected = false;
    int changes = 0;
    const auto pass = [&](std::chrono::seconds time, bool there, bool failing = false) {
        since = there && !connected ? now : since;
        connected = there;
        for (const SteadyTime end = now + time; now < end; now += 1s) {
            changes += joins.update({connected, since, !failing}, now) ? 1 : 0;
        }
    };
    pass(20s, false);
    pass(5s, true);
    EXPECT_FALSE(joins.byMeter()) << "it may end at once";
    pass(10s, true, true);
    EXPECT_FALSE(joins.byMeter()) << "it could not join";
    pass(2s, true);
    EXPECT_TRUE(joins.byMeter());
    pass(10s, true, true);
    EXPECT_TRUE(joins.byMeter()) << "the link may be down";
    for (int i = 0; i < 5; ++i) {
        pass(5s, false);
        pass(60s, true);
    }
    EXPECT_EQ(changes, 1);
    pass(15s, false);
    EXPECT_FALSE(joins.byMeter());
    pass(60s, true);
    EXPECT_TRUE(joins.byMeter());
    for (int i = 0; i < 20; ++i) {  // one that ends again and again
        pass(3s, false);
        pass(3s, true);
    }
    EXPECT_FALSE(joins.byMeter());
    EXPECT_EQ(changes, 4);
    pass(60s, true);
    pass(40s, true, true);
    EXPECT_FALSE(joins.byMeter()) << "nobody would receive them";
}

TEST(StationSourceJoins, KeepThoseThatOnlyTheMeterCanJoinWhereThereAreTooMany) {
    std::vector<MeteredChannel> channels(metering::kGroupsLimit + 10);
    for (std::size_t i = 0; i < channels.size(); ++i) {
        channels[i].group = kA + static_cast<uint32_t>(i);
        channels[i].join = i >= metering::kGroupsLimit;
    }
    EXPECT_EQ(chooseMetered(channels), 10U);
    ASSERT_EQ(channels.size(), metering::kGroupsLimit);
    EXPECT_TRUE(channels[9].join);
    EXPECT_EQ(channels[10].group, kA);
    MeterBook book;
    MeterPort port({}, "", book);
    for (MeteredChannel& channel : channels) {
        channel.join = true;
    }
    channels.push_back({.group = kA - 1, .join = true});
    const auto joins = port.watch(channels);
    EXPECT_EQ(joins.size(), metering::kGroupsLimit);
    EXPECT_FALSE(joins.contains(kA - 1)) << "it is left out, and not joined";
    EXPECT_EQ(book.state({}).toJoin, metering::kGroupsLimit);
    EXPECT_EQ(book.state({}).groupsLeftOut, 1U);
}

// A meter that does as the test says.
class Peer {
  public:
    explicit Peer(const std::filesystem::path& path)
        : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof address.sun_path - 1);
        connected = connect(socket_.number(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    }
    void send(const std::string& bytes) const {
        EXPECT_EQ(::send(socket_.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // The next message; none when the station ended the connection.
    std::optional<metering::FromStation> next() {
        for (;;) {
            if (const auto text = unframer_.next()) {
                metering::FromStation message;
                EXPECT_TRUE(message.ParseFromArray(text->data(), static_cast<int>(text->size())));
                return message;
            }
            pollfd poll{socket_.number(), POLLIN, 0};
            EXPECT_EQ(::poll(&poll, 1, 10'000), 1);
            std::array<char, 4096> bytes;
            const ssize_t count = recv(socket_.number(), bytes.data(), bytes.size(), MSG_DONTWAIT);
            if (count <= 0) {
                return std::nullopt;
            }
            unframer_.add({bytes.data(), static_cast<std::size_t>(count)});
        }
    }

    bool connected = false;

  private:
    basics::Descriptor socket_;
    metering::Unframer unframer_;
};

struct StationMeterPort : testing::Test {
    StationMeterPort() : path(directory.path() / "meter.sock") {}

    void open() {
        port.emplace(path, "4.5.6", book);
        port->watch({{.group = kA, .source = 0x0A000007, .port = 5000, .join = true}, {.group = kB}});
    }
    bool shows(const std::function<bool(const MeterState&)>& what) const {
        return eventually([&] { return what(book.state(std::chrono::steady_clock::now())); }, 15s);
    }
    bool listens() const {
        return eventually([this] { return Peer(path).connected; }, 15s);
    }

    ScratchDirectory directory;
    std::filesystem::path path;
    MeterBook book;
    std::optional<MeterPort> port;
};

TEST_F(StationMeterPort, TellsOneMeterWhatToWatchAndEachChange) {
    open();
    ASSERT_TRUE(listens());
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0660U);
    Peer meter(path);
    const auto said = meter.next();
    ASSERT_TRUE(said && said->has_hello());
    EXPECT_EQ(said->hello().version(), "4.5.6");
    meter.send(hello());
    auto told = meter.next();
    ASSERT_TRUE(told && told->has_groups());
    ASSERT_EQ(told->groups().group_size(), 2);
    EXPECT_EQ(told->groups().group(0).source(), 0x0A000007U);
    EXPECT_EQ(told->groups().group(0).port(), 5000U);
    EXPECT_TRUE(told->groups().group(0).join());
    EXPECT_FALSE(told->groups().group(1).has_source() || told->groups().group(1).join());
    const uint64_t revision = told->groups().revision();

    Peer second(path);
    const auto refused = second.next();
    ASSERT_TRUE(refused && refused->has_refused());
    EXPECT_THAT(refused->refused().reason(), HasSubstr("another meter"));
    EXPECT_FALSE(second.next());

    port->watch({{.group = kB}});
    told = meter.next();
    ASSERT_TRUE(told && told->has_groups());
    EXPECT_GT(told->groups().revision(), revision);
    EXPECT_EQ(told->groups().group_size(), 1);
    meter.send(metering::framed(::station::second({test::reportMessage(test::fullReport(kB))})));
    EXPECT_TRUE(shows([](const MeterState& state) { return state.reported == 1; }));
    EXPECT_TRUE(book.find(kGroupB));
}

TEST_F(StationMeterPort, EndsWithWhoSendsNonsenseAndTakesTheNextOne) {
    open();
    ASSERT_TRUE(listens());
    const std::pair<std::string, const char*> kCases[] = {{"GET / HTTP/1.1\r\n\r\n", "the meter sent"},
                                                          {hello(2, "9.9"), "speaks version 2"},
                                                          {hello() + hello(), "twice"}};
    for (const auto& [bytes, why] : kCases) {
        Peer other(path);
        other.send(bytes);
        while (other.next()) {
        }
        EXPECT_TRUE(shows([&](const MeterState& state) {
            return !state.connected && state.problem.find(why) != std::string::npos;
        })) << why;
    }
    Peer meter(path);
    meter.send(hello());
    EXPECT_TRUE(shows([](const MeterState& state) { return state.connected && state.problem.empty(); }));
}

TEST_F(StationMeterPort, FindsItsSocketAgain) {
    std::ofstream(path) << "something";
    open();
    EXPECT_TRUE(
        shows([](const MeterState& state) { return state.problem.find("no socket") != std::string::npos; }));
    EXPECT_TRUE(std::filesystem::is_regular_file(path)) << "it is not the station's";
    std::filesystem::remove(path);
    EXPECT_TRUE(listens());
    EXPECT_TRUE(shows([](const MeterState& state) { return state.problem.empty(); }));
    std::filesystem::remove(path);
    EXPECT_TRUE(listens()) << "somebody removed it";
    MeterBook otherBook;
    MeterPort other(path, "4.5.6", otherBook);
    std::this_thread::sleep_for(200ms);
    EXPECT_THAT(otherBook.state({}).problem, HasSubstr("another program listens"));
    port.reset();
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
}  // namespace station
