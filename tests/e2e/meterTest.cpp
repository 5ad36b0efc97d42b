// kestor-meter beside the real probe and station, while things come, go and break.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "basics/descriptor.h"
#include "basics/unixListener.h"
#include "framing.h"
#include "meter.pb.h"
#include "support/harness.h"
#include "support/meterStream.h"
#include "support/reportJson.h"
#include "support/stationTool.h"
#include "support/vlanTags.h"

namespace test {
namespace {

using nlohmann::json;
using testing::Contains;
using testing::HasSubstr;

constexpr const char* kSocket = "/tmp/meter.sock";
constexpr const char* kPcap = "/tmp/sent.pcap";
constexpr const char* kA = "239.1.1.1";
constexpr const char* kB = "239.1.1.2";

std::string groupName(int number) {
    return "239.1.1." + std::to_string(number);
}

// What it prints to whichever.
std::string told(const std::vector<std::string>& command) {
    const ToolResult result = kestorctl(command);
    return result.out + result.err;
}

// What the station says of the meter.
json status() {
    return kestorctlObject({"status"}).value("meter", json::object());
}

bool statusShows(const std::function<bool(const json&)>& what,
                 std::chrono::milliseconds timeout = kPatience) {
    return eventually(
        [&] {
            const json meter = status();
            return meter.is_object() && !meter.empty() && what(meter);
        },
        timeout);
}

bool reports(std::size_t groups) {
    return statusShows([&](const json& meter) { return meter.value("reported", std::size_t{0}) == groups; });
}

struct Meter : Process {
    explicit Meter(std::vector<std::string> more = {})
        : Process([&] {
              more.insert(more.begin(), {"kestor-meter", "--socket", kSocket});
              return more;
          }()) {}

    bool says(const std::string& text, std::size_t times = 1) const {
        return eventually([&] { return occurrences(err(), text) >= times; });
    }
    std::size_t descriptors() const {
        const std::filesystem::directory_iterator files(proc() + "/fd");
        return static_cast<std::size_t>(std::distance(begin(files), end(files)));
    }
    long residentKb() const {
        std::ifstream file(proc() + "/status");
        for (std::string line; std::getline(file, line);)
            if (line.starts_with("VmRSS:"))
                return std::stol(line.substr(6));
        return 0;
    }
};

struct Station : Process {
    explicit Station(const std::string& channels)
        : Process([&] {
              std::vector<std::string> command = stationCommand(channels);
              command.insert(command.end(), {"--meter-socket", kSocket});
              return command;
          }()) {}
};

std::string channels(int count, const std::string& more = "") {
    std::string text;
    for (int i = 1; i <= count; ++i)
        text += "[[channel]]\ngroup = \"" + groupName(i) + "\"\n" + more;
    return text;
}

// How a group is sent its stream.
struct Sent {
    std::string group;
    bool rtp = false;
    std::vector<uint16_t> vlans{};
};

// A stream of 2 Mbit/s, sent to groups at its pace, and kept as a capture file.
class Traffic {
  public:
    Traffic(double seconds, std::vector<Sent> groups)
        : groups_(std::move(groups)), packets_([&] {
              MeterStream stream;
              stream.seconds = seconds;
              // An error each 700 ms, by turns.
              stream.plant = [next = 500.0, kind = 0](double ms, TsPacket& packet) mutable {
                  if (ms < next || MeterStream::pidOf(packet) == 0x1FFF)
                      return;
                  next = ms + 700;
                  switch (kind++ % 3) {
                      case 0:
                          packet[1] |= 0x80;
                          break;  // transport error
                      case 1:
                          packet[3] ^= 0x05;
                          break;  // continuity counter
                      default:
                          packet[0] = 0x48;
                          break;  // sync byte
                  }
              };
              return stream.packets();
          }()) {}

    // Leaves out every 97th datagram, if asked to, and returns how many were sent to each group.
    std::size_t send(bool losing = true) {
        setpriority(PRIO_PROCESS, 0, -10);  // of this thread, or it gets behind on a busy machine
        const FrameSender network;
        PcapWriter capture(kPcap, PcapWriter::Stamps::kNano);
        const auto begin = std::chrono::steady_clock::now();
        std::size_t sent = 0;
        for (std::size_t at = 0; at + 7 <= packets_.size(); at += 7) {
            std::this_thread::sleep_until(
                begin + std::chrono::microseconds(
                            static_cast<int64_t>(static_cast<double>(at) * MeterStream::kPacketMs * 1000)));
            if (losing && at / 7 % 97 == 96)
                continue;
            const Bytes payload = joined(packets_, at, 7);
            const Bytes header = psi::concat({{0x80, 33}, psi::u16(at / 7), psi::u32(at * 135), psi::u32(9)});
            for (const Sent& to : groups_) {
                const Bytes frame = tagged(
                    UdpFlow{.group = to.group}.frame(to.rtp ? psi::concat({header, payload}) : payload),
                    to.vlans);
                capture.write(static_cast<uint64_t>(std::chrono::system_clock::now().time_since_epoch() /
                                                    std::chrono::nanoseconds(1)),
                              frame);
                network.send(frame);
            }
            ++sent;
        }
        return sent;
    }

  private:
    std::vector<Sent> groups_;
    std::vector<TsPacket> packets_;
};

// A socket of datagrams at the path.
basics::Descriptor datagramsTo(const char* path) {
    basics::Descriptor made(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string_view(path).copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(made.number(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    return made;
}

// In the station's place at the socket: one that does as the test says.
class MadeStation {
  public:
    void accept(bool greet = true) {
        pollfd poll{listener_.number(), POLLIN, 0};
        ASSERT_EQ(::poll(&poll, 1, 20'000), 1) << "the meter does not connect";
        connection_ = basics::Descriptor(::accept(listener_.number(), nullptr, nullptr));
        unframer_ = {};
        if (greet) {
            metering::FromStation hello;
            hello.mutable_hello()->set_major(metering::kMajor);
            hello.mutable_hello()->set_version("made");
            send(metering::framed(hello));
        }
    }
    void send(const std::string& bytes) const {
        EXPECT_EQ(::send(connection_.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    static uint32_t group(int number) {
        return 0xEF010100 + static_cast<uint32_t>(number);
    }
    void watch(int from, int count, bool join = false) {
        metering::FromStation message;
        message.mutable_groups()->set_revision(++revision_);
        for (int i = from; i < from + count; ++i) {
            metering::Group& added = *message.mutable_groups()->add_group();
            added.set_group(group(i));
            added.set_join(join);
            if (join && i % 2 == 0)
                added.set_source(0x0A000007);
        }
        send(metering::framed(message));
    }
    // The next second's first part for which this holds.
    bool waitForSecond(const std::function<bool(const metering::Second&)>& holds) {
        const auto deadline = std::chrono::steady_clock::now() + 20s;
        std::vector<char> bytes(1 << 20);
        while (std::chrono::steady_clock::now() < deadline) {
            while (const auto text = unframer_.next()) {
                metering::FromMeter message;
                EXPECT_TRUE(message.ParseFromArray(text->data(), static_cast<int>(text->size())));
                if (message.has_second() && holds(message.second()))
                    return true;
            }
            pollfd poll{connection_.number(), POLLIN, 0};
            ::poll(&poll, 1, 1000);
            const ssize_t count = recv(connection_.number(), bytes.data(), bytes.size(), MSG_DONTWAIT);
            if (count == 0)
                return false;
            if (count > 0)
                unframer_.add({bytes.data(), static_cast<std::size_t>(count)});
        }
        return false;
    }
    uint64_t revision() const {
        return revision_;
    }

  private:
    basics::Descriptor listener_{basics::listenUnix(kSocket)};
    basics::Descriptor connection_;
    metering::Unframer unframer_;
    uint64_t revision_ = 0;
};

// "INC EXC" of a source of the group on eth0 (/proc/net/mcfilter), or nothing where there is none. The kernel
// lists sources of an interface only while the group that was joined last has some.
std::string sourceFilter(const std::string& group, const std::string& source) {
    const auto hexadecimal = [](const std::string& dotted) {
        std::array<char, 16> text{};
        snprintf(text.data(), text.size(), "0x%08x", ntohl(inet_addr(dotted.c_str())));
        return std::string(text.data());
    };
    std::ifstream file("/proc/net/mcfilter");
    for (std::string line; std::getline(file, line);) {
        std::istringstream fields(line);
        std::string index, name, address, from, includes, excludes;
        fields >> index >> name >> address >> from >> includes >> excludes;
        if (name == "eth0" && address == hexadecimal(group) && from == hexadecimal(source))
            return includes + " " + excludes;
    }
    return "";
}

void run(const std::string& command) {
    EXPECT_EQ(system(("PATH=$PATH:/usr/sbin:/sbin; " + command).c_str()), 0) << command;
}

}  // namespace

class MeterThreads : public testing::TestWithParam<int> {};

TEST_P(MeterThreads, ReportWhatKestorMeasureSaysOfTheSameTraffic) {
    const Station station(channels(5));
    const Process kestor({"kestor", "-s"});
    const Meter meter({"--threads", std::to_string(GetParam()), "--ring-mib", "16"});
    ASSERT_TRUE(reports(5)) << station.err() << meter.err();
    // Ends soon after an error of continuity, which ends a block of PCRs: only a recording's end would end
    // the one that comes behind it, if it were longer.
    const std::size_t sent =
        Traffic(5.6, {{kA}, {kB, true}, {groupName(3), false, {7}}, {groupName(4), true, {9, 7}}}).send();
    Process measure({"kestor-measure", "--json", "--quiet", kPcap});
    EXPECT_EQ(measure.wait(), 3) << "there are errors in it";
    std::istringstream lines(measure.out());
    std::size_t groups = 0;
    for (std::string line; std::getline(lines, line); ++groups) {
        const json measured = json::parse(line);
        json report;
        EXPECT_TRUE(eventually([&] {
            report = kestorctlObject({"meter", measured["group"]});
            return report.contains("flow") && report["flow"].is_object() &&
                   report["flow"]["datagrams"] == sent;
        })) << report;
        EXPECT_EQ(comparable(report), comparable(measured));
        EXPECT_GT(measured["packets"]["lost"]["packets"], 50);
    }
    EXPECT_EQ(groups, 4U);
    EXPECT_EQ(kestorctlObject({"meter", kA})["live"]["disturbedSeconds"], 0);
    EXPECT_EQ(kestorctlObject({"meter", kB})["packets"]["lost"]["basis"], "rtp");
    EXPECT_EQ(kestorctlObject({"meter", groupName(4)})["flow"]["vlan"], json({9, 7}));
    EXPECT_EQ(kestorctlObject({"meter", groupName(5)})["packets"]["received"], 0);
    EXPECT_THAT(told({"meter", kA}), HasSubstr("239.1.1.1:5000 from 10.0.0.1:1234 over UDP"));
    EXPECT_EQ(status()["capture"]["interface"], "eth0");
}
INSTANTIATE_TEST_SUITE_P(, MeterThreads, testing::Values(1, 3));

TEST(Meter, ComesAndGoesInAnyOrder) {
    std::optional<Meter> meter(std::in_place);
    EXPECT_TRUE(meter->says("no station at"));
    std::optional<Station> station(std::in_place, channels(1));
    EXPECT_TRUE(reports(1)) << meter->err();

    Meter second;
    EXPECT_TRUE(second.says("another meter is connected already"));
    EXPECT_TRUE(status().value("connected", false)) << "the first goes on";
    second.kill(SIGKILL);

    meter->kill(SIGKILL);
    EXPECT_TRUE(statusShows([](const json& seen) { return !seen.value("connected", true); }));
    EXPECT_THAT(told({"meter", kA}), HasSubstr("No meter is connected"));
    EXPECT_THAT(told({"status"}), HasSubstr("meter     NOT CONNECTED"));
    meter.emplace();
    EXPECT_TRUE(reports(1));

    station->kill(SIGKILL);
    EXPECT_TRUE(meter->says("the station went away"));
    std::filesystem::remove(kSocket);
    std::ofstream(kSocket) << "no socket";
    station.emplace(channels(3));
    EXPECT_TRUE(statusShows([](const json& seen) {
        return seen["problem"].is_string() &&
               seen["problem"].get<std::string>().find("no socket") != std::string::npos;
    }));
    std::filesystem::remove(kSocket);
    EXPECT_TRUE(reports(3)) << meter->err();
    meter->kill(SIGTERM);
    EXPECT_EQ(meter->wait(), 0);
}

TEST(Meter, GivesWayToAnotherOneWhenItHangs) {
    const Station station(channels(1));
    Meter first;
    ASSERT_TRUE(reports(1)) << first.err();
    first.kill(SIGSTOP);
    Meter second;
    EXPECT_TRUE(second.says("another meter is connected already"));
    EXPECT_TRUE(
        eventually([&] { return second.err().find("connected to the station") != std::string::npos; }, 40s))
        << second.err();
    EXPECT_TRUE(reports(1));
    first.kill(SIGCONT);
    EXPECT_TRUE(first.says("another meter is connected already")) << first.err();
    EXPECT_TRUE(reports(1));
}

TEST(Meter, TellsWhatItDroppedWhileItWasStopped) {
    const Station station(channels(8));
    Meter meter({"--ring-mib", "8"});
    ASSERT_TRUE(reports(8)) << meter.err();
    std::vector<Sent> groups;
    for (int i = 1; i <= 8; ++i)
        groups.push_back({groupName(i)});
    std::jthread traffic([&groups] { Traffic(14, groups).send(false); });
    EXPECT_TRUE(statusShows([](const json& seen) { return seen["capture"]["frames"] > 500; }));
    meter.kill(SIGSTOP);
    const uintmax_t before = std::filesystem::file_size(kPcap);
    std::this_thread::sleep_for(9s);
    EXPECT_TRUE(eventually([&] { return std::filesystem::file_size(kPcap) > before + 12'000'000; }));
    EXPECT_EQ(status()["silent"], true);
    meter.kill(SIGCONT);
    json live;  // what is over some seconds later is looked at together
    EXPECT_TRUE(statusShows([&](const json& seen) {
        live = kestorctlObject({"meter", kA})["live"];
        return seen["capture"]["kernelDrops"] > 100 && seen["capture"]["disturbed"] == true &&
               live["disturbed"] == true;
    })) << status();
    EXPECT_GT(live["disturbedSeconds"], 7);
    EXPECT_TRUE(statusShows([](const json& seen) { return seen["capture"]["disturbed"] == false; }))
        << "it is over a few seconds later";
}

TEST(Meter, KeepsNothingOfGroupsThatWere) {
    MadeStation station;
    const Meter meter;
    station.accept();
    const auto settle = [&] {
        station.watch(1, 50, true);
        return station.waitForSecond([&](const metering::Second& second) {
            return second.revision() == station.revision() && second.capture().joined() == 50;
        });
    };
    ASSERT_TRUE(settle()) << meter.err();
    EXPECT_TRUE(igmpMember(groupName(3)));
    const std::size_t descriptors = meter.descriptors();
    // Each round adds 50 groups and removes 50, and is over when the kernel says so.
    constexpr int kRounds = 200;
    constexpr int kSettled = 40;
    long resident = 0;
    for (int round = 1; round <= kRounds; ++round) {
        const int first = round % 2 == 0 ? 1 : 51;
        const int before = round % 2 == 0 ? 51 : 1;
        station.watch(first, 50, true);
        ASSERT_TRUE(eventually([&] {
            return igmpMember(groupName(first + 49)) && !igmpMember(groupName(before + 49));
        })) << round
            << ": " << meter.err();
        if (round % 20 == 0) {  // what was reported meanwhile is read
            ASSERT_TRUE(station.waitForSecond(
                [&](const auto& second) { return second.revision() == station.revision(); }));
            resident = round == kSettled ? meter.residentKb() : resident;
        }
    }
    ASSERT_TRUE(settle()) << meter.err();
    EXPECT_LE(meter.descriptors(), descriptors);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which keep what is freed
    EXPECT_LE(meter.residentKb(), resident + 4096) << "half a kilobyte an addition";
#endif
    station.watch(1, 0);
    EXPECT_TRUE(station.waitForSecond([](const auto& second) { return second.capture().joined() == 0; }));
    EXPECT_FALSE(igmpMember(groupName(3)));
}

TEST(Meter, ChangesTwoThousandGroupsAtOnce) {
    constexpr int kGroups = 2000;
    constexpr int kStays = kGroups - 1;  // in both lists
    MadeStation station;
    const Meter meter;
    station.accept();
    metering::GroupReport report;
    const auto settle = [&](int from) {
        station.watch(from, kGroups, true);
        return station.waitForSecond([&](const metering::Second& second) {
            for (const metering::GroupReport& one : second.report())
                if (one.group() == MadeStation::group(kStays))
                    report = one;
            EXPECT_EQ(second.capture().kernel_drops(), 0U);
            return second.revision() == station.revision() && second.report_size() == kGroups &&
                   second.capture().joined() == kGroups;
        });
    };
    ASSERT_TRUE(settle(1)) << meter.err();
    const uint64_t epoch = report.epoch();
    std::size_t sent = 0;
    std::jthread traffic([&] { sent = Traffic(6, {{"239.1.8.207"}}).send(); });
    std::this_thread::sleep_for(1s);
    EXPECT_TRUE(settle(kStays)) << meter.err();
    traffic.join();
    EXPECT_TRUE(station.waitForSecond([&](const metering::Second& second) {
        report = second.report(0);
        return report.flow().datagrams() >= sent;
    })) << report.flow().datagrams();
    EXPECT_EQ(report.flow().datagrams(), sent) << "what stays loses nothing";
    EXPECT_EQ(report.epoch(), epoch);
}

// systemd's end of the watchdog's socket.
class ServiceManager {
  public:
    ServiceManager() {
        setenv("NOTIFY_SOCKET", kPath, 1);
    }
    ~ServiceManager() {
        unsetenv("NOTIFY_SOCKET");
        std::filesystem::remove(kPath);
    }
    // How often the watchdog was told since the last call.
    int told() const {
        int count = 0;
        std::array<char, 256> bytes;
        for (;;) {
            const ssize_t size = recv(socket_.number(), bytes.data(), bytes.size(), MSG_DONTWAIT);
            if (size < 0)
                return count;
            count += std::string_view(bytes.data(), static_cast<std::size_t>(size)).find("WATCHDOG=1") !=
                             std::string_view::npos
                         ? 1
                         : 0;
        }
    }

  private:
    static constexpr const char* kPath = "/tmp/notify.sock";
    basics::Descriptor socket_ = datagramsTo(kPath);
};

TEST(Meter, TellsTheWatchdogThoughChannelsChangeAllTheTime) {
    const ServiceManager manager;
    MadeStation station;
    const Meter meter;
    station.accept();
    EXPECT_TRUE(eventually([&] { return manager.told() > 0; })) << meter.err();
    for (int i = 0; i < 50; ++i) {
        station.watch(1 + i % 2, 3, true);
        std::this_thread::sleep_for(100ms);
    }
    EXPECT_GE(manager.told(), 2) << "within five seconds";
}

TEST(Meter, CapturesAnInterfaceThatIsMadeAnew) {
    MadeStation station;
    Meter meter;
    station.accept();
    station.watch(1, 2, true);
    const auto captured = [&] {
        const auto traffic = liveTraffic(kA);
        uint64_t frames = 0;
        return station.waitForSecond([&](const metering::Second& second) {
            const bool grew = frames > 0 && second.capture().frames() > frames + 20;
            frames = second.capture().frames();
            return grew && second.capture().problem().empty() && second.capture().joined() == 2;
        });
    };
    EXPECT_TRUE(captured()) << meter.err();
    run("ip link set eth0 down");
    EXPECT_TRUE(station.waitForSecond([](const metering::Second& second) {
        return second.capture().problem().find("down") != std::string::npos && second.capture().disturbed();
    }));
    run("ip link set eth0 up");
    EXPECT_TRUE(captured()) << meter.err();
    for (int i = 0; i < 2; ++i) {
        run("ip link del eth0");
        EXPECT_TRUE(station.waitForSecond(
            [](const metering::Second& second) { return !second.capture().problem().empty(); }));
        run("ip link add eth0 type veth peer name feed0 && ip addr add 10.99.0.1/24 dev eth0 && "
            "ip link set feed0 up && ip link set eth0 up && ip route add 224.0.0.0/4 dev eth0");
        EXPECT_TRUE(captured()) << meter.err();
    }
    EXPECT_TRUE(meter.running());
}

TEST(Meter, OutlivesAStationThatSendsNonsense) {
    {
        const basics::Descriptor other = datagramsTo(kSocket);
        const Meter meter;
        EXPECT_TRUE(meter.says("wrong type")) << meter.err();
    }
    MadeStation station;
    Meter meter;
    for (const std::string& bytes : {std::string("HTTP/1.1 400 Bad Request\r\n\r\n"), std::string(4, '\x7F'),
                                     std::string("\0\0\0\3\xFF\xFF\xFF", 7)}) {
        station.accept(false);
        station.send(bytes);
        EXPECT_FALSE(station.waitForSecond([](const auto&) { return false; })) << "it ends the connection";
    }
    EXPECT_TRUE(meter.says("the station sent"));
    station.accept();
    station.watch(1, 3);
    EXPECT_TRUE(station.waitForSecond([](const auto& second) { return second.report_size() == 3; }))
        << meter.err();
}

TEST(Meter, JoinsChannelsForTheirSourceWhileItIsThere) {
    const std::string group = groupName(1);
    Process kestor({"kestor", "-s"});
    const Station station(channels(1, "source = \"10.0.0.7\"\n"));
    EXPECT_TRUE(eventually([&] { return igmpMember(group); })) << station.err();
    EXPECT_EQ(sourceFilter(group, "10.0.0.7"), "");
    EXPECT_THAT(told({"status"}), HasSubstr("10.0.0.7@239.1.1.1 names a source"));

    std::optional<Meter> meter(std::in_place);
    // One includes the source, and nobody is left who asks for all.
    EXPECT_TRUE(eventually([&] { return sourceFilter(group, "10.0.0.7") == "1 0"; }))
        << station.err() << meter->err();
    const auto users = [&] {
        std::ifstream file("/proc/net/igmp");
        const std::string all((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        const std::size_t at = all.find("010101EF");
        int count = 0;
        return at != std::string::npos && sscanf(all.c_str() + at + 8, "%d", &count) == 1 ? count : 0;
    };
    EXPECT_TRUE(eventually([&] { return users() == 1; }, 30s)) << users();
    EXPECT_TRUE(filterAdmits(group)) << "the probe receives it";

    // A restart changes nothing for the probe; an end does.
    meter->kill(SIGKILL);
    meter.emplace();
    EXPECT_TRUE(eventually([&] { return sourceFilter(group, "10.0.0.7") != ""; }));
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(users(), 1);
    meter.reset();
    EXPECT_FALSE(igmpMember(group));
    EXPECT_TRUE(eventually([&] { return igmpMember(group); }, 30s)) << station.err();
    EXPECT_EQ(sourceFilter(group, "10.0.0.7"), "");
}

}  // namespace test
