#include "connectionLimit.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>
#include <string>

namespace probelink {

namespace {

constexpr const char* kEvents = "inproc://connections";

// Of a TCP address; nothing of another one.
std::optional<uint16_t> portOf(const std::string& endpoint) {
    uint16_t port = 0;
    const auto colon = endpoint.rfind(':') + 1;
    const auto [end, error] =
        std::from_chars(endpoint.data() + colon, endpoint.data() + endpoint.size(), port);
    const bool whole = error == std::errc() && *end == '\0';
    return endpoint.starts_with("tcp://") && whole ? std::optional(port) : std::nullopt;
}

uint16_t ownPort(int descriptor) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return 0;
    }
    if (address.ss_family == AF_INET) {
        return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
    }
    return address.ss_family == AF_INET6 ? ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port)
                                         : uint16_t{0};
}

uint64_t bytesReceived(int descriptor) {
    tcp_info information{};
    socklen_t size = sizeof information;
    return getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &information, &size) == 0
               ? information.tcpi_bytes_received
               : 0;
}

}  // namespace

ConnectionLimit::ConnectionLimit(zmq::context_t& context, zmq::socket_t& socket, uint64_t bytes)
    : socket_(socket), events_(context, zmq::socket_type::pair), bytes_(bytes) {
    events_.set(zmq::sockopt::linger, 0);
    events_.set(zmq::sockopt::rcvhwm, 0);  // the thread that tells would wait for room, and all else with it
    if (zmq_socket_monitor(socket.handle(), kEvents, ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_DISCONNECTED) != 0) {
        throw zmq::error_t();
    }
    events_.connect(kEvents);
}

// Nobody may tell any more before nobody listens: whoever tells waits for a listener.
ConnectionLimit::~ConnectionLimit() {
    zmq_socket_monitor(socket_.handle(), nullptr, 0);
}

void ConnectionLimit::takeEvents() {
    struct {
        uint16_t event;
        uint32_t value;  // the connection's descriptor
    } message{};
    zmq::message_t frame;
    while (events_.recv(frame, zmq::recv_flags::dontwait)) {
        constexpr std::size_t kSize = sizeof message.event + sizeof message.value;
        if (frame.size() == kSize && frame.more()) {
            std::memcpy(&message.event, frame.data(), sizeof message.event);
            std::memcpy(&message.value, frame.data<char>() + sizeof message.event, sizeof message.value);
            const auto descriptor = static_cast<int>(message.value);
            std::erase(connections_, descriptor);
            if (message.event == ZMQ_EVENT_ACCEPTED) {
                connections_.push_back(descriptor);
            }
        }
        while (frame.more() && events_.recv(frame, zmq::recv_flags::dontwait)) {
        }
    }
}

void ConnectionLimit::enforce() {
    takeEvents();
    if (connections_.empty()) {
        return;
    }
    // A connection may be closed already, and its number another one's: only those of this port are touched.
    const std::optional<uint16_t> port = portOf(socket_.get(zmq::sockopt::last_endpoint));
    std::erase_if(connections_, [&](int descriptor) { return !port || ownPort(descriptor) != *port; });
    std::size_t tooMany = connections_.size() - std::min(connections_.size(), kConnections);
    std::erase_if(connections_, [&](int descriptor) {
        const bool beyond = tooMany > 0 || bytesReceived(descriptor) > bytes_;
        tooMany -= tooMany > 0 ? 1 : 0;
        if (beyond) {
            shutdown(descriptor, SHUT_RDWR);  // ZeroMQ finds it ended, and frees what it brought
        }
        return beyond;
    });
}

}  // namespace probelink
