#include "controllerLink.h"

#include <algorithm>
#include <cerrno>
#include <zmq_addon.hpp>

namespace probelink {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds kFlushTime = 1s;
constexpr std::chrono::milliseconds kLooksAtConnections = 50ms;
// A connection that has not said by then that it speaks ZMTP is closed.
constexpr std::chrono::milliseconds kHandshakeTime = 2s;

// A connection attempt that failed while nobody listened is repeated after 100 to 200 ms. What arrives within
// this time may be a request whose asker is about to give up, and an answer to it would be lost unnoticed.
constexpr std::chrono::milliseconds kStaleRequests = 300ms;

}  // namespace

// A REP socket would have to answer each request before it hears the next; a router may leave one unanswered.
ControllerLink::ControllerLink(const std::string& endpoint, int largestRequest)
    : limit_(context_, socket_, 2 * static_cast<uint64_t>(largestRequest)) {
    socket_.set(zmq::sockopt::maxmsgsize, int64_t{largestRequest});
    socket_.set(zmq::sockopt::rcvhwm, kWaitingRequests);
    socket_.set(zmq::sockopt::handshake_ivl, static_cast<int>(kHandshakeTime.count()));
    socket_.set(zmq::sockopt::linger, static_cast<int>(kFlushTime.count()));
    try {
        socket_.bind(endpoint);
    } catch (const zmq::error_t& error) {
        throw LinkError("cannot listen at " + endpoint + ": " +
                        (error.num() == EADDRINUSE ? "another controller does" : error.what()));
    }
    open_ = std::chrono::steady_clock::now();
}

std::optional<configuration::TasksRequest> ControllerLink::waitForRequest(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (!asksAgainWithin(std::max(left, 0ms))) {
            return std::nullopt;
        }
        auto request = receive();
        if (request && std::chrono::steady_clock::now() - open_ > kStaleRequests) {
            return request;
        }
    }
}

bool ControllerLink::asksAgainWithin(std::chrono::milliseconds time) {
    const auto deadline = std::chrono::steady_clock::now() + time;
    for (;;) {
        limit_.enforce();
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        zmq::pollitem_t item = {socket_.handle(), 0, ZMQ_POLLIN, 0};
        if (zmq::poll(&item, 1, std::clamp(left, 0ms, kLooksAtConnections)) > 0) {
            return true;
        }
        if (left <= kLooksAtConnections) {
            return false;
        }
    }
}

// The request, or nothing when what came is none.
std::optional<configuration::TasksRequest> ControllerLink::receive() {
    asker_.clear();
    Envelope frames;
    static_cast<void>(zmq::recv_multipart(socket_, std::back_inserter(frames)));
    configuration::ConfigurationMessage message;
    if (frames.size() != 3 || frames[1].size() != 0 ||
        !message.ParseFromArray(frames[2].data(), static_cast<int>(frames[2].size())) ||
        !message.has_request()) {
        return std::nullopt;
    }
    frames.pop_back();
    asker_ = std::move(frames);
    return message.request();
}

void ControllerLink::answer(const configuration::ConfigurationMessage& message) {
    asker_.emplace_back(message.SerializeAsString());
    zmq::send_multipart(socket_, asker_);
    asker_.clear();
}

}  // namespace probelink
