// Sends a fixed number of recorded datagrams at a fixed rate, as raw Ethernet frames to many groups in turn.
// Each group plays the whole recording from a place of its own.
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "workload.h"

namespace {

constexpr std::size_t kBatch = 64;

int openSocket(const std::string& interface) {
    const int fd = socket(AF_PACKET, SOCK_RAW, 0);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_IP);
    address.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        perror("frameSender");
        exit(1);
    }
    return fd;
}

class Batch {
  public:
    // `recording`: of one group.
    Batch(const bench::Recording& recording, uint32_t groups) : recording_(recording), headers_(groups) {
        for (uint32_t i = 0; i < groups; ++i) {
            bench::writeHeaders(headers_[i].data(), bench::groupAddress(i));
        }
    }

    // Prepares up to kBatch frames; returns how many.
    std::size_t fill(uint64_t remaining) {
        const std::size_t count = std::min<uint64_t>(kBatch, remaining);
        for (std::size_t i = 0; i < count; ++i) {
            const std::size_t group = next_ % headers_.size();
            const std::size_t begin = group * (recording_.frames() / headers_.size());
            const uint8_t* frame = recording_.frame(begin + next_ / headers_.size());
            ++next_;
            vectors_[i] = {iovec{.iov_base = headers_[group].data(), .iov_len = bench::kHeadersSize},
                           iovec{.iov_base = const_cast<uint8_t*>(frame) + bench::kHeadersSize,
                                 .iov_len = bench::kPayloadSize}};
            messages_[i] = {};
            messages_[i].msg_hdr.msg_iov = vectors_[i].data();
            messages_[i].msg_hdr.msg_iovlen = vectors_[i].size();
        }
        return count;
    }
    mmsghdr* messages() {
        return messages_.data();
    }

  private:
    const bench::Recording& recording_;
    std::vector<std::array<uint8_t, bench::kHeadersSize>> headers_;  // of each group
    uint64_t next_ = 0;
    std::array<std::array<iovec, 2>, kBatch> vectors_{};
    std::array<mmsghdr, kBatch> messages_{};
};

bool sendAll(int fd, mmsghdr* messages, std::size_t count) {
    for (std::size_t sent = 0; sent < count;) {
        const int result = sendmmsg(fd, messages + sent, static_cast<unsigned>(count - sent), 0);
        if (result < 0 && errno != ENOBUFS) {
            perror("sendmmsg");
            return false;
        }
        sent += static_cast<std::size_t>(std::max(result, 0));
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Sends recorded frames at a fixed rate"};
    std::string interface = "feed0";
    uint64_t count = 0;
    double rate = 0;
    uint32_t groups = 100;
    app.add_option("--interface", interface);
    app.add_option("--count", count, "frames in all")->required();
    app.add_option("--rate", rate, "frames per second")->required();
    app.add_option("--groups", groups);
    CLI11_PARSE(app, argc, argv);

    const bench::Recording recording(1);
    const int fd = openSocket(interface);
    Batch batch(recording, groups);
    const auto start = std::chrono::steady_clock::now();
    for (uint64_t sent = 0; sent < count;) {
        const std::size_t size = batch.fill(count - sent);
        std::this_thread::sleep_until(
            start + std::chrono::nanoseconds(static_cast<int64_t>(static_cast<double>(sent) / rate * 1e9)));
        if (!sendAll(fd, batch.messages(), size)) {
            return 1;
        }
        sent += size;
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    printf("sent %llu frames in %.2f s\n", static_cast<unsigned long long>(count), elapsed.count());
    close(fd);
    return 0;
}
