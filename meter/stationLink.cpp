#include "stationLink.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace meterd {

namespace {

constexpr std::size_t kReadBytes = 65536;

int64_t nowMs() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
}

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
    unframer_ = {};
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
    agreed_ = false;
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
        unframer_.add({bytes.data(), static_cast<std::size_t>(count)});
        while (const auto text = unframer_.next()) {
            metering::FromStation message;
            if (!message.ParseFromArray(text->data(), static_cast<int>(text->size()))) {
                throw std::runtime_error("a message that cannot be read");
            }
            take(message);
            if (socket_ < 0) {
                return;
            }
        }
    } catch (const std::exception& error) {
        disconnect(std::string("the station sent ") + error.what());
    }
}

void StationLink::take(const metering::FromStation& message) {
    if (message.has_hello()) {
        if (message.hello().major() != metering::kMajor) {
            disconnect("the station (" + message.hello().version() + ") speaks version " +
                       std::to_string(message.hello().major()) + " of the messages, this meter (" + version_ +
                       ") " + std::to_string(metering::kMajor) + ": install both from one release");
            nextConnect_ = nowMs() + kRefusedMs;
            return;
        }
        agreed_ = true;
        outbox_.open();
        handlers_.connected();
        tell("connected to the station " + message.hello().version());
    } else if (message.has_refused()) {
        disconnect("the station refuses this meter: " + message.refused().reason());
        nextConnect_ = nowMs() + kRefusedMs;
    } else if (message.has_groups() && agreed_) {
        handlers_.groups(message.groups());
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
