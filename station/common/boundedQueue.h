// A queue between threads that never grows beyond its bound.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace station {

// Any number of threads may push and pop. Nobody ever waits to push.
template <typename T>
class BoundedQueue {
  public:
    explicit BoundedQueue(std::size_t bound) : bound_(bound) {}
    BoundedQueue(const BoundedQueue&) = delete;

    // False, and the value is left alone, when the queue is full or closed.
    bool push(T&& value) {
        {
            const std::lock_guard lock(mutex_);
            if (closed_ || values_.size() >= bound_) {
                return false;
            }
            values_.push_back(std::move(value));
        }
        ready_.notify_one();
        return true;
    }

    // The oldest value, as soon as there is one; nothing at the deadline, or once closed and empty.
    std::optional<T> popUntil(std::chrono::steady_clock::time_point deadline) {
        std::unique_lock lock(mutex_);
        ready_.wait_until(lock, deadline, [this] { return closed_ || !values_.empty(); });
        if (values_.empty()) {
            return std::nullopt;
        }
        std::optional<T> value(std::move(values_.front()));
        values_.pop_front();
        return value;
    }

    // Wakes all waiters; what is queued can still be taken.
    void close() {
        {
            const std::lock_guard lock(mutex_);
            closed_ = true;
        }
        ready_.notify_all();
    }

    bool closed() const {
        const std::lock_guard lock(mutex_);
        return closed_;
    }

  private:
    const std::size_t bound_;
    mutable std::mutex mutex_;  // guards everything below; no lock is taken while it is held
    std::condition_variable ready_;
    std::deque<T> values_;
    bool closed_ = false;
};

}  // namespace station
