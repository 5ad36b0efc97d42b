#include "store/receiver.h"

#include <algorithm>
#include <set>
#include <utility>

namespace station {

namespace {

// A raise that is followed by a clear.
bool isRaise(const Notification& notification) {
    return notification.raised && !notification.momentary;
}

}  // namespace

Receiver::Receiver(const Webhook& webhook, const DeliveryPace& pace)
    : webhook_(webhook), pace_(pace), sendPace_(pace, webhook.maxPerMinute), refresh_(pace.refresh) {
    statistics_.name = webhook.name;
    statistics_.url = shownUrl(webhook.url);
}

// Whoever changed it wants to see whether it works.
void Receiver::configure(const Webhook& webhook) {
    lacksRaises_ = lacksRaises_ || retired_ || webhook.minimumSeverity > webhook_.minimumSeverity;
    retired_ = false;
    if (!(webhook == webhook_)) {
        sendPace_.hurry();
    }
    webhook_ = webhook;
    sendPace_.setPerMinute(webhook.maxPerMinute);
    statistics_.name = webhook.name;
}

Delivery::ReceiverStatistics Receiver::statistics() const {
    Delivery::ReceiverStatistics statistics = statistics_;
    statistics.owed = queued();
    statistics.tried = statistics.tried || queued() == 0;
    return statistics;
}

void Receiver::lost(uint64_t count) {
    statistics_.dropped += count;
}

// Null when its alarm was closed meanwhile.
Receiver::Owed* Receiver::findOwed(int64_t sequence) {
    for (Queue* queue : {&owed_, &refused_}) {
        if (const auto found = queue->find(sequence); found != queue->end()) {
            return &found->second;
        }
    }
    return nullptr;
}

const Notification& Receiver::notificationOf(const Owed& owed) const {
    const Account& account = accounts_.at(owed.alarm);
    return owed.clear ? *account.clear : account.raise;
}

// The disk.

void Receiver::restore(StoredReceiver&& stored, int64_t& lastSequence) {
    DeliveryChanges ignored;  // all is written anew
    for (Notification& raise : stored.notified) {
        const int64_t id = raise.alarmId;
        Account& account = accounts_.try_emplace(id, Account{std::move(raise)}).first->second;
        account.notified = Notified::kYes;
        if (account.raiseOwed != 0 && !isUnderWay(account.raiseOwed)) {
            dropOwed(account.raiseOwed, ignored);
        }
    }
    for (StoredOwed& owed : stored.owed) {
        Notification& one = owed.notification;
        const int64_t id = one.alarmId;
        const bool clear = !one.raised && !one.momentary;
        const auto [entry, added] = accounts_.try_emplace(id, Account{one});
        Account& account = entry->second;
        if (!clear) {
            account.notified = std::max(account.notified, owed.sent ? Notified::kPerhaps : Notified::kNo);
            if (added) {
                oweAgain(account, lastSequence, ignored);
            }
        } else if (account.clearOwed == 0) {
            // A clear is owed for what was told, or may have been.
            account.raise.raised = true;
            account.notified = added ? Notified::kYes : std::max(account.notified, Notified::kPerhaps);
            account.clear = std::move(one);
            account.clearOwed = ++lastSequence;
            owed_[account.clearOwed] = {.alarm = id, .clear = true};
            if (alertmanager() && account.raiseOwed != 0 && !isUnderWay(account.raiseOwed)) {
                dropOwed(account.raiseOwed, ignored);
            }
        }
    }
}

StoredReceiver Receiver::stored() const {
    StoredReceiver all;
    for (const Queue* queue : {&owed_, &refused_}) {
        for (const auto& [sequence, owed] : *queue) {
            const bool sent = accounts_.at(owed.alarm).notified != Notified::kNo || isUnderWay(sequence);
            all.owed.push_back({sequence, notificationOf(owed), sent});
        }
    }
    std::ranges::sort(all.owed, {}, &StoredOwed::sequence);
    for (const auto& [id, account] : accounts_) {
        if (account.notified != Notified::kNo && account.raiseOwed == 0 && !account.raise.momentary) {
            all.notified.push_back(account.raise);
        }
    }
    return all;
}

// What is owed.

bool Receiver::isUnderWay(int64_t sequence) const {
    return std::ranges::binary_search(underWay_, sequence);
}

// Takes it out of its queue and sets the sequence to 0.
void Receiver::dropOwed(int64_t& sequence, DeliveryChanges& changes) {
    if (owed_.erase(sequence) + refused_.erase(sequence) > 0) {
        changes.settled.push_back(sequence);
    }
    sequence = 0;
}

// The receiver is done with the alarm, or never hears of it.
void Receiver::close(Accounts::iterator account, DeliveryChanges& changes) {
    if (account->second.notified != Notified::kNo) {
        changes.forgotten.push_back(account->first);
    }
    dropOwed(account->second.raiseOwed, changes);
    dropOwed(account->second.clearOwed, changes);
    accounts_.erase(account);
}

// A raise that will not be sent, or not again. What the receiver may know stays accounted for.
void Receiver::giveUpRaise(Accounts::iterator account, DeliveryChanges& changes) {
    ++statistics_.dropped;
    if (account->second.notified == Notified::kNo || account->second.raise.momentary) {
        close(account, changes);
    } else {
        dropOwed(account->second.raiseOwed, changes);
        changes.notified.push_back(account->second.raise);
    }
}

// Drops the oldest of which the receiver cannot know. False when there is none.
bool Receiver::makeRoom(DeliveryChanges& changes) {
    while (owed_.size() >= pace_.owed) {
        auto oldest = owed_.lower_bound(dropFrom_);
        for (bool stays = true; oldest != owed_.end(); ++oldest) {
            const bool droppable =
                !oldest->second.clear && accounts_.at(oldest->second.alarm).notified == Notified::kNo;
            if (droppable && !isUnderWay(oldest->first)) {
                break;
            }
            stays = stays && !droppable;
            dropFrom_ = stays ? oldest->first + 1 : dropFrom_;
        }
        if (oldest == owed_.end()) {
            return false;
        }
        const auto account = accounts_.find(oldest->second.alarm);
        lacksRaises_ = lacksRaises_ || isRaise(account->second.raise);
        giveUpRaise(account, changes);
    }
    return true;
}

void Receiver::oweAgain(Account& account, int64_t& lastSequence, DeliveryChanges& changes) {
    account.raiseOwed = ++lastSequence;
    owed_[account.raiseOwed] = {.alarm = account.raise.alarmId};
    changes.owed.push_back({account.raiseOwed, account.raise, account.notified != Notified::kNo});
}

void Receiver::oweRaise(Notification&& raise, int64_t& lastSequence, DeliveryChanges& changes) {
    if (accounts_.size() >= pace_.accounts || !makeRoom(changes)) {
        ++statistics_.dropped;
        lacksRaises_ = lacksRaises_ || isRaise(raise);
        return;
    }
    const int64_t id = raise.alarmId;
    oweAgain(accounts_.emplace(id, Account{std::move(raise)}).first->second, lastSequence, changes);
}

DeliveryChanges Receiver::owe(Notification notification, int64_t& lastSequence) {
    DeliveryChanges changes;
    if (!notification.raised && !notification.momentary) {
        oweClear(std::move(notification), lastSequence, changes);
    } else if (!retired_ &&
               (notification.cue ? webhook_.cues : notification.severity <= webhook_.minimumSeverity) &&
               !accounts_.contains(notification.alarmId)) {
        oweRaise(std::move(notification), lastSequence, changes);
    }
    return changes;
}

// A clear goes by the name, labels and severity of its raise: an Alertmanager knows the alert by them.
void Receiver::oweClear(Notification&& clear, int64_t& lastSequence, DeliveryChanges& changes) {
    const auto entry = accounts_.find(clear.alarmId);
    if (entry == accounts_.end() || entry->second.raise.momentary || entry->second.clearOwed != 0) {
        return;
    }
    Account& account = entry->second;
    const bool underWay = isUnderWay(account.raiseOwed);
    if (account.notified == Notified::kNo && !underWay) {
        statistics_.dropped += account.raiseOwed != 0 ? 1 : 0;
        close(entry, changes);
        noteIdle();
        return;
    }
    account.clear = account.raise;
    account.clear->raised = false;
    account.clear->time = clear.time;
    account.clear->text = std::move(clear.text);
    account.clear->value = clear.value;
    account.clearOwed = ++lastSequence;
    owed_[account.clearOwed] = {.alarm = entry->first, .clear = true};
    changes.owed.push_back({account.clearOwed, *account.clear, true});
    // The clear alone tells an Alertmanager all; others are told the raise first.
    if (account.raiseOwed != 0 && !underWay && (alertmanager() || refused_.contains(account.raiseOwed))) {
        dropOwed(account.raiseOwed, changes);
        changes.notified.push_back(account.raise);
    }
}

DeliveryChanges Receiver::resume(const std::vector<ActiveNotification>& active, int64_t& lastSequence,
                                 WallTime now) {
    DeliveryChanges changes;
    lacksRaises_ = false;
    std::set<int64_t> raised;
    for (const ActiveNotification& one : active) {
        raised.insert(one.raise.alarmId);
        const auto known = accounts_.find(one.raise.alarmId);
        if (known == accounts_.end() || isUnderWay(known->second.clearOwed)) {
            continue;
        }
        Account& account = known->second;
        dropOwed(account.clearOwed, changes);
        account.clear.reset();
        if (account.notified == Notified::kPerhaps && account.raiseOwed == 0 && !retired_ &&
            owed_.size() < pace_.owed) {
            oweAgain(account, lastSequence, changes);
        }
    }
    std::vector<int64_t> gone;
    for (const auto& [id, account] : accounts_) {
        if (!account.raise.momentary && !raised.contains(id)) {
            gone.push_back(id);
        }
    }
    for (const int64_t id : gone) {
        Notification clear;
        clear.alarmId = id;
        clear.time = now;
        clear.text = "no longer raised";
        oweClear(std::move(clear), lastSequence, changes);
    }
    for (const ActiveNotification& one : active) {
        if (one.silenced || retired_ || one.raise.severity > webhook_.minimumSeverity ||
            accounts_.contains(one.raise.alarmId)) {
            continue;
        }
        if (owed_.size() >= pace_.owed || accounts_.size() >= pace_.accounts) {
            lacksRaises_ = true;  // the rest is told when there is room
            break;
        }
        oweRaise(Notification(one.raise), lastSequence, changes);
    }
    return changes;
}

bool Receiver::wantsActive() const {
    return lacksRaises_ && !retired_ && owed_.size() < pace_.owed / 2 &&
           accounts_.size() < pace_.accounts - pace_.accounts / 10;
}

DeliveryChanges Receiver::retire() {
    DeliveryChanges changes;
    retired_ = true;
    for (auto entry = accounts_.begin(); entry != accounts_.end();) {
        const auto account = entry++;
        const bool open = isUnderWay(account->second.raiseOwed) || account->second.notified != Notified::kNo;
        if (alertmanager() || account->second.raise.momentary || !open) {
            close(account, changes);
        } else if (account->second.clearOwed == 0 && !isUnderWay(account->second.raiseOwed) &&
                   account->second.raiseOwed != 0) {
            giveUpRaise(account, changes);
        }
    }
    return changes;
}

}  // namespace station
