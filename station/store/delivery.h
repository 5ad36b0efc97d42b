// Delivery of alarms to webhooks.
#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "alarms/incidents.h"
#include "configuration/configuration.h"
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
    bool cue = false;      // no alarm: a cue, for those who want them; momentary, without severity
    std::string source{};  // whose figures judged the alarm; empty where an older station wrote it
    // Incident::id, or the alarm's own while it is by itself; 0: none, or an older station wrote it. As it
    // was when it was raised, so that it is the same in its clear.
    int64_t incident = 0;
    std::optional<Shared> shared{};  // nothing while it is by itself

    bool operator==(const Notification&) const = default;
};

// An alarm that is raised when the station starts.
struct ActiveNotification {
    Notification raise;
    bool silenced = false;  // a maintenance window holds: not told unless it was already
};

// How patient delivery is, and how much it bears.
struct DeliveryPace {
    std::chrono::milliseconds firstWait{1'000};  // after a failure; doubles with each, give or take a fifth
    std::chrono::milliseconds longestWait{300'000};
    std::chrono::milliseconds minute{60'000};      // of maxPerMinute
    std::chrono::milliseconds refresh{60'000};     // an Alertmanager is told again what is raised
    std::chrono::milliseconds alertLife{300'000};  // and forgets it after this time
    std::size_t owed = 10'000;      // notifications owed to a receiver; beyond, the oldest raises are dropped
    std::size_t accounts = 20'000;  // alarms that a receiver was told of or is to be told of
};

// Sends notifications by HTTP, on a thread of its own (libcurl); no call waits. What is owed to each receiver
// is kept in `delivery.db` of the state directory and outlives a restart. A receiver gets one message at a
// time, in order; a failed one is tried again after 1 s, 2 s, 4 s ... up to 5 minutes. A clear is sent only
// for a raise that was delivered, and a raise that is over before it could be delivered is dropped, unless
// its message was sent and not answered: then both are delivered. A message that is refused (status 400, 413
// or 422) ten times is dropped.
//
// A message carries one notification, or those of one incident that wait behind one another and say the same.
// At most maxPerMinute of them go to a receiver; the rest is summed up in one message at the end of the
// minute. An Alertmanager gets all that is owed in one message, and once a minute what is raised, since it
// takes for resolved what it is not told again.
class Delivery {
  public:
    static constexpr std::size_t kNotifyQueue = 10'000;  // not yet taken up; beyond, the oldest are lost

    // `instance` is what receivers know this station by.
    Delivery(const std::filesystem::path& stateDirectory, const std::string& instance,
             const DeliveryPace& pace = {});
    ~Delivery();  // at most a second: what is under way is owed again
    Delivery(const Delivery&) = delete;

    // Receivers from here on; one that is gone loses what it is owed, one that stays (same URL and format)
    // keeps it.
    void configure(const std::vector<Webhook>& webhooks);
    // What is raised at the start, all of it: a receiver that was told of an alarm that is not among them is
    // told that it is over, one that knows nothing of one of them is told. Heals what a kill in between left.
    void resume(std::vector<ActiveNotification> active);
    // True when resume() is wanted: a receiver is new, or something was left out for want of room. Any
    // thread.
    bool wantsActive() const;
    // Of one alarm to all receivers whose minimum severity it reaches. A raise that a receiver knows already
    // is not told again.
    void notify(Notification notification) {
        notify(std::vector<Notification>{std::move(notification)});
    }
    // Of several at once, so that those of one incident are one message.
    void notify(std::vector<Notification> notifications);

    struct ReceiverStatistics {
        std::string name;  // the configuration's, else its number there
        std::string url;   // scheme, host and port alone: the rest may be a secret
        uint64_t delivered = 0;
        uint64_t failed = 0;   // attempts
        uint64_t dropped = 0;  // notifications never told
        uint64_t owed = 0;
        std::string lastProblem;  // empty after a success
        bool tried = false;       // an attempt was made, or there is nothing to tell
        // The first attempt that failed since the last that did not; nothing once it is over.
        std::optional<SteadyTime> failingSince{};
        std::optional<WallTime> failingSinceWall{};
    };
    // In the order of the configuration.
    std::vector<ReceiverStatistics> statistics() const;  // any thread
    // Whether a receiver fails: nothing as long as one has to be told and no attempt has ended.
    struct Health {
        std::optional<bool> failing{};
        SteadyTime since{};     // failing: the first attempt that failed, of the receiver that fails longest
        std::string problem{};  // a sentence that names it
    };
    Health health() const;  // any thread

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
