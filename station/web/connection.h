// One client's connection. Includes Asio and Beast: for server.cpp and connection.cpp alone.
#pragma once

#include <array>
#include <atomic>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "web/eventStream.h"
#include "web/httpParser.h"
#include "web/routes.h"
#include "web/server.h"

namespace station {

using Socket = boost::asio::generic::stream_protocol::socket;

// Read from any thread, written by the I/O thread.
struct ServerCounters {
    std::atomic<uint64_t> connections{0};
    std::atomic<uint64_t> streams{0};
    std::atomic<uint64_t> requests{0};
    std::atomic<uint64_t> refused{0};
    std::atomic<uint64_t> madeRoom{0};
    std::atomic<uint64_t> wrongTokens{0};
    std::atomic<uint64_t> malformed{0};
    std::atomic<uint64_t> slowClosed{0};
};

// What all connections share; outlives them.
struct ConnectionShared {
    Router& router;
    EventStream& events;
    ServerCounters& counters;
    std::function<void()> refreshEvents;  // makes the events those of the newest state
    std::size_t playlists = 0;            // requests above Server::kBodyBytes that are not answered yet
};

// Reads requests one after the other, has them answered and writes the answers; or becomes an event stream.
// It lives by the operations that wait on its socket, and ends with them: close() ends them all. For the I/O
// thread.
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    static constexpr std::chrono::seconds kRequestTime{5};    // from the first byte of a request to its last
    static constexpr std::chrono::seconds kPlaylistTime{60};  // the same for one with a playlist
    static constexpr std::chrono::seconds kIdleTime{30};      // between requests
    static constexpr std::chrono::seconds kAnswerTime{10};    // for the rest of the station to answer
    static constexpr std::chrono::seconds kProgressTime{10};  // for a client to take any byte
    static constexpr std::chrono::seconds kWholeTime{60};     // for a client to take a whole answer
    static constexpr std::chrono::seconds kPatience{5};  // likewise, while the answers' budget is used up
    // For what a client still sends after the last answer.
    static constexpr std::chrono::seconds kDrainTime{1};
    // What the kernel may keep for a client (it takes twice that): by default it would be megabytes.
    static constexpr int kSendBuffer = 128 * 1024;

    // `address` is that of a TCP client, or empty.
    Connection(Socket&& socket, ConnectionShared& shared, std::string address, std::string localAddress);
    ~Connection();
    Connection(const Connection&) = delete;

    void start();
    // Closes after one answer, and becomes no stream. To be called before start().
    void takeOneRequest() {
        oneRequest_ = true;
    }
    // Answers 503 at once and closes, for a client beyond the limits.
    void refuse();
    // Closes when its time is over, and sends a stream's comments. About four times a second.
    void tick(SteadyTime now);
    // Closes when its client has been taking an answer for kPatience: there is no room for others' answers.
    void makeRoom(SteadyTime now);
    // There are new events.
    void wake();
    void close();

    bool closed() const {
        return phase_ == Phase::kClosed;
    }
    const std::string& address() const {
        return address_;
    }
    // Whether it was answered, is open for another request, and nothing of one came yet.
    bool isKept() const {
        boost::system::error_code error;
        return phase_ == Phase::kIdle && exchange_ > 0 && socket_.available(error) == 0 && !error;
    }
    SteadyTime idleSince() const {
        return idleSince_;
    }

  private:
    void waitForRequest(std::chrono::seconds time);
    void readHead();
    void admitBody();
    bool takePlaylist();
    void givePlaylistBack();
    void parseHead();
    void readBody();
    void handleRequest();
    void answerProblem(Response&& response);
    void respond(uint64_t exchange, Response&& response);
    // A piece of an answer, and what keeps it.
    struct Part {
        std::shared_ptr<const void> owner;
        std::string_view bytes;
    };
    void send(std::vector<Part> parts);
    void writeSome();
    void written();
    void drain();
    void becomeStream(bool compressed);
    void nextEvent();
    void watchStream();
    void readingFailed(const boost::system::error_code& error);
    void setDeadline(std::chrono::seconds time);

    enum class Phase : uint8_t { kIdle, kReading, kHandling, kWriting, kStreaming, kDraining, kClosed };

    Socket socket_;
    ConnectionShared& shared_;
    const std::string address_;
    const std::string localAddress_;
    Phase phase_ = Phase::kIdle;
    SteadyTime deadline_;
    SteadyTime writeLimit_;  // for the whole answer, whatever progress there is

    boost::beast::flat_buffer buffer_;
    std::optional<HttpParser> parser_;
    Request request_;
    std::optional<Router::Admission> admission_;  // of request_, until it is handled
    uint64_t exchange_ = 0;  // number of the request: a late answer to an earlier one is dropped
    bool keepAlive_ = false;
    bool playlist_ = false;  // counts in shared_.playlists
    bool oneRequest_ = false;
    bool tooLate_ = false;  // the request was not whole in time
    SteadyTime idleSince_;

    std::vector<Part> parts_;  // being written
    std::size_t sent_ = 0;     // bytes of them

    std::optional<EventStream::Client> stream_;
    bool streamCompressed_ = false;
    std::array<char, 512> scratch_{};
    std::size_t received_ = 0;  // bytes nobody asked for
};

}  // namespace station
