#include "web/connection.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/rfc7230.hpp>

namespace station {

namespace {

namespace asio = boost::asio;
namespace http = boost::beast::http;
using ErrorCode = boost::system::error_code;

// The parser needs a whole head at once in the buffer.
constexpr std::size_t kBufferBytes = Server::kHeaderBytes + 4096;
constexpr std::size_t kReadBytes = 4096;
constexpr std::size_t kUnaskedBytes = std::size_t{256} << 10;

}  // namespace

Connection::Connection(Socket&& socket, ConnectionShared& shared, std::string address,
                       std::string localAddress)
    : socket_(std::move(socket)),
      shared_(shared),
      address_(std::move(address)),
      localAddress_(std::move(localAddress)),
      deadline_(std::chrono::steady_clock::now() + kRequestTime),
      buffer_(kBufferBytes) {}

Connection::~Connection() {
    givePlaylistBack();
    if (stream_) {
        --shared_.counters.streams;
    }
}

void Connection::start() {
    waitForRequest(kRequestTime);
}

void Connection::refuse() {
    keepAlive_ = false;
    Response response = problem(503, "Too many connections; try again in a moment");
    answerProblem(std::move(response));
}

void Connection::tick(SteadyTime now) {
    if (now >= deadline_ && phase_ == Phase::kHandling) {
        respond(exchange_, problem(503, "The station did not answer in time"));
    } else if (now >= deadline_ && phase_ == Phase::kReading && !tooLate_) {
        tooLate_ = true;
        setDeadline(kDrainTime);
        ErrorCode ignored;
        socket_.cancel(ignored);  // ends the reading, which answers 408
    } else if (now >= deadline_ && phase_ != Phase::kClosed) {
        if (phase_ == Phase::kWriting) {
            ++shared_.counters.slowClosed;
        }
        close();
    } else if (phase_ == Phase::kStreaming) {
        nextEvent();
    }
}

void Connection::makeRoom(SteadyTime now) {
    if (phase_ == Phase::kWriting && !stream_ && now >= writeLimit_ - kWholeTime + kPatience) {
        ++shared_.counters.slowClosed;
        close();
    }
}

void Connection::wake() {
    if (phase_ == Phase::kStreaming) {
        nextEvent();
    }
}

void Connection::close() {
    phase_ = Phase::kClosed;
    givePlaylistBack();
    ErrorCode ignored;
    socket_.close(ignored);
}

void Connection::setDeadline(std::chrono::seconds time) {
    deadline_ = std::chrono::steady_clock::now() + time;
}

void Connection::waitForRequest(std::chrono::seconds time) {
    phase_ = Phase::kIdle;
    if (buffer_.size() > 0) {  // sent ahead, behind the last one
        return readHead();
    }
    setDeadline(time);
    idleSince_ = std::chrono::steady_clock::now();
    socket_.async_wait(Socket::wait_read, [self = shared_from_this()](const ErrorCode& error) {
        if (error) {
            return self->close();
        }
        self->readHead();
    });
}

void Connection::readHead() {
    phase_ = Phase::kReading;
    setDeadline(kRequestTime);
    parser_.emplace();
    setLimits(*parser_);
    parseHead();
}

// Parses the head once it is whole, and waits for more until then.
void Connection::parseHead() {
    const auto bytes = buffer_.cdata();
    Head head = inspectHead({static_cast<const char*>(bytes.data()), bytes.size()});
    if (head.state == Head::State::kPartial) {
        const std::size_t room = std::min(buffer_.max_size() - buffer_.size(), kReadBytes);
        socket_.async_read_some(buffer_.prepare(room),
                                [self = shared_from_this()](const ErrorCode& error, std::size_t count) {
                                    if (error) {
                                        return self->readingFailed(error);
                                    }
                                    self->buffer_.commit(count);
                                    self->parseHead();
                                });
        return;
    }
    ErrorCode error;
    buffer_.consume(parser_->put(bytes, error));
    if (error) {
        return readingFailed(error);
    }
    auto refused = head.refusal ? std::move(head.refusal) : refuseFraming(parser_->get());
    if (refused) {
        ++shared_.counters.malformed;
        return answerProblem(std::move(*refused));
    }
    admitBody();
}

// Only who may change, and asks for an import, has more than a little read.
void Connection::admitBody() {
    request_ = toRequest(parser_->get());
    request_.localAddress = localAddress_;
    request_.address = address_;
    request_.unixSocket = localAddress_.empty();
    admission_ = shared_.router.admit(request_);
    const std::size_t limit = admission_->bodyLimit;
    const auto length = parser_->content_length();
    if (length && *length > limit) {
        ++shared_.counters.malformed;
        auto* refused = std::get_if<Response>(&admission_->found);
        return answerProblem(refused != nullptr ? std::move(*refused) : bodyTooLarge(limit));
    }
    const bool large = length ? *length > Server::kBodyBytes : parser_->chunked();
    if (limit > Server::kBodyBytes && large && !takePlaylist()) {
        return answerProblem(problem(503, "Other playlists are being imported; try again in a moment"));
    }
    parser_->body_limit(limit);
    readBody();
}

bool Connection::takePlaylist() {
    if (shared_.playlists >= Server::kPlaylists) {
        return false;
    }
    ++shared_.playlists;
    playlist_ = true;
    setDeadline(kPlaylistTime);
    return true;
}

void Connection::givePlaylistBack() {
    shared_.playlists -= playlist_ ? 1 : 0;
    playlist_ = false;
}

void Connection::readBody() {
    const auto expect = parser_->get()[http::field::expect];
    if (!expect.empty() && !parser_->is_done()) {
        if (!boost::beast::iequals(expect, "100-continue")) {
            return answerProblem(problem(417, "Expect takes 100-continue alone", "Expect"));
        }
        // Fits into the socket's buffer, which is empty; a client that does not get it sends the body anyway.
        constexpr std::string_view kContinue = "HTTP/1.1 100 Continue\r\n\r\n";
        ErrorCode ignored;
        socket_.write_some(asio::buffer(kContinue.data(), kContinue.size()), ignored);
    }
    http::async_read(socket_, buffer_, *parser_,
                     [self = shared_from_this()](const ErrorCode& error, std::size_t) {
                         if (error == http::error::body_limit) {
                             ++self->shared_.counters.malformed;
                             self->answerProblem(
                                 bodyTooLarge(self->playlist_ ? Server::kPlaylistBytes : Server::kBodyBytes));
                         } else if (error) {
                             self->readingFailed(error);
                         } else {
                             self->handleRequest();
                         }
                     });
}

void Connection::readingFailed(const ErrorCode& error) {
    if (phase_ == Phase::kClosed) {
        return;
    }
    if (tooLate_) {
        const auto time = playlist_ ? kPlaylistTime : kRequestTime;
        return answerProblem(
            problem(408, "The request was not whole within " + std::to_string(time.count()) + " s"));
    }
    auto refused = refuseMessage(error);
    if (!refused) {
        return close();
    }
    ++shared_.counters.malformed;
    answerProblem(std::move(*refused));
}

void Connection::handleRequest() {
    ++shared_.counters.requests;
    phase_ = Phase::kHandling;
    setDeadline(kAnswerTime);
    keepAlive_ = parser_->keep_alive() && !oneRequest_;
    request_.body = std::move(parser_->get().body());
    parser_.reset();
    const uint64_t exchange = ++exchange_;
    Router::Admission admission = std::move(*admission_);
    admission_.reset();
    shared_.router.handle(request_, std::move(admission),
                          [weak = weak_from_this(), exchange](Response&& response) {
                              if (const auto self = weak.lock()) {
                                  self->respond(exchange, std::move(response));
                              }
                          });
}

void Connection::answerProblem(Response&& response) {
    keepAlive_ = false;
    request_ = {};
    phase_ = Phase::kHandling;
    respond(++exchange_, std::move(response));
}

void Connection::respond(uint64_t exchange, Response&& response) {
    if (exchange != exchange_ || phase_ != Phase::kHandling) {
        return;
    }
    ++exchange_;  // one answer a request
    if (response.eventStream && oneRequest_) {
        ++shared_.counters.refused;
        response = problem(503, "Too many connections for another event stream; try again in a moment");
    }
    keepAlive_ = keepAlive_ && !response.eventStream;
    adapt(request_, response);
    const PayloadPointer payload = response.body;
    const std::string_view body = payload == nullptr    ? std::string_view()
                                  : response.compressed ? payload->gzip()
                                                        : payload->text();
    const auto head = std::make_shared<const std::string>(responseHead(response, body, keepAlive_));
    if (response.eventStream && request_.method != Method::kHead) {
        becomeStream(response.compressed);
    }
    phase_ = Phase::kWriting;
    writeLimit_ = std::chrono::steady_clock::now() + kWholeTime;
    std::vector<Part> parts = {{head, *head}};
    if (request_.method != Method::kHead && !body.empty()) {
        parts.push_back({payload, body});
    }
    send(std::move(parts));
}

void Connection::send(std::vector<Part> parts) {
    parts_ = std::move(parts);
    sent_ = 0;
    setDeadline(kProgressTime);
    phase_ = Phase::kWriting;
    writeSome();
}

void Connection::writeSome() {
    std::array<asio::const_buffer, 2> buffers;
    std::size_t skip = sent_;
    std::size_t count = 0;
    for (const auto& part : parts_) {
        const std::string_view left = part.bytes.substr(std::min(skip, part.bytes.size()));
        skip -= part.bytes.size() - left.size();
        if (!left.empty()) {
            buffers.at(count++) = asio::buffer(left.data(), left.size());
        }
    }
    if (count == 0) {
        return written();
    }
    socket_.async_write_some(buffers, [self = shared_from_this()](const ErrorCode& error, std::size_t bytes) {
        if (error) {
            return self->close();
        }
        self->sent_ += bytes;
        const auto progress = std::chrono::steady_clock::now() + kProgressTime;
        self->deadline_ = self->stream_ ? progress : std::min(progress, self->writeLimit_);
        self->writeSome();
    });
}

void Connection::written() {
    parts_.clear();
    if (phase_ == Phase::kClosed) {
        return;
    }
    givePlaylistBack();
    if (stream_) {
        phase_ = Phase::kStreaming;
        deadline_ = SteadyTime::max();
        nextEvent();
    } else if (keepAlive_) {
        request_ = {};
        waitForRequest(kIdleTime);
    } else {
        drain();
    }
}

// What the client still sends is read for a moment: closing on it would make the kernel take the answer back.
void Connection::drain() {
    if (phase_ != Phase::kDraining) {
        phase_ = Phase::kDraining;
        setDeadline(kDrainTime);
        ErrorCode ignored;
        socket_.shutdown(Socket::shutdown_send, ignored);
    }
    socket_.async_read_some(asio::buffer(scratch_),
                            [self = shared_from_this()](const ErrorCode& error, std::size_t bytes) {
                                self->received_ += bytes;
                                if (error || self->received_ > kUnaskedBytes) {
                                    return self->close();
                                }
                                self->drain();
                            });
}

void Connection::becomeStream(bool compressed) {
    ++shared_.counters.streams;
    stream_.emplace();
    streamCompressed_ = compressed;
    shared_.refreshEvents();
    watchStream();
}

void Connection::nextEvent() {
    const PayloadPointer payload = shared_.events.next(*stream_, std::chrono::steady_clock::now());
    if (payload != nullptr) {
        send({{payload, streamCompressed_ ? payload->gzip() : payload->text()}});
    }
}

// Nothing is expected from a stream's client but its end.
void Connection::watchStream() {
    socket_.async_read_some(asio::buffer(scratch_),
                            [self = shared_from_this()](const ErrorCode& error, std::size_t bytes) {
                                self->received_ += bytes;
                                if (error || self->received_ > kUnaskedBytes) {
                                    return self->close();
                                }
                                self->watchStream();
                            });
}

}  // namespace station
