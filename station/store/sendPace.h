// When a receiver may be sent a message, and how large that is.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <random>

#include "common/clock.h"
#include "store/delivery.h"

namespace station {

// What the messages sent to a receiver did to it: the times between them, the budget of a minute, and the
// size of the next.
//
//   kTaking ---refused---> kSplitting ---kQuickRefusals in a row---> kRefusing
//      any of them ---failed---> kFailing          any of them ---delivered---> kTaking
//
// One that is splitting is sent smaller and smaller messages at once, until what is wrong stands alone. One
// that is refusing or failing is left alone for longer and longer. No I/O, no clock of its own, one thread.
class SendPace {
  public:
    enum class State : uint8_t { kTaking, kSplitting, kRefusing, kFailing };
    static constexpr std::size_t kLargest = 1'000;  // notifications in one message
    // Refusals one after the other at which the next message goes out at once: enough to find one bad
    // notification among kLargest.
    static constexpr unsigned kQuickRefusals = 12;

    SendPace(const DeliveryPace& pace, uint32_t perMinute)
        : pace_(pace), perMinute_(perMinute), random_(std::random_device()()) {}

    void setPerMinute(uint32_t perMinute) {
        perMinute_ = perMinute;
    }
    // Its next message need not wait: somebody changed its configuration and wants to see whether it works.
    void hurry() {
        retryAt_ = {};
        failures_ = 0;
    }

    State state() const;
    bool waits(SteadyTime now) const {
        return now < retryAt_;
    }
    SteadyTime retryAt() const {
        return retryAt_;
    }
    // The budget of the minute. Half of it stays for what was not refused.
    void enterMinute(SteadyTime now);
    SteadyTime minuteEnd() const {
        return minuteBegan_ + pace_.minute;
    }
    bool minuteSpent(SteadyTime now) const;
    bool halfSpent() const {
        return sentInMinute_ > perMinute_ / 2;
    }
    // Notifications of the next message; at least 1.
    std::size_t limit() const {
        return limit_;
    }

    // What became of a message. One that only refreshes does not count for the minute.
    void delivered(bool refresh);
    // `repeated`: it was refused alone before, which says nothing new about the receiver.
    void refused(std::size_t size, bool repeated, SteadyTime now);
    void failed(SteadyTime now);

    // Doubles with each failure, give or take a fifth.
    std::chrono::milliseconds waitAfter(unsigned failures);

  private:
    DeliveryPace pace_;
    uint32_t perMinute_;
    std::size_t limit_ = kLargest;
    SteadyTime minuteBegan_{};
    uint32_t sentInMinute_ = 0;
    SteadyTime retryAt_{};
    unsigned failures_ = 0;  // without a message that was taken between them
    unsigned refusals_ = 0;  // one after the other
    std::minstd_rand random_;
};

// An Alertmanager forgets what it is not told again: a cycle goes through all that is raised, by alarm, a
// message at a time, and begins anew after DeliveryPace::refresh.
class RefreshCycle {
  public:
    explicit RefreshCycle(std::chrono::milliseconds interval) : interval_(interval) {}

    SteadyTime due() const {
        return due_;
    }
    // The next message tells what comes behind this alarm.
    int64_t position() const {
        return position_;
    }
    void beginMessage() {
        messageFrom_ = position_;
    }
    void cover(int64_t alarm) {
        position_ = alarm;
    }
    void finish(SteadyTime now) {
        position_ = 0;
        due_ = now + interval_;
    }
    // The last message was too large for the receiver: its part is told again, at once.
    void repeatMessage() {
        position_ = messageFrom_;
        due_ = {};
    }
    // The last message did not get there: from the begin, at once.
    void restart() {
        position_ = 0;
        due_ = {};
    }

  private:
    std::chrono::milliseconds interval_;
    SteadyTime due_{};
    int64_t position_ = 0;
    int64_t messageFrom_ = 0;
};

}  // namespace station
