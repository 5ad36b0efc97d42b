#include "connection.h"

#include <sys/socket.h>

#include <cerrno>

namespace pictured {

namespace {

constexpr std::size_t kReceiveBytes = std::size_t{256} * 1024;

}  // namespace

bool Connection::queue(std::string_view message) {
    if (waits() + message.size() > limit_) {
        return false;
    }
    waiting_.erase(0, sent_);
    sent_ = 0;
    waiting_ += message;
    return true;
}

void Connection::send() {
    while (sent_ < waiting_.size()) {
        const ssize_t count =
            ::send(socket_.number(), waiting_.data() + sent_, waiting_.size() - sent_, MSG_NOSIGNAL);
        if (count < 0) {
            return;
        }
        sent_ += static_cast<std::size_t>(count);
    }
    waiting_.clear();
    sent_ = 0;
}

Connection::Reading Connection::receive(std::string_view& bytes) {
    buffer_.resize(kReceiveBytes);
    const ssize_t count = recv(socket_.number(), buffer_.data(), buffer_.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) {
        return Reading::kNothing;
    }
    if (count <= 0) {
        return Reading::kEnd;
    }
    bytes = std::string_view(buffer_).substr(0, static_cast<std::size_t>(count));
    return Reading::kBytes;
}

}  // namespace pictured
