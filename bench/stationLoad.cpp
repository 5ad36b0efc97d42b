// Stands in for a probe with many channels: asks its controller and writes a snapshot a second into a pipe.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>
#include <zmq.hpp>

#include "config.pb.h"
#include "recordColumns.h"

namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;

constexpr std::size_t kPacketsPerSecond = 5000;  // a channel's
constexpr std::size_t kWriteBytes = 65536;       // as the probe hands it to the kernel
constexpr uint32_t kFaultEvery = 997;            // about one channel of a thousand loses a packet in a second

// What stays the same from snapshot to snapshot is not formatted again.
class Line {
  public:
    Line(records::Kind kind, uint32_t channel, uint32_t pid) : kind_(kind), channel_(channel), pid_(pid) {
        prefix_ = "239." + std::to_string(100 + channel / 62500) + "." + std::to_string(channel / 250 % 250) +
                  "." + std::to_string(1 + channel % 250);
        prefix_ += kind == records::Kind::kStream ? ";0;-1;" : ";1;" + std::to_string(256 + pid) + ";";
        prefix_ += records::kKinds[static_cast<std::size_t>(kind)].label;
    }

    void append(std::string& text, uint32_t second) const {
        text += prefix_;
        const auto columns = records::columnsOf(kind_);
        for (std::size_t i = records::kLabelColumn + 1; i < columns.size(); ++i) {
            text += ';';
            if (columns[i].type == records::Type::kFraction) {
                appendFraction(text, columns[i].name, second);
            } else {
                appendNumber(text, integer(columns[i].name, second));
            }
        }
        text += kind_ == records::Kind::kStream ? "\n" : ";10;82;40\n";
    }

  private:
    static void appendNumber(std::string& text, int64_t value) {
        char digits[24];
        text.append(digits, std::to_chars(digits, digits + sizeof digits, value).ptr);
    }
    void appendFraction(std::string& text, std::string_view name, uint32_t second) const {
        const double base = name == "mosScore" || name == "transportQualityIndex" ? 4.5 : 2.0;
        char digits[32];
        const double value = base + (channel_ * 31 + pid_ * 7 + second * 13) % 1000 / 10000.0;
        text.append(digits,
                    std::to_chars(digits, digits + sizeof digits, value, std::chars_format::fixed, 6).ptr);
    }
    // How many packets the channel has lost by then.
    uint32_t faults(uint32_t second) const {
        return (second + channel_ * 7 % kFaultEvery) / kFaultEvery;
    }
    int64_t integer(std::string_view name, uint32_t second) const {
        if (name == "packetsReceived") {
            return int64_t{kPacketsPerSecond} * (second + 1) / (kind_ == records::Kind::kStream ? 1 : 20);
        }
        if (name == "bitRate") {
            return 7'520'000 + (channel_ * 17 + second * 29) % 1000;
        }
        if (name == "packetsLost" || name == "packetsOutOfSequence" || name == "Continuity_count_error") {
            return kind_ == records::Kind::kStream || pid_ == 2 ? faults(second) : 0;
        }
        if (name == "PCR_accuracy_error") {
            return second * 7;
        }
        if (name == "sourceAddress" || name == "destinationAddress") {
            return 0x0200630A;
        }
        struct Fixed {
            std::string_view name;
            int64_t value;
        };
        static constexpr Fixed kFixed[] = {{"streamType", 27},          {"pmtPid", 257},
                                           {"sourcePort", 40000},       {"destinationPort", 5000},
                                           {"firstPacketLength", 1358}, {"ttl", 64},
                                           {"igmpLatency", 12},         {"pictureHeight", 1080},
                                           {"pictureWidth", 1920},      {"gopLength", 50},
                                           {"gopBFrames", 2},           {"descriptorCount", 3},
                                           {"gopLengthMaximum", 51},    {"gopLengthMinimum", 49}};
        const auto* found = std::ranges::find(kFixed, name, &Fixed::name);
        return found == std::end(kFixed) ? 0 : found->value;
    }

    records::Kind kind_;
    uint32_t channel_;
    uint32_t pid_;
    std::string prefix_;
};

std::vector<Line> linesOf(uint32_t channels, uint32_t pids) {
    std::vector<Line> lines;
    for (uint32_t channel = 0; channel < channels; ++channel) {
        lines.emplace_back(records::Kind::kStream, channel, 0);
        for (uint32_t pid = 0; pid < pids; ++pid) {
            lines.emplace_back(pid == 0   ? records::Kind::kPat
                               : pid == 1 ? records::Kind::kPmt
                                          : records::Kind::kKnownPid,
                               channel, pid);
        }
    }
    return lines;
}

// Asks every half second, on a connection of its own each time, and throws the answers away.
void askController(const std::stop_token& stop, const std::string& endpoint) {
    zmq::context_t context;
    for (int32_t sequence = 0; !stop.stop_requested(); ++sequence) {
        zmq::socket_t link(context, zmq::socket_type::req);
        link.set(zmq::sockopt::linger, 0);
        link.set(zmq::sockopt::rcvtimeo, 500);
        link.connect(endpoint);
        configuration::ConfigurationMessage message;
        message.mutable_request()->set_information("load");
        message.mutable_request()->set_sequence_number(sequence);
        link.send(zmq::buffer(message.SerializeAsString()), zmq::send_flags::none);
        zmq::message_t answer;
        static_cast<void>(link.recv(answer));
        std::this_thread::sleep_for(500ms);
    }
}

// Returns the longest time that one write took, which is how long the pipe was full.
steady_clock::duration writeSnapshot(const std::string& pipe, const std::string& text) {
    const int fd = open(pipe.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        perror(pipe.c_str());
        exit(1);
    }
    steady_clock::duration longest{};
    for (std::size_t at = 0; at < text.size();) {
        const auto before = steady_clock::now();
        const ssize_t written = write(fd, text.data() + at, std::min(kWriteBytes, text.size() - at));
        longest = std::max(longest, steady_clock::now() - before);
        if (written <= 0) {
            break;  // the reader is gone; the next snapshot waits for it
        }
        at += static_cast<std::size_t>(written);
    }
    close(fd);
    return longest;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Writes a snapshot a second into a pipe and asks the controller, as a probe does"};
    std::string pipe;
    std::string endpoint;
    uint32_t channels = 1000;
    uint32_t pids = 20;
    uint32_t seconds = 0;
    app.add_option("--pipe", pipe)->required();
    app.add_option("--controller-endpoint", endpoint)->required();
    app.add_option("--channels", channels);
    app.add_option("--pids", pids);
    app.add_option("--seconds", seconds, "snapshots in all")->required();
    CLI11_PARSE(app, argc, argv);

    signal(SIGPIPE, SIG_IGN);
    if (mkfifo(pipe.c_str(), 0600) != 0 && errno != EEXIST) {
        perror(pipe.c_str());
        return 1;
    }
    const std::jthread asker([&](const std::stop_token& stop) { askController(stop, endpoint); });
    const std::vector<Line> lines = linesOf(channels, pids);
    std::string text;
    auto next = steady_clock::now();
    for (uint32_t second = 0; second < seconds; ++second) {
        text.clear();
        for (const Line& line : lines) {
            line.append(text, second);
        }
        std::this_thread::sleep_until(next);
        const auto begin = steady_clock::now();
        const auto full = writeSnapshot(pipe, text);
        const std::chrono::duration<double, std::milli> took = steady_clock::now() - begin;
        printf("%zu bytes in %.1f ms, longest write %.1f ms\n", text.size(), took.count(),
               std::chrono::duration<double, std::milli>(full).count());
        fflush(stdout);
        next = std::max(next + 1s, begin + 500ms);
    }
    return 0;
}
