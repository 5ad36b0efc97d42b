#include "support/harness.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "recordColumns.h"
#include "support/streamBuilder.h"

namespace test {
namespace {

constexpr const char* kEndpoint = "tcp://127.0.0.1:5999";
constexpr const char* kResultsPipe = "/tmp/american_maid";
constexpr const char* kNetworkEnd = "feed0";

bool fileHas(const char* path, const char* text) {
    std::ifstream file(path);
    const std::string all((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return all.find(text) != std::string::npos;
}

// Where a record has the column of that name; behind its end if nowhere.
std::size_t columnIndex(const std::vector<std::string>& record, std::string_view name) {
    const auto kind =
        std::ranges::find(records::kKinds, record.at(records::kLabelColumn), &records::KindName::label);
    if (kind == records::kKinds.end())
        return record.size();
    const auto known = records::columnsOf(kind->kind);
    const auto column = std::ranges::find(known, name, &records::Column::name);
    return column == known.end() ? record.size() : static_cast<std::size_t>(column - known.begin());
}

}  // namespace

Envelope response(const Groups& append, const Groups& remove) {
    Envelope envelope;
    envelope.mutable_response();
    for (const std::string& group : remove)
        envelope.mutable_response()->add_remove()->set_multicastgroup(group);
    for (const std::string& group : append)
        envelope.mutable_response()->add_append()->set_multicastgroup(group);
    return envelope;
}

Envelope clearAll(bool value) {
    Envelope envelope;
    envelope.mutable_clear()->set_clearall(value);
    return envelope;
}

zmq::socket_t Controller::bound(zmq::context_t& context) {
    zmq::socket_t socket(context, ZMQ_ROUTER);
    socket.set(zmq::sockopt::router_mandatory, 1);  // what cannot be said is an error
    socket.set(zmq::sockopt::linger, 0);
    socket.set(zmq::sockopt::rcvtimeo, 20);
    socket.bind(kEndpoint);
    return socket;
}

void Controller::serve(const std::stop_token& stop) {
    while (!stop.stop_requested()) {
        zmq::message_t connection;
        zmq::message_t delimiter;
        zmq::message_t body;
        if (!socket_.recv(connection) || !socket_.recv(delimiter) || !socket_.recv(body))
            continue;
        Envelope envelope;
        EXPECT_TRUE(envelope.ParseFromArray(body.data(), static_cast<int>(body.size())));
        EXPECT_TRUE(envelope.has_request() && !envelope.has_response() && !envelope.has_clear());
        std::optional<Answer> answer;
        {
            const std::lock_guard guard(mutex_);
            requests_.push_back(
                {std::chrono::steady_clock::now(), connection.to_string(), envelope.request()});
            if (!answers_.empty())
                answer = answers_.front();
        }
        const bool said = say(connection, answer.value_or(response({})));
        const std::lock_guard guard(mutex_);
        if (answer && (said || answer->late))
            answers_.pop_front();
    }
}

// False when the connection is closed already: the probe waits for 500 ms.
bool Controller::say(const zmq::message_t& connection, const Answer& answer) {
    if (answer.late) {
        zmq::pollitem_t next{socket_.handle(), 0, ZMQ_POLLIN, 0};
        zmq::poll(&next, 1, kPatience);
    }
    try {
        for (int i = 0; i < answer.times; ++i) {
            socket_.send(zmq::buffer(connection.to_string_view()), zmq::send_flags::sndmore);
            socket_.send(zmq::message_t(), zmq::send_flags::sndmore);
            socket_.send(zmq::buffer(answer.bytes));
        }
        return true;
    } catch (const zmq::error_t& error) {
        EXPECT_EQ(error.num(), EHOSTUNREACH) << error.what();
        return false;
    }
}

std::vector<Controller::Request> Controller::requests() const {
    const std::lock_guard guard(mutex_);
    return requests_;
}

bool Controller::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
    return eventually([&] { return requests().size() >= count; }, timeout);
}

void Controller::queue(const Answer& answer) {
    const std::lock_guard guard(mutex_);
    answers_.push_back(answer);
}

void Controller::answer(const Answer& answer) {
    queue(answer);
    EXPECT_TRUE(eventually([this] {
        const std::lock_guard guard(mutex_);
        return answers_.empty();
    })) << "the probe asks no more";
}

FrameSender::FrameSender() : socket_(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = static_cast<int>(if_nametoindex(kNetworkEnd));
    EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << strerror(errno);
}

FrameSender::~FrameSender() {
    close(socket_);
}

void FrameSender::send(const Bytes& frame) const {
    EXPECT_EQ(::send(socket_, frame.data(), frame.size(), 0), static_cast<ssize_t>(frame.size()))
        << strerror(errno);
}

void FrameSender::send(UdpFlow& flow, const std::vector<Bytes>& datagrams) const {
    for (const Bytes& datagram : datagrams)
        send(flow.frame(datagram));
}

std::jthread liveTraffic(const std::string& group, bool nullAlone) {
    return std::jthread([=](const std::stop_token& stop) {
        setpriority(PRIO_PROCESS, 0, -10);  // of this thread: a pause of a second is a fault
        const FrameSender network;
        TsStream stream;
        for (UdpFlow flow{.group = group}; !stop.stop_requested(); std::this_thread::sleep_for(10ms))
            network.send(flow, (nullAlone ? stream : stream.pat({})).null(6).takeDatagrams());
    });
}

std::string Record::operator[](std::string_view name) const {
    const auto index = columnIndex(columns, name);
    return index < columns.size() ? columns[index] : "";
}

std::string Record::values(std::initializer_list<std::string_view> names) const {
    std::string text;
    for (const std::string_view name : names)
        text += (text.empty() ? "" : " ") + (*this)[name];
    return text;
}

std::string Record::textWithout(std::initializer_list<std::string_view> names) const {
    std::vector<std::string> shown = columns;
    for (const std::string_view name : names)
        if (const auto index = columnIndex(columns, name); index < shown.size())
            shown[index] = "*";
    std::string text = shown.front();
    for (std::size_t i = 1; i < shown.size(); ++i)
        text += ";" + shown[i];
    return text;
}

const Record& Snapshot::find(const std::string& group, const std::string& label, int pid) const {
    for (const Record& record : records)
        if (record.columns[0] == group && record.columns[records::kLabelColumn] == label &&
            record.columns[2] == std::to_string(pid))
            return record;
    throw std::runtime_error("no record " + group + " " + label + " " + std::to_string(pid));
}

std::size_t Snapshot::count(const std::string& group, const std::string& label) const {
    return static_cast<std::size_t>(std::ranges::count_if(records, [&](const Record& record) {
        return record.columns[0] == group && record.columns[records::kLabelColumn] == label;
    }));
}

std::vector<Snapshot> parseSnapshots(const std::string& text) {
    std::vector<Snapshot> snapshots(1);
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty()) {
            snapshots.emplace_back();
            continue;
        }
        Record record;
        std::istringstream columns(line);
        for (std::string column; std::getline(columns, column, ';');)
            record.columns.push_back(column);
        record.columns.resize(std::max<std::size_t>(record.columns.size(), 4));
        snapshots.back().records.push_back(std::move(record));
    }
    if (text.ends_with("\n\n"))
        snapshots.pop_back();
    return snapshots;
}

Snapshot nextSnapshot() {
    Process reader({"timeout", "15", "cat", kResultsPipe});
    EXPECT_EQ(reader.wait(20s), 0) << "no results pipe, or nobody writes to it";
    const std::string text = reader.out();
    EXPECT_TRUE(text.empty() || text.ends_with("\n")) << "a snapshot ends within a line";
    Snapshot snapshot = parseSnapshots(text).front();
    // A reader that was slow to see the end has got the next one as well, which begins with the same channel.
    if (std::vector<Record>& all = snapshot.records; !all.empty())
        all.erase(std::find_if(
                      all.begin() + 1, all.end(),
                      [&](const Record& record) {
                          return record.values({"group", "label"}) == all.front().values({"group", "label"});
                      }),
                  all.end());
    return snapshot;
}

Snapshot snapshotWith(const std::function<bool(const Snapshot&)>& condition) {
    Snapshot snapshot;
    EXPECT_TRUE(eventually([&] {
        snapshot = nextSnapshot();
        return condition(snapshot);
    })) << "no such snapshot; the last one has "
        << snapshot.records.size() << " records";
    return snapshot;
}

Snapshot snapshotWithPackets(const std::string& group, std::size_t packets) {
    return snapshotWith([&](const Snapshot& s) {
        return s.count(group) == 1 && s.find(group)["packetsReceived"] == std::to_string(packets);
    });
}

bool igmpMember(const std::string& group) {
    // The kernel prints the address as it lies in memory.
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "%08X ", inet_addr(group.c_str()));
    return fileHas("/proc/net/igmp", text.data());
}

bool filterAdmits(const std::string& group) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "01005e%06x", ntohl(inet_addr(group.c_str())) & 0x7FFFFF);
    return fileHas("/proc/net/dev_mcast", text.data());
}

bool capturing() {
    Process sockets({"ss", "--packet", "--bpf", "--no-header"});
    EXPECT_EQ(sockets.wait(), 0);
    const std::string text = sockets.out();
    // While the capture's own filter is being put in place, one of a single instruction holds everything
    // back.
    return occurrences(text, "bpf filter (") > occurrences(text, "bpf filter (1)");
}

Probe::Probe(const Groups& groups) {
    EXPECT_TRUE(kestor.waitForOut("listening on"));
    EXPECT_TRUE(eventually(capturing));
    if (groups.empty())
        return;
    controller.answer(response(groups));
    // The join comes last of all that an added channel takes.
    EXPECT_TRUE(eventually([&] { return igmpMember(groups.back()); }));
}

}  // namespace test
