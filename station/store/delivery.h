// Delivery of alarms to webhooks.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "channels/configuration.h"
#include "store/event.h"

namespace station {

// What a receiver is told of one alarm.
struct Notification {
    int64_t alarmId = 0;
    bool raised = true;      // false: cleared
    bool momentary = false;  // kHappened: told once, never cleared
    WallTime time;
    WallTime raisedAt;
    std::string alarm;
    std::string meaning;  // of the alarm type
    Severity severity = Severity::kWarning;
    std::string group;  // empty for the probe
    std::string channel;
    Labels labels;
    std::string text;
    double value = 0;
};

// Sends notifications by HTTP, on a thread of its own (libcurl); no call waits. What is owed to each receiver
// is kept in `delivery.db` of the state directory and outlives a restart. A failed delivery is tried again
// after 1 s, 2 s, 4 s
// ... up to 5 minutes; a clear is sent only for a raise that was delivered, and a raise that is over before
// it could be delivered is dropped. At most maxPerMinute messages go to a receiver; the rest is summed up in
// one message at the end of the minute.
class Delivery {
  public:
    static constexpr std::size_t kOwedLimit =
        10'000;  // notifications owed to a receiver; beyond, the oldest are dropped

    Delivery(const std::filesystem::path& stateDirectory, const std::string& instance);
    ~Delivery();  // at most a second: what is under way is owed again
    Delivery(const Delivery&) = delete;

    // Receivers from here on; one that is gone loses what it is owed, one that stays keeps it.
    void configure(const std::vector<Webhook>& webhooks);
    // Of one alarm to all receivers whose minimum severity it reaches.
    void notify(Notification notification);

    struct ReceiverStatistics {
        std::string url;  // without user and password
        uint64_t delivered = 0;
        uint64_t failed = 0;   // attempts
        uint64_t dropped = 0;  // notifications never told
        uint64_t owed = 0;
        std::string lastProblem;  // empty after a success
    };
    std::vector<ReceiverStatistics> statistics() const;  // any thread

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
