#include "outbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "framing.h"

namespace meterd {

Outbox::Outbox() : descriptor_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (descriptor_ < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

Outbox::~Outbox() {
    ::close(descriptor_);
}

void Outbox::open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
}

void Outbox::close() {
    const std::lock_guard lock(mutex_);
    open_ = false;
    eventsLost_ += static_cast<uint64_t>(std::ranges::count_if(entries_, &Entry::event));
    entries_.clear();
    secondBytes_ = eventBytes_ = 0;
}

bool Outbox::isOpen() const {
    const std::lock_guard lock(mutex_);
    return open_;
}

bool Outbox::reserve(std::size_t bytes) {
    const std::lock_guard lock(mutex_);
    if (secondBytes_ + reservedBytes_ + bytes > kBytes) {
        return false;
    }
    reservedBytes_ += bytes;
    return true;
}

void Outbox::loseSecond(std::size_t reserved) {
    const std::lock_guard lock(mutex_);
    reservedBytes_ -= reserved;
    ++secondsLost_;
}

bool Outbox::pushSecond(std::vector<std::string>&& parts) {
    std::size_t bytes = 0;
    for (const std::string& part : parts) {
        bytes += part.size();
    }
    {
        const std::lock_guard lock(mutex_);
        reservedBytes_ -= bytes;
        if (!open_) {
            return false;
        }
        secondBytes_ += bytes;
        for (std::string& part : parts) {
            entries_.push_back({std::move(part), false});
        }
    }
    wake();
    return true;
}

bool Outbox::pushEvent(std::string&& event) {
    {
        const std::lock_guard lock(mutex_);
        if (!open_ || event.size() > metering::kHappenedLimit || eventBytes_ + event.size() > kEventBytes) {
            ++eventsLost_;
            return false;
        }
        eventBytes_ += event.size();
        entries_.push_back({std::move(event), true});
    }
    wake();
    return true;
}

std::string Outbox::pop() {
    const std::lock_guard lock(mutex_);
    if (entries_.empty()) {
        uint64_t count = 0;
        [[maybe_unused]] const ssize_t size =
            read(descriptor_, &count, sizeof count);  // not readable any more
        return {};
    }
    Entry entry = std::move(entries_.front());
    entries_.pop_front();
    (entry.event ? eventBytes_ : secondBytes_) -= entry.bytes.size();
    return std::move(entry.bytes);
}

uint64_t Outbox::secondsLost() const {
    const std::lock_guard lock(mutex_);
    return secondsLost_;
}

uint64_t Outbox::eventsLost() const {
    const std::lock_guard lock(mutex_);
    return eventsLost_;
}

void Outbox::wake() const {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t size = write(descriptor_, &one, sizeof one);  // full: it is readable
}

}  // namespace meterd
