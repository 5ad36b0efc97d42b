// The meter and the station that kestor-picture talks to, played.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "basics/descriptor.h"
#include "basics/unixListener.h"
#include "framing.h"
#include "picture.pb.h"
#include "pictureLimits.h"

namespace test {

// One side of a connection, read on a thread of its own.
template <typename Sent, typename Received>
class PicturePeer {
  public:
    using Take = std::function<void(const Received&)>;
    PicturePeer(basics::Descriptor socket, Take take, uint32_t major = picturing::kMajor)
        : socket_(std::move(socket)), take_(std::move(take)) {
        Sent hello;
        hello.mutable_hello()->set_major(major);
        hello.mutable_hello()->set_version("played");
        send(hello);
        thread_ = std::jthread([this](const std::stop_token& stop) { run(stop); });
    }

    void send(const Sent& message) {
        sendBytes(metering::framed(message));
    }
    void sendBytes(std::string_view bytes) {
        const std::lock_guard lock(mutex_);
        while (!bytes.empty()) {
            const ssize_t count = ::send(socket_.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (count <= 0) {
                return;
            }
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
    }
    bool ended() const {
        return ended_;
    }

  private:
    void run(const std::stop_token& stop) {
        metering::Unframer unframer;
        std::vector<char> bytes(65536);
        while (!stop.stop_requested()) {
            pollfd polled{socket_.number(), POLLIN, 0};
            if (poll(&polled, 1, 20) <= 0) {
                continue;
            }
            const ssize_t count = recv(socket_.number(), bytes.data(), bytes.size(), 0);
            if (count <= 0) {
                ended_ = true;
                return;
            }
            unframer.add({bytes.data(), static_cast<std::size_t>(count)});
            while (const auto whole = unframer.next()) {
                Received message;
                if (message.ParseFromArray(whole->data(), static_cast<int>(whole->size()))) {
                    take_(message);
                }
            }
        }
    }

    basics::Descriptor socket_;
    Take take_;
    std::mutex mutex_;  // guards what is sent
    std::atomic<bool> ended_ = false;
    std::jthread thread_;
};

using PlayedMeter = PicturePeer<picturing::FromMeter, picturing::ToMeter>;
using PlayedStation = PicturePeer<picturing::FromStation, picturing::ToStation>;

// Connected to who listens at the path; not open while nobody does.
inline basics::Descriptor connectTo(const std::string& path) {
    basics::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return connect(socket.number(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0
               ? std::move(socket)
               : basics::Descriptor();
}

// The next that connects, within 10 s.
inline basics::Descriptor acceptFrom(const basics::Descriptor& listener) {
    pollfd polled{listener.number(), POLLIN, 0};
    poll(&polled, 1, 30'000);  // one that was refused comes again after 10 s
    return basics::Descriptor(accept4(listener.number(), nullptr, nullptr, SOCK_CLOEXEC));
}

}  // namespace test
