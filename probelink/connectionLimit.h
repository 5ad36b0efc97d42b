// A bound for those who connect to the controller's port.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>
#include <zmq.hpp>

namespace probelink {

// ZeroMQ gives a message out once its last frame came and keeps the frames until then, however many they are:
// anybody on this machine could have it take all memory. A probe asks on a new connection every time, so that
// one which brings far more than a request is no probe's, nor are dozens at a time. For the thread that uses
// the socket.
class ConnectionLimit {
  public:
    static constexpr std::size_t kConnections = 64;  // beyond, the oldest is closed

    // Watches who connects to `socket` once it is bound to a TCP address; those of others (ipc://) are left
    // alone. `bytes`: what a connection may bring. REQUIRES: the socket is not bound yet.
    ConnectionLimit(zmq::context_t& context, zmq::socket_t& socket, uint64_t bytes);
    ~ConnectionLimit();
    ConnectionLimit(const ConnectionLimit&) = delete;

    // Closes what is beyond the bounds. To be called several times a second.
    void enforce();
    // Whether anybody is connected, so that enforce() has something to look after.
    bool needed() const {
        return !connections_.empty();
    }

  private:
    void takeEvents();

    zmq::socket_t& socket_;
    zmq::socket_t events_;
    const uint64_t bytes_;
    std::vector<int> connections_;  // their descriptors, which ZeroMQ closes; the oldest first
};

}  // namespace probelink
