#include "store/delivery.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <deque>
#include <map>
#include <mutex>
#include <span>
#include <thread>
#include <utility>

#include "basics/text.h"
#include "common/log.h"
#include "common/text.h"
#include "store/deliveryKeeper.h"
#include "store/httpPoster.h"
#include "store/payload.h"
#include "store/receiver.h"

namespace station {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kIdle{60};
constexpr std::chrono::seconds kDiskPatience{1};  // how long a message waits for the disk
constexpr std::chrono::hours kRetiredTime{24};
constexpr std::size_t kRetired = 16;  // receivers that are configured no more and told what is over
constexpr std::size_t kDormant = 32;  // receivers whose account is kept though they are not configured

// A receiver's name in delivery.db: tells URLs apart without keeping the secrets that may stand in them.
std::string keyOf(const Webhook& webhook) {
    const char* const format = webhook.format == WebhookFormat::kAlertmanager ? "alertmanager" : "json";
    return std::string(format) + " " + shownUrl(webhook.url) + " " +
           std::to_string(basics::fingerprint(webhook.url));
}

// The key of today for one that a file of version 1.1 has, whose URL had a path.
std::string withoutPath(const std::string& key) {
    const std::size_t begin = key.find(' ') + 1;
    const std::size_t end = key.find(' ', begin);
    return begin == 0 || end == std::string::npos
               ? key
               : key.substr(0, begin) + shownUrl(key.substr(begin, end - begin)) + key.substr(end);
}

std::string nameOf(const Webhook& webhook) {
    return "webhook " + webhook.name + " (" + shownUrl(webhook.url) + ")";
}

}  // namespace

struct Delivery::Implementation {
    Implementation(const std::filesystem::path& directory, std::string instance, const DeliveryPace& pace);
    ~Implementation();

    struct Orders {
        std::optional<std::vector<Webhook>> webhooks;
        std::optional<std::vector<ActiveNotification>> active;
        std::deque<Notification> notifications;
        uint64_t lost = 0;  // notifications that found no room
    };

    mutable std::mutex mutex;  // guards the three below; no lock is taken while it is held
    Orders orders;
    std::optional<std::vector<ReceiverStatistics>> statistics;  // nothing until receivers are configured
    bool closing = false;
    std::atomic<bool> wantsActive{false};
    HttpPoster poster;

  private:
    struct Entry {
        Receiver receiver;
        LogOnChange problem{};
        SteadyTime retiredUntil{};
    };
    using EntryPointer = std::shared_ptr<Entry>;
    // A message that waits for the disk to know of it.
    struct Outgoing {
        std::string key;
        std::weak_ptr<Entry> entry;
        Message message;
    };

    void run();
    bool takeOrders(Orders& taken);
    bool ending() const;
    void awaitFile();
    void follow(Orders& taken);
    void configureReceivers(const std::vector<Webhook>& webhooks);
    void retire(Entry& entry, const std::string& key);
    void endRetired();
    void boundRetired();
    void restore(StoredReceivers&& stored);
    void keepDormant(const std::string& key, StoredReceiver&& stored);
    void prepare();
    void send();
    void post(const std::string& key, const EntryPointer& entry, const Message& message);
    void settled(const std::string& key, Entry& entry, const HttpOutcome& outcome);
    void note(const std::string& key, DeliveryChanges&& changes);
    void save();
    void publishStatistics();
    SteadyTime due() const;

    const std::string instance_;
    const DeliveryPace pace_;

    // The delivery thread's.
    std::map<std::string, EntryPointer> receivers_;
    std::vector<std::string> order_;  // keys as they are configured
    StoredReceivers dormant_;         // of receivers that are not configured
    ReceiverChanges unsaved_;
    std::vector<Outgoing> outgoing_;
    DeliveryKeeper::Ticket ticket_ = 0;  // of what was given to the disk last
    SteadyTime sendAt_{};                // when what is outgoing no longer waits for it
    bool diskHangs_ = false;
    LogOnChange diskProblem_;
    bool configured_ = false;
    int64_t lastSequence_ = 0;
    DeliveryKeeper keeper_;  // wakes `poster`
    std::thread thread_;
};

Delivery::Implementation::Implementation(const std::filesystem::path& directory, std::string instance,
                                         const DeliveryPace& pace)
    : instance_(std::move(instance)),
      pace_(pace),
      keeper_(directory / "delivery.db", [this] { poster.wake(); }) {
    thread_ = std::thread([this] { run(); });
}

Delivery::Implementation::~Implementation() {
    {
        const std::lock_guard lock(mutex);
        closing = true;
    }
    poster.wake();
    thread_.join();
}

void Delivery::Implementation::run() {
    prctl(PR_SET_NAME, "delivery");
    sigset_t broken;  // TLS writes to a closed connection without MSG_NOSIGNAL
    sigemptyset(&broken);
    sigaddset(&broken, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken, nullptr);
    awaitFile();
    for (Orders taken; takeOrders(taken); taken = {}) {
        if (auto stored = keeper_.takeLoaded()) {
            restore(std::move(*stored));
        }
        follow(taken);
        endRetired();
        prepare();
        save();
        send();
        publishStatistics();
        if (ending()) {
            break;
        }
        poster.run(due());
    }
    save();
}

// What the file has comes first, if it comes at all.
void Delivery::Implementation::awaitFile() {
    for (const SteadyTime until = Clock::now() + kDiskPatience; Clock::now() < until && !ending();) {
        if (auto stored = keeper_.takeLoaded()) {
            restore(std::move(*stored));
            return;
        }
        poster.run(until);
    }
}

SteadyTime Delivery::Implementation::due() const {
    const SteadyTime now = Clock::now();
    SteadyTime until = now + kIdle;
    for (const auto& [key, entry] : receivers_) {
        until = std::min(until, entry->receiver.due(now));
    }
    return outgoing_.empty() ? until : std::min(until, sendAt_);
}

// Orders from other threads.

bool Delivery::Implementation::takeOrders(Orders& taken) {
    const std::lock_guard lock(mutex);
    std::swap(taken, orders);
    return !closing || taken.webhooks || taken.active || !taken.notifications.empty();
}

bool Delivery::Implementation::ending() const {
    const std::lock_guard lock(mutex);
    return closing;
}

void Delivery::Implementation::follow(Orders& taken) {
    if (taken.webhooks) {
        configureReceivers(*taken.webhooks);
        configured_ = true;
    }
    const WallTime now = systemNow().wall;
    bool lacking = taken.lost > 0;  // also behind what is told here to be active
    for (const auto& [key, entry] : receivers_) {
        Receiver& receiver = entry->receiver;
        if (taken.active) {
            note(key, receiver.resume(*taken.active, lastSequence_, now));
        }
        for (const Notification& notification : taken.notifications) {
            note(key, receiver.owe(notification, lastSequence_));
        }
        receiver.lost(taken.lost);
        lacking = lacking || receiver.wantsActive();
    }
    if (lacking) {
        wantsActive = true;
    }
}

// Receivers.

void Delivery::Implementation::configureReceivers(const std::vector<Webhook>& webhooks) {
    std::map<std::string, EntryPointer> kept;
    order_.clear();
    for (const Webhook& webhook : webhooks) {
        const std::string base = keyOf(webhook);
        std::string key = base;
        for (int number = 2; kept.contains(key); ++number) {  // each of several with one URL is told
            key = base + " #" + std::to_string(number);
        }
        order_.push_back(key);
        EntryPointer& entry = kept[key];
        if (const auto present = receivers_.find(key); present != receivers_.end()) {
            entry = std::move(present->second);
            receivers_.erase(present);
            entry->receiver.configure(webhook);
            continue;
        }
        entry = std::make_shared<Entry>(Entry{.receiver = Receiver(webhook, pace_)});
        if (auto stored = dormant_.extract(key)) {
            entry->receiver.restore(std::move(stored.mapped()), lastSequence_);
        }
        wantsActive = true;  // it has to be told what is raised
    }
    for (auto& [key, entry] : receivers_) {
        retire(*entry, key);
        if (!entry->receiver.done()) {  // it has to be told yet what is over
            kept.emplace(key, std::move(entry));
        }
    }
    receivers_ = std::move(kept);
    boundRetired();
    keeper_.wantAll();
}

void Delivery::Implementation::retire(Entry& entry, const std::string& key) {
    if (!entry.receiver.retired()) {
        note(key, entry.receiver.retire());
        entry.retiredUntil = Clock::now() + kRetiredTime;
    }
}

// Those that have waited longest for a receiver that takes what is over are the least likely to be told.
void Delivery::Implementation::boundRetired() {
    std::vector<std::pair<SteadyTime, std::string>> retired;
    for (const auto& [key, entry] : receivers_) {
        if (entry->receiver.retired()) {
            retired.emplace_back(entry->retiredUntil, key);
        }
    }
    std::ranges::sort(retired);
    const std::size_t over = retired.size() - std::min(retired.size(), kRetired);
    for (const auto& [until, key] : std::span(retired).first(over)) {
        log(LogLevel::kWarning,
            nameOf(receivers_.at(key)->receiver.webhook()) + " is configured no more, as are " +
                std::to_string(kRetired) +
                " others that have to be told yet which alarms are over: given up. Clear there "
                "what it still shows");
        receivers_.erase(key);
    }
}

void Delivery::Implementation::endRetired() {
    const SteadyTime now = Clock::now();
    std::erase_if(receivers_, [&](const auto& one) {
        const Receiver& receiver = one.second->receiver;
        const bool over = receiver.retired() && (receiver.done() || now > one.second->retiredUntil);
        if (over && !receiver.done()) {
            log(LogLevel::kWarning, nameOf(receiver.webhook()) +
                                        " is configured no more and could not be told for a day that alarms "
                                        "are over: given up");
        }
        return over;
    });
}

// What the file had; receivers that are there already know more.
void Delivery::Implementation::restore(StoredReceivers&& stored) {
    for (auto& [storedKey, receiver] : stored) {
        const std::string key = withoutPath(storedKey);
        if (const auto present = receivers_.find(key); present != receivers_.end()) {
            present->second->receiver.restore(std::move(receiver), lastSequence_);
            wantsActive = true;
        } else {
            keepDormant(key, std::move(receiver));
        }
    }
}

// It may be configured again: then it is told of all that is over by then. What it was never sent goes.
void Delivery::Implementation::keepDormant(const std::string& key, StoredReceiver&& stored) {
    if (dormant_.size() < kDormant && !(stored.owed.empty() && stored.notified.empty())) {
        dormant_[key] = std::move(stored);
    }
}

// Messages.

void Delivery::Implementation::prepare() {
    const SteadyTime now = Clock::now();
    for (const auto& [key, entry] : receivers_) {
        DeliveryChanges changes;
        if (std::optional<Message> message = entry->receiver.next(now, changes)) {
            if (outgoing_.empty()) {
                sendAt_ = now + kDiskPatience;
            }
            outgoing_.push_back({key, entry, std::move(*message)});
        }
        note(key, std::move(changes));
    }
}

// That a message may have arrived has to be known after a restart, so the disk goes first, as long as it
// works.
void Delivery::Implementation::send() {
    const bool pending = keeper_.pending(ticket_);
    if (!pending) {
        diskHangs_ = false;
        diskProblem_.resolved("delivery.db is written again");
    }
    if (outgoing_.empty() || (pending && !diskHangs_ && Clock::now() < sendAt_)) {
        return;
    }
    if (pending && !diskHangs_) {
        diskHangs_ = true;
        diskProblem_.say(LogLevel::kError,
                         "delivery.db takes longer than a second to be written: notifications are delivered "
                         "all the same, and may come twice or not at all when the station is started anew");
    }
    for (const Outgoing& one : std::exchange(outgoing_, {})) {
        if (const EntryPointer entry = one.entry.lock()) {
            post(one.key, entry, one.message);
        }
    }
}

void Delivery::Implementation::post(const std::string& key, const EntryPointer& entry,
                                    const Message& message) {
    const Webhook& webhook = entry->receiver.webhook();
    const WallTime now = systemNow().wall;
    HttpPost request;
    if (webhook.format == WebhookFormat::kAlertmanager) {
        request.url = withCall(webhook.url, "/api/v2/alerts");
        request.body = alertmanagerBody(message.notifications, instance_, now, pace_.alertLife);
    } else {
        request.url = webhook.url;
        request.body = webhookBody(message.notifications, message.summed, instance_, now);
    }
    request.contentType = "application/json";
    request.authorization = webhook.authorization;
    request.caFile = webhook.caFile;
    request.timeout = webhook.timeout;
    // A receiver may be configured away while its message is under way.
    poster.post(std::move(request), [this, key, receiver = std::weak_ptr(entry)](const HttpOutcome& outcome) {
        if (const EntryPointer present = receiver.lock()) {
            settled(key, *present, outcome);
        }
    });
}

void Delivery::Implementation::settled(const std::string& key, Entry& entry, const HttpOutcome& outcome) {
    note(key, entry.receiver.settle(outcome, systemNow()));
    const std::string who = nameOf(entry.receiver.webhook());
    if (outcome.taken()) {
        entry.problem.resolved(who + ": notifications arrive again");
    } else {
        entry.problem.say(LogLevel::kWarning,
                          who + ": " + outcome.problem + "; what it is owed is kept and tried again");
    }
}

void Delivery::Implementation::publishStatistics() {
    std::vector<ReceiverStatistics> all;
    for (const std::string& key : order_) {
        all.push_back(receivers_.at(key)->receiver.statistics());
    }
    if (!configured_) {
        return;
    }
    const std::lock_guard lock(mutex);
    statistics = std::move(all);
}

// The file.

void Delivery::Implementation::note(const std::string& key, DeliveryChanges&& changes) {
    if (!changes.empty()) {
        unsaved_.emplace_back(key, std::move(changes));
    }
}

void Delivery::Implementation::save() {
    if (keeper_.wantsAll()) {
        StoredReceivers all = dormant_;
        for (const auto& [key, entry] : receivers_) {
            all[key] = entry->receiver.stored();
        }
        ticket_ = keeper_.replace(std::move(all));
    } else if (!unsaved_.empty()) {
        ticket_ = keeper_.save(std::move(unsaved_));
    }
    unsaved_.clear();
}

Delivery::Delivery(const std::filesystem::path& stateDirectory, const std::string& instance,
                   const DeliveryPace& pace)
    : implementation_(std::make_unique<Implementation>(stateDirectory, instance, pace)) {}

Delivery::~Delivery() = default;

void Delivery::configure(const std::vector<Webhook>& webhooks) {
    {
        const std::lock_guard lock(implementation_->mutex);
        implementation_->orders.webhooks = webhooks;
    }
    implementation_->poster.wake();
}

void Delivery::resume(std::vector<ActiveNotification> active) {
    {
        const std::lock_guard lock(implementation_->mutex);
        implementation_->orders.active = std::move(active);
        implementation_->wantsActive = false;
    }
    implementation_->poster.wake();
}

void Delivery::notify(std::vector<Notification> notifications) {
    {
        const std::lock_guard lock(implementation_->mutex);
        auto& [webhooks, active, queue, lost] = implementation_->orders;
        std::ranges::move(notifications, std::back_inserter(queue));
        for (; queue.size() > kNotifyQueue; ++lost) {
            queue.pop_front();
        }
    }
    implementation_->poster.wake();
}

bool Delivery::wantsActive() const {
    return implementation_->wantsActive;
}

std::vector<Delivery::ReceiverStatistics> Delivery::statistics() const {
    const std::lock_guard lock(implementation_->mutex);
    return implementation_->statistics.value_or(std::vector<ReceiverStatistics>());
}

Delivery::Health Delivery::health() const {
    const std::lock_guard lock(implementation_->mutex);
    Health health;
    if (!implementation_->statistics) {
        return health;
    }
    const auto& receivers = *implementation_->statistics;
    if (std::ranges::all_of(receivers, &ReceiverStatistics::tried)) {
        health.failing = false;
    }
    for (const ReceiverStatistics& receiver : receivers) {
        if (receiver.failingSince &&
            (!health.failing.value_or(false) || *receiver.failingSince < health.since)) {
            health.failing = true;
            health.since = *receiver.failingSince;
            health.problem = "webhook " + receiver.name + " (" + receiver.url + ") has taken nothing since " +
                             rfc3339(receiver.failingSinceWall.value_or(WallTime())) + ": " +
                             receiver.lastProblem;
        }
    }
    return health;
}

}  // namespace station
