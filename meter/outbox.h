// What waits to be sent to the station: from the threads that measure to the one that speaks.
#pragma once

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace meterd {

// Any thread may use it; nobody waits.
class Outbox {
  public:
    // Of seconds: those that wait and those that are being made, of all threads.
    static constexpr std::size_t kBytes = std::size_t{32} * 1024 * 1024;
    static constexpr std::size_t kEventBytes = std::size_t{4} * 1024 * 1024;

    // Throws std::system_error when the kernel has no descriptor for it.
    Outbox();
    ~Outbox();
    Outbox(const Outbox&) = delete;

    // Readable while something waits.
    int descriptor() const {
        return descriptor_;
    }
    // Nobody listens until it is opened; what is put in then is dropped, and what was in it. Events are
    // counted then, seconds are not: the next one tells as much.
    void open();
    void close();
    bool isOpen() const;

    // Room for a part of a second that is being made. False when there is none: the second is to be given up.
    bool reserve(std::size_t bytes);
    // All parts of a second, for which room was reserved. False when nobody listens: they are dropped.
    bool pushSecond(std::vector<std::string>&& parts);
    // In place of pushSecond: the second is lost, and counted. `reserved`: bytes, of all its parts.
    void loseSecond(std::size_t reserved);
    // False, and counted, when nobody listens, kEventBytes of events wait, or it is larger than one may be.
    bool pushEvent(std::string&& event);
    // The oldest, or empty.
    std::string pop();

    uint64_t secondsLost() const;
    uint64_t eventsLost() const;

  private:
    struct Entry {
        std::string bytes;
        bool event = false;
    };
    void wake() const;

    const int descriptor_;
    mutable std::mutex mutex_;  // guards what follows; no lock is taken while it is held
    bool open_ = false;
    std::deque<Entry> entries_;
    std::size_t secondBytes_ = 0;    // that wait
    std::size_t reservedBytes_ = 0;  // of seconds that are being made
    std::size_t eventBytes_ = 0;
    uint64_t secondsLost_ = 0;
    uint64_t eventsLost_ = 0;
};

}  // namespace meterd
