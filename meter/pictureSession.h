// What kestor-picture asks of a meter, and how it is answered: one connection's turns.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "excerpts.h"
#include "framing.h"
#include "picture.pb.h"
#include "pictureLimits.h"

namespace meterd {

// Has at most picturing::kWantedLimit excerpts open, those that still have to be sent included, and
// kBusyLimit answers without one; what more is asked is not answered. Excerpts that have to be sent hold
// picturing::kWantedBytes and one more; beyond, others are answered without their content. Does no input or
// output; one thread.
class PictureSession {
  public:
    // Has an excerpt taken: `group`, `ticket`, `audio`.
    using Begin = std::function<void(uint32_t, uint64_t, bool)>;
    PictureSession(std::string version, Begin begin);

    // Somebody is there; who was there before is gone.
    void connected();
    void disconnected();
    // Bytes as they come. Throws metering::Unreadable for what makes no sense, or a version that it does not
    // speak.
    void received(std::string_view bytes, int64_t nowMs);
    // An excerpt that was begun, whoever wanted it.
    void taken(ExcerptTaken&& taken);
    // Answers what was not taken in time.
    void expire(int64_t nowMs);

    // The next message to be sent, framed; empty: none.
    const std::string& front() const;
    // It was sent.
    void pop();
    bool agreed() const {
        return agreed_;
    }
    // For people.
    const std::string& peer() const {
        return peer_;
    }

  private:
    struct Turn {
        uint64_t ticket = 0;
        uint32_t group = 0;
        uint64_t id = 0;
        int64_t deadline = 0;   // ms
        bool answered = false;  // nobody waits for it any more; it is still being taken
    };
    struct Answer {
        std::string bytes;
        bool excerpt = false;
    };

    void take(std::string_view message, int64_t nowMs);
    void want(const picturing::Wanted& wanted, int64_t nowMs);
    void answer(uint32_t group, uint64_t id, picturing::Outcome outcome);

    static constexpr std::size_t kMessageBytes = 4096;
    static constexpr std::size_t kBusyLimit = 64;

    const std::string version_;
    const Begin begin_;
    metering::Unframer unframer_;
    bool agreed_ = false;
    std::string peer_;
    uint64_t ticket_ = 0;
    std::vector<Turn> turns_;
    std::deque<Answer> answers_;
    std::size_t excerpts_ = 0;  // of the answers
    std::size_t bytes_ = 0;     // of these
};

}  // namespace meterd
