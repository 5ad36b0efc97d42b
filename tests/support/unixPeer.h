// A program that connects to a socket of the station and does as the test says.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <filesystem>
#include <optional>
#include <string>

#include "basics/descriptor.h"
#include "framing.h"
#include "support/scratch.h"

namespace station {

template <typename Received>
class UnixPeer {
  public:
    // Waits until somebody listens.
    explicit UnixPeer(const std::filesystem::path& path)
        : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.string().copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_TRUE(eventually([&] {
            return connect(socket_.number(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        })) << "nobody listens";
    }
    void send(const std::string& bytes) const {
        EXPECT_EQ(::send(socket_.number(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // The next message; none when the station ended the connection.
    std::optional<Received> next() {
        for (;;) {
            if (const auto text = unframer_.next()) {
                Received message;
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

  private:
    basics::Descriptor socket_;
    metering::Unframer unframer_;
};

}  // namespace station
