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
    // Nobody listens until it is opened; what is put in then is dropped, and what was in it.
    void open();
    void close();
    bool isOpen() const;

    // All parts of a second or none of them: false, and counted, when there is no place for all.
    bool pushSecond(std::vector<std::string>&& parts);
    // False, and counted, when kEventBytes of events wait.
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
    std::size_t secondBytes_ = 0;
    std::size_t eventBytes_ = 0;
    uint64_t secondsLost_ = 0;
    uint64_t eventsLost_ = 0;
};

}  // namespace meterd
