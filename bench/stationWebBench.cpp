// What the station pays to be asked: 1000 channels of 20 PIDs.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/fakeStation.h"
#include "web/apiJson.h"

namespace {

using namespace station;

constexpr std::size_t kChannels = 1000;
constexpr std::size_t kPids = 20;
constexpr std::size_t kStreams = 50;

void channelsAnswer(benchmark::State& state) {
    const FakeStation fake(kChannels, kPids);
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(channelsJson(*fake.state()));
    }
}
BENCHMARK(channelsAnswer)->Unit(benchmark::kMillisecond);

double cpuMs(int who) {
    rusage usage{};
    getrusage(who, &usage);
    const auto ms = [](const timeval& time) {
        return 1e3 * static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e3;
    };
    return ms(usage.ru_utime) + ms(usage.ru_stime);
}

int connectTo(const std::string& path) {
    const int client = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        std::abort();
    }
    constexpr std::string_view kRequest = "GET /api/v1/stream HTTP/1.1\r\nHost: localhost\r\n\r\n";
    if (send(client, kRequest.data(), kRequest.size(), 0) < 0) {
        std::abort();
    }
    return client;
}

// Up to the end of a snapshot event that tells of the state with that number.
void readState(int client, uint64_t number) {
    std::string text;
    std::vector<char> bytes(std::size_t{1} << 18);
    const std::string wanted = "{\"number\":" + std::to_string(number) + ',';
    while (text.find(wanted) == std::string::npos || !text.ends_with("\n\n")) {
        const ssize_t count = recv(client, bytes.data(), bytes.size(), 0);
        if (count <= 0) {
            std::abort();
        }
        text.append(bytes.data(), static_cast<std::size_t>(count));
    }
}

// A state to 50 event streams: the server's CPU, without the clients'.
void streamedState(benchmark::State& state) {
    FakeStation fake(kChannels, kPids);
    ServerOptions options;
    options.socket = std::filesystem::temp_directory_path() / ("stationWebBench." + std::to_string(getpid()));
    Server server(options, fake);
    std::vector<int> clients;
    for (std::size_t i = 0; i < kStreams; ++i) {
        clients.push_back(connectTo(options.socket));
        readState(clients.back(), 1);
    }
    uint64_t number = 1;
    for ([[maybe_unused]] auto _ : state) {
        // Late enough to be told though no channel is another.
        fake.change([](StationState& next) { next.now.steady += std::chrono::seconds(2); });
        ++number;
        usleep(250'000);  // events are not sent in a row
        const double before = cpuMs(RUSAGE_SELF) - cpuMs(RUSAGE_THREAD);
        server.statePublished();
        for (const int client : clients) {
            readState(client, number);
        }
        state.SetIterationTime((cpuMs(RUSAGE_SELF) - cpuMs(RUSAGE_THREAD) - before) / 1e3);
    }
    for (const int client : clients) {
        close(client);
    }
}
BENCHMARK(streamedState)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);

}  // namespace
