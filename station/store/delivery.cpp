#include "store/delivery.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "common/log.h"
#include "common/text.h"
#include "store/deliveryDatabase.h"
#include "store/httpPoster.h"
#include "store/payload.h"
#include "store/receiver.h"

namespace station {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kDiskRetry{10};
constexpr std::chrono::seconds kIdle{60};

// A receiver's name in delivery.db: tells URLs apart without keeping the secrets that may stand in them.
std::string keyOf(const Webhook& webhook) {
    uint64_t hash = 14695981039346656037ULL;  // FNV-1a, which stays the same between builds
    for (const char character : webhook.url) {
        hash = (hash ^ static_cast<unsigned char>(character)) * 1099511628211ULL;
    }
    const char* const format = webhook.format == WebhookFormat::kAlertmanager ? "alertmanager" : "json";
    return std::string(format) + " " + shownUrl(webhook.url) + " " + std::to_string(hash);
}

}  // namespace

struct Delivery::Implementation {
    Implementation(const std::filesystem::path& directory, std::string instance, const DeliveryPace& pace);
    ~Implementation();

    struct Orders {
        std::optional<std::vector<Webhook>> webhooks;
        std::optional<std::vector<ActiveNotification>> active;
        std::deque<Notification> notifications;
    };

    mutable std::mutex mutex;  // guards the three below; no lock is taken while it is held
    Orders orders;
    std::optional<std::vector<ReceiverStatistics>> statistics;  // nothing until receivers are configured
    bool closing = false;
    HttpPoster poster;

  private:
    struct Entry {
        Receiver receiver;
        LogOnChange problem;
    };
    using EntryPointer = std::shared_ptr<Entry>;

    void run();
    bool takeOrders(Orders& taken);
    bool ending() const;
    void follow(Orders& taken);
    void configureReceivers(const std::vector<Webhook>& webhooks);
    void send();
    void post(const std::string& key, const EntryPointer& entry, const Message& message);
    void settled(const std::string& key, Entry& entry, const HttpOutcome& outcome);
    void note(const std::string& key, DeliveryChanges&& changes);
    void publishStatistics();

    void open();
    void save();
    void saveAll();
    void failed(const DatabaseError& error);

    const std::filesystem::path file_;
    const std::string instance_;
    const DeliveryPace pace_;

    // The delivery thread's.
    std::map<std::string, EntryPointer> receivers_;
    std::vector<std::string> order_;                // keys as they are configured
    std::map<std::string, StoredReceiver> stored_;  // of receivers that are not configured yet
    std::vector<std::pair<std::string, DeliveryChanges>> unsaved_;
    bool configured_ = false;
    int64_t lastSequence_ = 0;
    std::optional<DeliveryDatabase> database_;
    bool saved_ = true;  // what the file has is what it should have, but for unsaved_
    Clock::time_point openAt_{};
    LogOnChange problem_;
    std::thread thread_;
};

Delivery::Implementation::Implementation(const std::filesystem::path& directory, std::string instance,
                                         const DeliveryPace& pace)
    : file_(directory / "delivery.db"), instance_(std::move(instance)), pace_(pace) {
    std::error_code ignored;  // what is wrong shows when the file is opened
    std::filesystem::create_directories(directory, ignored);
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
    open();
    for (Orders taken; takeOrders(taken); taken = {}) {
        follow(taken);
        save();
        send();
        publishStatistics();
        if (ending()) {
            break;
        }
        SteadyTime until = Clock::now() + kIdle;
        for (const auto& [key, entry] : receivers_) {
            until = std::min(until, entry->receiver.due(Clock::now()));
        }
        poster.run(saved_ ? until : std::min(until, openAt_));
    }
    save();
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
    for (const auto& [key, entry] : receivers_) {
        if (taken.active) {
            note(key, entry->receiver.resume(*taken.active, lastSequence_, now));
        }
        for (const Notification& notification : taken.notifications) {
            note(key, entry->receiver.owe(notification, lastSequence_));
        }
    }
}

void Delivery::Implementation::configureReceivers(const std::vector<Webhook>& webhooks) {
    std::map<std::string, EntryPointer> kept;
    order_.clear();
    for (const Webhook& webhook : webhooks) {
        const std::string key = keyOf(webhook);
        if (kept.contains(key)) {
            continue;
        }
        order_.push_back(key);
        EntryPointer& entry = kept[key];
        if (const auto present = receivers_.find(key); present != receivers_.end()) {
            entry = present->second;
            entry->receiver.configure(webhook);
            continue;
        }
        entry = std::make_shared<Entry>(Entry{Receiver(webhook, pace_), {}});
        if (const auto stored = stored_.find(key); stored != stored_.end()) {
            entry->receiver.restore(std::move(stored->second.owed), std::move(stored->second.told));
        }
    }
    receivers_ = std::move(kept);
    stored_.clear();
    saveAll();
}

// Messages.

void Delivery::Implementation::send() {
    for (const auto& [key, entry] : receivers_) {
        if (const std::optional<Message> message = entry->receiver.next(Clock::now())) {
            post(key, entry, *message);
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
    const std::string who = "webhook " + shownUrl(entry.receiver.webhook().url);
    if (outcome.taken()) {
        entry.problem.over(who + ": notifications arrive again");
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

// The file. Delivery goes on without it.

void Delivery::Implementation::note(const std::string& key, DeliveryChanges&& changes) {
    if (!changes.empty() && saved_) {
        unsaved_.emplace_back(key, std::move(changes));
    }
}

void Delivery::Implementation::open() {
    for (int attempt = 0; attempt < 2 && !database_; ++attempt) {
        try {
            database_.emplace(file_);
            stored_ = database_->load();
            for (const auto& [key, receiver] : stored_) {
                lastSequence_ =
                    std::max(lastSequence_, receiver.owed.empty() ? 0 : receiver.owed.back().sequence);
            }
        } catch (const DatabaseError& error) {
            database_.reset();
            failed(error);
        }
    }
}

// What could not be written is written anew as a whole once it can be.
void Delivery::Implementation::save() {
    if (!saved_) {
        saveAll();
    } else if (!unsaved_.empty()) {
        try {
            database_->apply(unsaved_);
        } catch (const DatabaseError& error) {
            failed(error);
        }
    }
    unsaved_.clear();
}

void Delivery::Implementation::saveAll() {
    if (!saved_ && Clock::now() < openAt_) {
        return;
    }
    try {
        if (!database_) {
            database_.emplace(file_);
        }
        std::map<std::string, const Receiver*> all;
        for (const auto& [key, entry] : receivers_) {
            all[key] = &entry->receiver;
        }
        database_->replace(all);
        saved_ = true;
        unsaved_.clear();
        problem_.over(file_.string() + " can be written again");
    } catch (const DatabaseError& error) {
        failed(error);
    }
}

void Delivery::Implementation::failed(const DatabaseError& error) {
    database_.reset();
    saved_ = false;
    openAt_ = Clock::now() + kDiskRetry;
    unsaved_.clear();
    const bool damaged = error.kind() == DatabaseError::Kind::kDamaged;
    if (damaged || error.kind() == DatabaseError::Kind::kNewer) {
        const std::string aside = putAside(file_, damaged ? "damaged" : "newer");
        if (!aside.empty()) {
            openAt_ = {};
            log(LogLevel::kError, file_.string() + " cannot be used (" + error.what() + "): put aside as " +
                                      aside + ", a new file is begun");
            return;
        }
    }
    problem_.say(LogLevel::kError,
                 file_.string() + " cannot be written (" + error.what() +
                     "): notifications are delivered, and would not outlive a restart of the station; see to "
                     "space and permissions of that directory");
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
    }
    implementation_->poster.wake();
}

void Delivery::notify(Notification notification) {
    {
        const std::lock_guard lock(implementation_->mutex);
        std::deque<Notification>& queue = implementation_->orders.notifications;
        if (queue.size() >= kNotifyQueue) {
            queue.pop_front();
        }
        queue.push_back(std::move(notification));
    }
    implementation_->poster.wake();
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
            health.problem = receiver.url + " has taken nothing since " +
                             rfc3339(receiver.failingSinceWall.value_or(WallTime())) + ": " +
                             receiver.lastProblem;
        }
    }
    return health;
}

}  // namespace station
