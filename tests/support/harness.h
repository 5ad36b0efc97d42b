// The world around the probe in an end-to-end test: its controller, its network, the reader of its records.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <initializer_list>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>
#include <zmq.hpp>

#include "config.pb.h"
#include "support/frameBuilder.h"
#include "support/process.h"

namespace test {

using Envelope = configuration::ConfigurationMessage;
using Groups = std::vector<std::string>;

// A response that lists groups.
Envelope response(const Groups& append, const Groups& remove = {});
Envelope clearAll(bool value = true);

// Listens at the probe's control endpoint and answers each request at once, with an empty response unless the
// test gave it something else to say. What was too late for the probe is said at its next request.
class Controller {
  public:
    struct Request {
        std::chrono::steady_clock::time_point time;
        std::string connection;  // differs from connection to connection
        configuration::TasksRequest body;
    };
    struct Answer {
        Answer(const Envelope& envelope) : bytes(envelope.SerializePartialAsString()) {}
        Answer(std::string text) : bytes(std::move(text)) {}

        std::string bytes;
        bool late = false;  // said when the probe has asked anew, on a connection that it has closed
        int times = 1;
    };

    std::vector<Request> requests() const;
    // False when so many did not come within the time.
    bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout = kPatience) const;
    // Has this said at the next request that has no other answer yet.
    void queue(const Answer& answer);
    // The same, and returns when it was said.
    void answer(const Answer& answer);

  private:
    static zmq::socket_t bound(zmq::context_t& context);
    void serve(const std::stop_token& stop);
    bool say(const zmq::message_t& connection, const Answer& answer);

    mutable std::mutex mutex_;  // guards requests_ and answers_
    std::vector<Request> requests_;
    std::deque<Answer> answers_;
    zmq::context_t context_;
    zmq::socket_t socket_ = bound(context_);
    std::jthread server_{[this](const std::stop_token& stop) { serve(stop); }};
};

// Puts raw Ethernet frames onto the network's end of the link.
class FrameSender {
  public:
    FrameSender();
    ~FrameSender();
    FrameSender(const FrameSender&) = delete;
    void send(const Bytes& frame) const;
    void send(UdpFlow& flow, const std::vector<Bytes>& datagrams) const;

  private:
    int socket_;
};

// Sends the group a datagram without faults, or one of null packets alone, every 10 ms until the thread is
// asked to stop.
std::jthread liveTraffic(const std::string& group, bool nullAlone = false);

// One line of the results.
struct Record {
    std::vector<std::string> columns;

    // The column with that name (recordColumns.h), or nothing.
    std::string operator[](std::string_view name) const;
    // Several, for a comparison at a glance: "7 0 0".
    std::string values(std::initializer_list<std::string_view> names) const;
    // The line, with a "*" in place of these columns.
    std::string textWithout(std::initializer_list<std::string_view> names) const;
};

struct Snapshot {
    std::vector<Record> records;

    // The first record of a group with this label and PID; the test fails if there is none.
    const Record& find(const std::string& group, const std::string& label = "-1", int pid = -1) const;
    std::size_t count(const std::string& group, const std::string& label = "-1") const;
};

std::vector<Snapshot> parseSnapshots(const std::string& text);
// Reads the pipe from one opening to its end. The pipe has a reader only during the call.
Snapshot nextSnapshot();
// The first snapshot for which the condition holds; fails the test if there is none in time.
Snapshot snapshotWith(const std::function<bool(const Snapshot&)>& condition);
// The first one that says so many packets of the group were received.
Snapshot snapshotWithPackets(const std::string& group, std::size_t packets);

// Whether the host is a member of the group on eth0, and whether eth0's receive filter lets it in.
bool igmpMember(const std::string& group);
bool filterAdmits(const std::string& group);
// Whether somebody captures frames with a filter in place: "listening on" is printed before it is.
bool capturing();

// The probe in monitoring mode with its controller and network, once it monitors the groups.
struct Probe {
    explicit Probe(const Groups& groups = {});

    Controller controller;
    FrameSender network;
    Process kestor{{"kestor", "-s"}};
};

}  // namespace test
