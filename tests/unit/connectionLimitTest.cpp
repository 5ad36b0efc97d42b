// Who connects to the controller's port without being a probe, speaking ZMTP 3.0 by hand.
#include <gtest/gtest.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "connectionLimit.h"
#include "support/process.h"

namespace {

using namespace std::chrono_literals;

class Client {
  public:
    explicit Client(const std::string& endpoint) : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(static_cast<uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1))));
        EXPECT_EQ(connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        const timeval patience{0, 20'000};
        setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    }
    ~Client() {
        close(socket_);
    }
    Client(const Client&) = delete;

    void beginAsRequester() {
        std::string greeting = std::string("\xFF\0\0\0\0\0\0\0\0\x7F\x03\0NULL", 16);
        greeting.resize(64, '\0');
        const std::string body = std::string("\x05READY\x0BSocket-Type\0\0\0\x03REQ", 25);
        send(greeting + '\x04' + static_cast<char>(body.size()) + body);
    }
    // Until the other side's READY came: frames in front of it are refused.
    void awaitReady() {
        constexpr std::size_t kGreeting = 64;
        const timeval patience{20, 0};
        setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        std::size_t received = 0;
        char bytes[256];
        while (received <= kGreeting) {
            const ssize_t count = recv(socket_, bytes, sizeof bytes, 0);
            ASSERT_GT(count, 0);
            received += static_cast<std::size_t>(count);
        }
    }
    // False once the other side has closed.
    bool send(const std::string& bytes) {
        for (std::size_t sent = 0; sent < bytes.size();) {
            const ssize_t count = ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (count < 0) {
                return errno == EAGAIN;  // what was cut spoils the frames: enough for a guest of this kind
            }
            sent += static_cast<std::size_t>(count);
        }
        return true;
    }
    bool open() const {
        char bytes[256];
        ssize_t count = 0;
        do {
            count = recv(socket_, bytes, sizeof bytes, MSG_DONTWAIT);
        } while (count > 0);
        return count < 0 && errno == EAGAIN;
    }

    // Whether the system says how much came; an emulator answers all questions about TCP with an int.
    bool bytesAreCounted() const {
        tcp_info information{};
        socklen_t size = sizeof information;
        return getsockopt(socket_, IPPROTO_TCP, TCP_INFO, &information, &size) == 0 &&
               size > offsetof(tcp_info, tcpi_bytes_received);
    }

  private:
    int socket_;
};

struct Port {
    static constexpr uint64_t kBytes = 100'000;

    Port() {
        socket.bind("tcp://127.0.0.1:*");
        endpoint = socket.get(zmq::sockopt::last_endpoint);
    }

    zmq::context_t context;
    zmq::socket_t socket{context, zmq::socket_type::router};
    probelink::ConnectionLimit limit{context, socket, kBytes};
    std::string endpoint;
};

TEST(ConnectionLimit, ClosesAMessageWithoutEndAndLeavesARequestAlone) {
    Port port;
    Client endless(port.endpoint);
    if (!endless.bytesAreCounted()) {
        GTEST_SKIP() << "TCP_INFO is not given here";
    }
    endless.beginAsRequester();
    endless.awaitReady();
    zmq::socket_t probe(port.context, zmq::socket_type::req);
    probe.connect(port.endpoint);
    const std::string frame = '\x01' + std::string(1, '\xFF') + std::string(255, 'x');  // more follows
    std::size_t sent = 0;
    bool open = true;
    const auto until = std::chrono::steady_clock::now() + 20s;
    while (open && std::chrono::steady_clock::now() < until) {
        open = endless.send(frame);
        sent += frame.size();
        if (sent % (100 * frame.size()) == 0) {
            port.limit.enforce();
            std::this_thread::sleep_for(1ms);
        }
    }
    EXPECT_GT(sent, Port::kBytes);
    EXPECT_FALSE(open);
    probe.send(zmq::str_buffer("a request"));
    zmq::message_t part;
    const auto came = [&] {
        port.limit.enforce();
        return port.socket.recv(part, zmq::recv_flags::dontwait) && part.to_string() == "a request";
    };
    EXPECT_TRUE(test::eventually(came, 20s));
    probe.set(zmq::sockopt::linger, 0);
}

TEST(ConnectionLimit, KeepsTheNewestOfMany) {
    Port port;
    std::vector<std::unique_ptr<Client>> clients;
    for (std::size_t i = 0; i < probelink::ConnectionLimit::kConnections + 20; ++i) {
        clients.push_back(std::make_unique<Client>(port.endpoint));
        clients.back()->beginAsRequester();
    }
    const auto open = [&] {
        port.limit.enforce();
        return std::ranges::count_if(clients, [](const auto& client) { return client->open(); });
    };
    constexpr auto kKept = static_cast<long>(probelink::ConnectionLimit::kConnections);
    test::eventually([&] { return open() <= kKept; }, 20s);
    EXPECT_EQ(open(), kKept);
    EXPECT_FALSE(clients.front()->open());
    EXPECT_TRUE(clients.back()->open());
}

}  // namespace
