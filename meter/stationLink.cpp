#include "stationLink.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "clocks.h"

namespace meterd {

namespace {

constexpr std::size_t kReadBytes = 65536;

}  // namespace

StationLink::StationLink(std::string path, std::string version, Outbox& outbox, Handlers handlers)
    : path_(std::move(path)), version_(std::move(version)), outbox_(outbox), handlers_(std::move(handlers)) {
    metering::quietParser();
    hello_.set_major(metering::kMajor);
    hello_.set_minor(metering::kMinor);
    hello_.set_version(version_);
}

StationLink::~StationLink() {
    if (socket_ >= 0) {
        close(socket_);
    }
}

void StationLink::tell(const std::string& text) {
    if (text != told_) {
        fprintf(stderr, "%s\n", text.c_str());
        told_ = text;
    }
}

void StationLink::connect() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path) {
        tell(path_ + ": too long for a socket's path");
        nextConnect_ = nowMs() + kRefusedMs;
        return;
    }
    std::memcpy(address.sun_path, path_.data(), path_.size());
    socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socket_ < 0 || ::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        disconnect("no station at " + path_ + ": " + std::strerror(errno) + "; trying again each second");
        return;
    }
    connectedAt_ = nowMs();
    session_.emplace(version_, StationSession::Handlers{[this](const std::string& station) {
                                                            outbox_.open();
                                                            handlers_.connected();
                                                            tell("connected to the station " + station);
                                                        },
                                                        handlers_.groups});
    metering::FromMeter message;
    *message.mutable_hello() = hello_;
    writing_ = metering::framed(message);
    written_ = 0;
}

void StationLink::disconnect(const std::string& why) {
    if (socket_ >= 0) {
        close(socket_);
    }
    socket_ = -1;
    outbox_.close();
    writing_.clear();
    nextConnect_ = nowMs() + kReconnectMs;
    tell(why);
}

void StationLink::serve(int milliseconds) {
    if (socket_ < 0 && nowMs() >= nextConnect_) {
        connect();
    }
    if (socket_ < 0) {
        usleep(static_cast<useconds_t>(
            std::min<int64_t>(milliseconds, std::max<int64_t>(1, nextConnect_ - nowMs())) * 1000));
        return;
    }
    if (!session_->agreed() && nowMs() - connectedAt_ > kHelloMs) {
        disconnect("what listens at " + path_ + " did not say who it is within " +
                   std::to_string(kHelloMs / 1000) + " s: no station, or one that hangs; trying again");
        return;
    }
    const bool blocked = !writing_.empty();
    std::array<pollfd, 2> polls{{{socket_, static_cast<short>(POLLIN | (blocked ? POLLOUT : 0)), 0},
                                 {blocked ? -1 : outbox_.descriptor(), POLLIN, 0}}};
    if (poll(polls.data(), polls.size(), milliseconds) <= 0) {
        return;
    }
    if ((polls[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        readAll();
    }
    if (socket_ >= 0) {
        write();
    }
}

void StationLink::readAll() {
    std::array<char, kReadBytes> bytes;
    const ssize_t count = recv(socket_, bytes.data(), bytes.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (count <= 0) {
        disconnect("the station went away" + (count < 0 ? std::string(": ") + std::strerror(errno) : ""));
        return;
    }
    try {
        session_->received({bytes.data(), static_cast<std::size_t>(count)});
    } catch (const StationLost& lost) {
        disconnect(lost.what());
        if (lost.refused) {
            nextConnect_ = nowMs() + kRefusedMs;
        }
    }
}

void StationLink::write() {
    for (;;) {
        if (writing_.empty()) {
            writing_ = outbox_.pop();
            written_ = 0;
            if (writing_.empty()) {
                return;
            }
        }
        const ssize_t count =
            send(socket_, writing_.data() + written_, writing_.size() - written_, MSG_NOSIGNAL);
        if (count < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                disconnect(std::string("the station went away: ") + std::strerror(errno));
            }
            return;
        }
        written_ += static_cast<std::size_t>(count);
        if (written_ == writing_.size()) {
            writing_.clear();
        }
    }
}

}  // namespace meterd
