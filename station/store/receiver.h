// What one receiver is owed, and when it is told.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <random>
#include <vector>

#include "store/delivery.h"
#include "store/httpPoster.h"

namespace station {

struct Owed {
    int64_t sequence = 0;  // grows with each that is owed
    Notification notification;
    bool doubt = false;  // was sent, and not answered
};

// What has to be kept on the disk of a change.
struct DeliveryChanges {
    std::vector<Owed> owed;
    std::vector<int64_t> settled;  // sequences that are owed no more
    std::vector<Notification> told;
    std::vector<int64_t> over;  // alarms that the receiver knows to be over
    bool empty() const {
        return owed.empty() && settled.empty() && told.empty() && over.empty();
    }
};

struct Message {
    std::vector<Notification> notifications;
    std::size_t summed = 0;  // 0, or how many notifications this one stands for
};

// No I/O, no clock of its own, one thread. One message is under way at a time.
class Receiver {
  public:
    static constexpr std::size_t kListed = 1'000;  // notifications that a summary lists; the rest is counted
    static constexpr std::size_t kAlerts = 500;    // in one message to an Alertmanager
    static constexpr unsigned kRefusals = 10;      // of one message until it is dropped
    static constexpr std::size_t kToldLimit =
        50'000;  // alarms known to be told; beyond, the oldest are forgotten

    Receiver(const Webhook& webhook, const DeliveryPace& pace);
    void configure(const Webhook& webhook) {
        webhook_ = webhook;
    }
    const Webhook& webhook() const {
        return webhook_;
    }
    // What was kept on the disk.
    void restore(std::deque<Owed>&& owed, std::map<int64_t, Notification>&& told);

    DeliveryChanges owe(Notification notification, int64_t& lastSequence);
    DeliveryChanges resume(const std::vector<ActiveNotification>& active, int64_t& lastSequence,
                           WallTime now);
    // The message to send at this time, if any; it is under way until settle().
    std::optional<Message> next(SteadyTime now);
    // When next() may have something; nothing while a message is under way.
    SteadyTime due(SteadyTime now) const;
    DeliveryChanges settle(const HttpOutcome& outcome, const Now& now);

    const std::deque<Owed>& owed() const {
        return owed_;
    }
    const std::map<int64_t, Notification>& told() const {
        return told_;
    }
    Delivery::ReceiverStatistics statistics() const;

  private:
    bool alertmanager() const {
        return webhook_.format == WebhookFormat::kAlertmanager;
    }
    bool exhausted(SteadyTime now) const;
    Message takeOwed();
    Message takeRefresh(SteadyTime now);
    DeliveryChanges delivered(SteadyTime now);
    DeliveryChanges failed(const HttpOutcome& outcome, const Now& now);
    void oweClear(Notification&& clear, int64_t& lastSequence, DeliveryChanges& changes);
    void append(Notification&& notification, int64_t& lastSequence, DeliveryChanges& changes);
    void drop(const std::deque<Owed>::iterator& owed, DeliveryChanges& changes);
    bool knows(const Notification& notification);
    std::deque<Owed>::iterator findOwed(int64_t alarmId, bool raised);

    Webhook webhook_;
    DeliveryPace pace_;
    std::deque<Owed> owed_;
    std::map<int64_t, Notification> told_;  // raises that were delivered and not cleared, by alarm
    // The first `underWay_` of owed_ are in the message that is under way, of which `listed_` are in full.
    std::size_t underWay_ = 0;
    std::size_t listed_ = 0;
    bool busy_ = false;
    SteadyTime minuteBegan_{};
    uint32_t sentInMinute_ = 0;
    bool held_ = false;  // the minute was full: what waited is summed up
    SteadyTime retryAt_{};
    unsigned failures_ = 0;
    unsigned refusals_ = 0;
    SteadyTime refreshAt_{};
    int64_t refreshedTo_ = 0;  // alarm id up to which this refresh has come
    Delivery::ReceiverStatistics statistics_;
    std::minstd_rand random_;
};

}  // namespace station
