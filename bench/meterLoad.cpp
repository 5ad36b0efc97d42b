// Plays a meter of as many groups as the station tells it: reports of ten PIDs, each group once a second.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "framing.h"
#include "support/fullReport.h"

namespace {

constexpr uint32_t kPids = 10;
constexpr std::size_t kReportsOfAPart = 500;

// What moves from second to second, of a faultless channel of 4 Mbit/s.
meter::Report reportAt(uint32_t group, uint64_t second) {
    meter::Report report = test::fullReport(group);
    report.services.resize(1);
    report.network->rtp.reset();
    report.seconds = static_cast<double>(second);
    report.packets.received = second * 2660;
    report.packets.lost = {0, "counter", 0, {}, {}, 0, 0, {}};
    report.bitrate.bps = 4'000'000 + (group * 7919 + second * 104'729) % 1000;
    const meter::PidReport pid = report.pids[0];
    report.pids.assign(kPids, pid);
    for (uint32_t i = 0; i < kPids; ++i) {
        report.pids[i].pid = static_cast<uint16_t>(256 + i);
        report.pids[i].packets = second * 266;
        report.pids[i].bps = 400'000 + (group + i * 31 + second * 17) % 1000;
        report.pids[i].continuityErrors = report.pids[i].lost = 0;
    }
    report.checks = meter::allChecks();
    return report;
}

bool sendAll(int to, const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
        const ssize_t count = send(to, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string path;
    uint64_t seconds = 60;
    CLI::App app("Plays a meter for a station");
    app.add_option("--socket", path, "The station's meter_socket")->required();
    app.add_option("--seconds", seconds, "How long");
    CLI11_PARSE(app, argc, argv);

    const int link = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(static_cast<char*>(address.sun_path), sizeof(address.sun_path) - 1);
    if (connect(link, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        std::perror(path.c_str());
        return 1;
    }
    metering::FromMeter hello;
    hello.mutable_hello()->set_major(metering::kMajor);
    hello.mutable_hello()->set_version("load");
    sendAll(link, metering::framed(hello));
    metering::Unframer unframer;
    std::vector<uint32_t> groups;
    while (groups.empty()) {
        std::array<char, 65536> bytes{};
        const ssize_t count = recv(link, bytes.data(), bytes.size(), 0);
        if (count <= 0) {
            std::fprintf(stderr, "the station closed the connection\n");
            return 1;
        }
        unframer.add({bytes.data(), static_cast<std::size_t>(count)});
        while (const auto message = unframer.next()) {
            metering::FromStation said;
            said.ParseFromArray(message->data(), static_cast<int>(message->size()));
            for (const metering::Group& group : said.groups().group()) {
                groups.push_back(group.group());
            }
        }
    }
    auto next = std::chrono::steady_clock::now();
    for (uint64_t second = 1; second <= seconds; ++second) {
        for (std::size_t at = 0, part = 0; at < groups.size(); ++part) {
            metering::FromMeter message;
            metering::Second& made = *message.mutable_second();
            made.set_threads(1);
            made.set_number(second);
            made.set_part(static_cast<uint32_t>(part));
            for (std::size_t i = 0; i < kReportsOfAPart && at < groups.size(); ++i, ++at) {
                *made.add_report() = test::reportMessage(reportAt(groups[at], second), second == 1);
            }
            made.set_last(at == groups.size());
            if (!sendAll(link, metering::framed(message))) {
                std::fprintf(stderr, "the station closed the connection\n");
                return 1;
            }
        }
        next += std::chrono::seconds(1);
        std::this_thread::sleep_until(next);
    }
    close(link);
}
