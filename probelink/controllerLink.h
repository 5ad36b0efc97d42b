// The controller's end of the probe's control link.
#pragma once

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "config.pb.h"
#include "connectionLimit.h"
#include "probeEndpoints.h"

namespace probelink {

// What ends the program with exit status 1; the text says it to the operator.
struct LinkError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Listens where the probe asks. The probe asks on a new connection every time, takes one answer per request
// and drops the connection after a time; so an answer has to be given soon, and a request may stay
// unanswered. For use by one thread.
class ControllerLink {
  public:
    // What a scan reports at once at most: the results of some 100,000 groups.
    static constexpr int kLargestRequest = 4 << 20;  // bytes
    // Requests of one asker that wait; a probe has one under way at a time.
    static constexpr int kWaitingRequests = 2;

    // Throws LinkError when another controller listens at the endpoint, a ZeroMQ address. Whoever sends a
    // frame of more bytes than `largestRequest` is disconnected before memory is taken for it, and soon who
    // sends more than twice as many in all, or is connected while ConnectionLimit::kConnections newer ones
    // are.
    explicit ControllerLink(const std::string& endpoint = kControllerEndpoint,
                            int largestRequest = kLargestRequest);

    // The probe's next request: one that it made while this link was open, so that an answer still finds it
    // waiting. Nothing when none came in time.
    std::optional<configuration::TasksRequest> waitForRequest(std::chrono::milliseconds timeout);

    // Whether the next request comes within that time; the one that waitForRequest returned stays answerable.
    bool asksAgainWithin(std::chrono::milliseconds time);

    // Answers the request that waitForRequest returned last; at most once a request. The destructor waits
    // until the answer has left.
    void answer(const configuration::ConfigurationMessage& message);

  private:
    // Frames in front of the body of a request: the connection's address and an empty one.
    using Envelope = std::vector<zmq::message_t>;
    std::optional<configuration::TasksRequest> receive();

    zmq::context_t context_{1};
    zmq::socket_t socket_{context_, zmq::socket_type::router};
    ConnectionLimit limit_;
    std::chrono::steady_clock::time_point open_;
    Envelope asker_;
};

}  // namespace probelink
