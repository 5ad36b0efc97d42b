// What one receiver is owed, and when it is told.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "store/delivery.h"
#include "store/httpPoster.h"
#include "store/sendPace.h"

namespace station {

// A notification that is owed, as it is kept on the disk.
struct StoredOwed {
    int64_t sequence = 0;  // grows with each that is owed
    Notification notification;
    bool sent = false;  // is under way, or was sent and not answered
};

// All that is kept of one receiver.
struct StoredReceiver {
    std::vector<StoredOwed> owed;        // by sequence
    std::vector<Notification> notified;  // raises that it knows, or may know, and that are not over for it
};

// What has to be kept on the disk of a change, in this order.
struct DeliveryChanges {
    std::vector<StoredOwed> owed;
    std::vector<std::pair<int64_t, bool>> sent;  // sequence, StoredOwed::sent
    std::vector<int64_t> settled;                // sequences that are owed no more
    std::vector<Notification> notified;
    std::vector<int64_t> forgotten;  // alarms that are over for the receiver
    bool empty() const {
        return owed.empty() && sent.empty() && settled.empty() && notified.empty() && forgotten.empty();
    }
};

struct Message {
    std::vector<Notification> notifications;
    std::size_t summed = 0;  // 0, or how many notifications this one stands for
};

// What stands between a receiver and each alarm:
//
//   not notified --sent--> perhaps notified --answered--> notified --alarm over--> clear owed --answered-->
//   done
//
// An alarm that is over before it was sent is done. Whatever else happens - a bound is reached, a message is
// refused, the station is started anew - from "perhaps notified" on an alarm stays accounted for until its
// clear was taken. An Alertmanager alone may be left without a clear that it refuses: it forgets by itself
// what it is not told again.
//
// A message that is refused is split until what is wrong with it stands alone; that one waits apart from the
// others. No I/O, no clock of its own, one thread. One message is under way at a time (Sending); when the
// next may be, SendPace and RefreshCycle say.
class Receiver {
  public:
    static constexpr std::size_t kAlerts = 500;  // in one message to an Alertmanager
    static constexpr unsigned kRefusals = 10;    // of one notification until it is given up

    Receiver(const Webhook& webhook, const DeliveryPace& pace);
    void configure(const Webhook& webhook);
    const Webhook& webhook() const {
        return webhook_;
    }
    // Takes up what was kept on the disk, behind what it has already. Sequences are given anew: all has to be
    // written anew.
    void restore(StoredReceiver&& stored, int64_t& lastSequence);
    StoredReceiver stored() const;

    DeliveryChanges owe(Notification notification, int64_t& lastSequence);
    // All that is raised: what the receiver was told of and is not raised any more is over, what it does not
    // know it is told.
    DeliveryChanges resume(const std::vector<ActiveNotification>& active, int64_t& lastSequence,
                           WallTime now);
    // True when it has to be given what is raised: some of it was left out, and there is room for it.
    bool wantsActive() const;
    // It is configured no more: it is told what is over, and nothing else. done(): nothing is left to tell.
    DeliveryChanges retire();
    bool retired() const {
        return retired_;
    }
    bool done() const {
        return accounts_.empty();
    }
    // Notifications that were lost before they came here.
    void lost(uint64_t count);

    // The message to send at this time, if any; it is under way until settle(). What is said of it in
    // `changes` has to be on the disk before it is sent.
    std::optional<Message> next(SteadyTime now, DeliveryChanges& changes);
    // When next() may have something; nothing while a message is under way.
    SteadyTime due(SteadyTime now) const;
    DeliveryChanges settle(const HttpOutcome& outcome, const Now& now);

    Delivery::ReceiverStatistics statistics() const;

  private:
    enum class Notified : uint8_t { kNo, kPerhaps, kYes };
    // What the message under way was made of.
    enum class Sending : uint8_t { kNothing, kOwed, kRefused, kRefresh };
    struct Account {
        Notification raise;  // or what happened
        Notified notified = Notified::kNo;
        int64_t raiseOwed = 0;  // its sequence; 0 when it is not owed
        int64_t clearOwed = 0;
        std::optional<Notification> clear{};
    };
    using Accounts = std::map<int64_t, Account>;  // by alarm
    struct Owed {
        int64_t alarm = 0;
        bool clear = false;
        unsigned refusals = 0;
        SteadyTime retryAt{};
        uint64_t deliveredBefore = 0;  // delivered_ when it was refused first
    };
    using Queue = std::map<int64_t, Owed>;  // by sequence

    bool alertmanager() const {
        return webhook_.format == WebhookFormat::kAlertmanager;
    }
    bool isUnderWay(int64_t sequence) const;
    std::size_t queued() const {
        return owed_.size() + refused_.size();
    }
    Owed* findOwed(int64_t sequence);
    const Notification& notificationOf(const Owed& owed) const;

    void oweClear(Notification&& clear, int64_t& lastSequence, DeliveryChanges& changes);
    bool makeRoom(DeliveryChanges& changes);
    void oweRaise(Notification&& raise, int64_t& lastSequence, DeliveryChanges& changes);
    void oweAgain(Account& account, int64_t& lastSequence, DeliveryChanges& changes);
    void dropOwed(int64_t& sequence, DeliveryChanges& changes);
    void giveUpRaise(Accounts::iterator account, DeliveryChanges& changes);
    void close(Accounts::iterator account, DeliveryChanges& changes);

    Sending chooseMessage(SteadyTime now, Message& message, DeliveryChanges& changes);
    bool addOwed(Message& message, DeliveryChanges& changes);
    std::size_t ofOneFault() const;
    bool addRefused(SteadyTime now, Message& message, DeliveryChanges& changes);
    bool addRefresh(SteadyTime now, Message& message);
    void add(int64_t sequence, const Owed& owed, Message& message, DeliveryChanges& changes);

    void delivered(DeliveryChanges& changes);
    void refused(const Now& now, DeliveryChanges& changes);
    void refusedAlone(int64_t sequence, const Now& now, DeliveryChanges& changes);
    void failed(const HttpOutcome& outcome, const Now& now, DeliveryChanges& changes);
    void unanswered(bool doubt, DeliveryChanges& changes);
    void noteFailing(const Now& now);
    void noteIdle();

    Webhook webhook_;
    DeliveryPace pace_;
    Accounts accounts_;
    Queue owed_;
    Queue refused_;         // refused alone, each with a time of its own
    int64_t dropFrom_ = 0;  // of owed_, below is nothing that may be dropped
    int64_t heldTo_ = 0;    // the minute was spent: up to here what waits is summed up

    Sending sending_ = Sending::kNothing;
    std::vector<int64_t> underWay_;  // sequences of what is sent, growing; empty in a refresh
    std::size_t messageSize_ = 0;    // notifications of the message under way
    Sending last_ = Sending::kNothing;
    SendPace sendPace_;
    RefreshCycle refresh_;

    uint64_t delivered_ = 0;    // messages
    bool lacksRaises_ = false;  // a raise was left out for want of room
    bool gaveUp_ = false;       // something was given up since the last message that was taken
    bool retired_ = false;      // it is configured no more
    Delivery::ReceiverStatistics statistics_;
};

}  // namespace station
