#include "pictureLink.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <system_error>
#include <utility>

#include "clocks.h"

namespace meterd {

namespace {

constexpr std::size_t kWantedBytes = 4096;  // read at once

}  // namespace

PictureLink::PictureLink(std::string path, std::string version, Hand hand)
    : path_(std::move(path)),
      hand_(std::move(hand)),
      wake_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      session_(std::move(version), [this](uint32_t group, uint64_t ticket, bool audio) {
          hand_({group, ticket, audio, [this](ExcerptTaken&& taken) {
                     {
                         const std::lock_guard lock(mutex_);
                         taken_.push_back(std::move(taken));
                     }
                     eventfd_write(wake_, 1);
                 }});
      }) {
    if (wake_ < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

PictureLink::~PictureLink() {
    close(wake_);
    if (socket_ >= 0) {
        close(socket_);
    }
}

void PictureLink::tell(const std::string& text) {
    if (text != last_) {
        fprintf(stderr, "%s\n", text.c_str());
        last_ = text;
    }
}

void PictureLink::connect() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    nextConnect_ = nowMs() + kReconnectMs;
    if (path_.size() >= sizeof address.sun_path) {
        tell(path_ + ": too long for a socket's path");
        nextConnect_ = nowMs() + kLostMs;
        return;
    }
    std::memcpy(address.sun_path, path_.data(), path_.size());
    socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socket_ < 0 || ::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        // Most machines have no kestor-picture: that is no news.
        disconnect(error == ENOENT || error == ECONNREFUSED
                       ? ""
                       : "no pictures: " + path_ + ": " + std::strerror(error) +
                             "; trying again each second");
        return;
    }
    told_ = false;
    written_ = 0;
    progress_ = nowMs();
    session_.connected();
}

void PictureLink::disconnect(const std::string& why) {
    if (socket_ >= 0) {
        close(socket_);
    }
    socket_ = -1;
    session_.disconnected();
    nextConnect_ = nowMs() + kReconnectMs;
    if (!why.empty()) {
        tell(why);
    }
}

void PictureLink::serve(int milliseconds) {
    if (socket_ < 0 && nowMs() >= nextConnect_) {
        connect();
    }
    std::array<pollfd, 2> polls{
        {{wake_, POLLIN, 0},
         {socket_, static_cast<short>(POLLIN | (session_.front().empty() ? 0 : POLLOUT)), 0}}};
    poll(polls.data(), polls.size(), milliseconds);
    if ((polls[0].revents & POLLIN) != 0) {
        takeExcerpts();
    }
    session_.expire(nowMs());
    if (socket_ >= 0 && (polls[1].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        readAll();
    }
    if (socket_ >= 0) {
        write();
    }
    if (socket_ >= 0 && (!session_.agreed() || !session_.front().empty()) &&
        nowMs() - progress_ > kStalledMs) {
        disconnect("kestor-picture at " + path_ + " hangs: it takes nothing; connecting anew");
    }
}

void PictureLink::takeExcerpts() {
    eventfd_t count = 0;
    eventfd_read(wake_, &count);
    std::vector<ExcerptTaken> taken;
    {
        const std::lock_guard lock(mutex_);
        taken = std::exchange(taken_, {});
    }
    for (ExcerptTaken& one : taken) {
        session_.taken(std::move(one));
    }
}

void PictureLink::readAll() {
    std::array<char, kWantedBytes> bytes;
    const ssize_t count = recv(socket_, bytes.data(), bytes.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return;
    }
    if (count <= 0) {
        disconnect(told_ ? "kestor-picture went away" : "");
        return;
    }
    try {
        session_.received({bytes.data(), static_cast<std::size_t>(count)}, nowMs());
    } catch (const metering::Unreadable& error) {
        disconnect(std::string("kestor-picture sent ") + error.what());
        nextConnect_ = nowMs() + kLostMs;
        return;
    }
    if (session_.agreed() && !std::exchange(told_, true)) {
        tell("connected to kestor-picture " + session_.peer());
    }
}

void PictureLink::write() {
    while (!session_.front().empty()) {
        const std::string& bytes = session_.front();
        const ssize_t count = send(socket_, bytes.data() + written_, bytes.size() - written_, MSG_NOSIGNAL);
        if (count < 0) {
            if (errno != EAGAIN && errno != EINTR) {
                disconnect(std::string("kestor-picture went away: ") + std::strerror(errno));
            }
            return;
        }
        progress_ = nowMs();
        written_ += static_cast<std::size_t>(count);
        if (written_ == bytes.size()) {
            session_.pop();
            written_ = 0;
        }
    }
    if (session_.agreed()) {
        progress_ = nowMs();
    }
}

}  // namespace meterd
