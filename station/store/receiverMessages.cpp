// What a receiver is sent, and what becomes of it.
#include <algorithm>
#include <iterator>
#include <utility>

#include "store/receiver.h"

namespace station {

namespace {

bool isRefusal(long status) {
    return status == 400 || status == 413 || status == 422;
}

}  // namespace

std::optional<Message> Receiver::next(SteadyTime now, DeliveryChanges& changes) {
    if (sending_ != Sending::kNothing || sendPace_.waits(now)) {
        return std::nullopt;
    }
    sendPace_.enterMinute(now);
    Message message;
    sending_ = chooseMessage(now, message, changes);
    if (sending_ == Sending::kNothing) {
        return std::nullopt;
    }
    last_ = sending_;
    messageSize_ = message.notifications.size();
    return message;
}

// An Alertmanager's refresh and what it is owed take turns, so that neither holds up the other.
Receiver::Sending Receiver::chooseMessage(SteadyTime now, Message& message, DeliveryChanges& changes) {
    const bool spent = sendPace_.minuteSpent(now);
    if (spent && !owed_.empty()) {
        heldTo_ = owed_.rbegin()->first;
    }
    const bool refreshFirst = last_ != Sending::kRefresh || owed_.empty() || spent;
    if (refreshFirst && addRefresh(now, message)) {
        return Sending::kRefresh;
    }
    if (spent) {
        return Sending::kNothing;
    }
    if (addOwed(message, changes)) {
        return Sending::kOwed;
    }
    return addRefused(now, message, changes) ? Sending::kRefused : Sending::kNothing;
}

void Receiver::add(int64_t sequence, const Owed& owed, Message& message, DeliveryChanges& changes) {
    underWay_.push_back(sequence);
    message.notifications.push_back(notificationOf(owed));
    if (accounts_.at(owed.alarm).notified == Notified::kNo) {
        changes.sent.emplace_back(sequence, true);
    }
}

bool Receiver::addOwed(Message& message, DeliveryChanges& changes) {
    if (owed_.empty()) {
        return false;
    }
    const bool held = owed_.begin()->first <= heldTo_;
    const std::size_t most = alertmanager() ? kAlerts : held ? SendPace::kLargest : ofOneFault();
    const std::size_t size = std::min({most, sendPace_.limit(), owed_.size()});
    for (auto owed = owed_.begin(); underWay_.size() < size; ++owed) {
        add(owed->first, owed->second, message, changes);
    }
    message.summed = size > 1 && !alertmanager() ? size : 0;
    return true;
}

// How many of those that are owed next are alarms of one incident, all raised or all over.
std::size_t Receiver::ofOneFault() const {
    const Notification& first = notificationOf(owed_.begin()->second);
    std::size_t size = 1;
    for (auto owed = std::next(owed_.begin()); owed != owed_.end() && size < SendPace::kLargest; ++owed) {
        const Notification& next = notificationOf(owed->second);
        if (first.incident == 0 || next.incident != first.incident || next.raised != first.raised) {
            break;
        }
        ++size;
    }
    return size;
}

bool Receiver::addRefused(SteadyTime now, Message& message, DeliveryChanges& changes) {
    if (sendPace_.halfSpent()) {
        return false;
    }
    const auto ready =
        std::ranges::find_if(refused_, [now](const auto& entry) { return entry.second.retryAt <= now; });
    if (ready == refused_.end()) {
        return false;
    }
    add(ready->first, ready->second, message, changes);
    return true;
}

bool Receiver::addRefresh(SteadyTime now, Message& message) {
    if (!alertmanager() || now < refresh_.due()) {
        return false;
    }
    refresh_.beginMessage();
    auto entry = accounts_.upper_bound(refresh_.position());
    const std::size_t size = std::min(sendPace_.limit(), kAlerts);
    for (; entry != accounts_.end() && message.notifications.size() < size; ++entry) {
        const Account& account = entry->second;
        if (account.notified == Notified::kYes && account.clearOwed == 0 && !account.raise.momentary) {
            message.notifications.push_back(account.raise);
        }
        refresh_.cover(entry->first);
    }
    if (entry == accounts_.end()) {
        refresh_.finish(now);
    }
    return !message.notifications.empty();
}

SteadyTime Receiver::due(SteadyTime now) const {
    SteadyTime due = SteadyTime::max();
    if (sending_ != Sending::kNothing) {
        return due;
    }
    const SteadyTime minuteEnd = sendPace_.minuteEnd();
    if (!owed_.empty()) {
        due = sendPace_.minuteSpent(now) ? minuteEnd : now;
    }
    if (!refused_.empty()) {
        const bool wait = sendPace_.halfSpent() && now < minuteEnd;
        SteadyTime ready = SteadyTime::max();
        for (const auto& [sequence, owed] : refused_) {
            ready = std::min(ready, owed.retryAt);
        }
        due = std::min(due, wait ? std::max(ready, minuteEnd) : ready);
    }
    if (alertmanager() && !accounts_.empty()) {
        due = std::min(due, refresh_.due());
    }
    return due == SteadyTime::max() ? due : std::max(due, sendPace_.retryAt());
}

// What became of it.

DeliveryChanges Receiver::settle(const HttpOutcome& outcome, const Now& now) {
    DeliveryChanges changes;
    statistics_.tried = true;
    if (outcome.taken()) {
        delivered(changes);
    } else {
        ++statistics_.failed;
        statistics_.lastProblem = outcome.problem;
        isRefusal(outcome.status) ? refused(now, changes) : failed(outcome, now, changes);
    }
    sending_ = Sending::kNothing;
    underWay_.clear();
    noteIdle();
    return changes;
}

void Receiver::delivered(DeliveryChanges& changes) {
    const std::vector<int64_t> taken = std::exchange(underWay_, {});
    for (const int64_t sequence : taken) {
        const Owed* const owed = findOwed(sequence);
        if (owed == nullptr) {
            continue;
        }
        const auto account = accounts_.find(owed->alarm);
        if (owed->clear || account->second.raise.momentary) {
            close(account, changes);
        } else {
            account->second.notified = Notified::kYes;
            dropOwed(account->second.raiseOwed, changes);
            changes.notified.push_back(account->second.raise);
        }
    }
    sendPace_.delivered(sending_ == Sending::kRefresh);
    statistics_.delivered += taken.size();
    statistics_.lastProblem.clear();
    statistics_.failingSince.reset();
    statistics_.failingSinceWall.reset();
    ++delivered_;
    gaveUp_ = false;
}

// The receiver itself does well, as far as one can know: what is wrong is looked for at once. Where all is
// refused it is left alone for longer and longer.
void Receiver::refused(const Now& now, DeliveryChanges& changes) {
    const bool again = sending_ == Sending::kRefused && refused_.contains(underWay_.front());
    sendPace_.refused(messageSize_, again, now.steady);
    if (sending_ == Sending::kRefresh) {
        if (messageSize_ > 1) {  // else this one is left out of the refresh
            refresh_.repeatMessage();
        }
    } else {
        const int64_t first = underWay_.front();
        // A message that is refused while others are taken says nothing about the receiver.
        if (again && delivered_ == refused_.at(first).deliveredBefore) {
            noteFailing(now);
        }
        unanswered(false, changes);
        if (messageSize_ == 1) {
            refusedAlone(first, now, changes);
        }
    }
    if (sendPace_.state() == SendPace::State::kRefusing) {
        noteFailing(now);
    }
}

void Receiver::refusedAlone(int64_t sequence, const Now& now, DeliveryChanges& changes) {
    auto entry = refused_.find(sequence);
    if (entry == refused_.end()) {
        auto moved = owed_.extract(sequence);
        if (moved.empty()) {
            return;  // its alarm was over
        }
        moved.mapped().deliveredBefore = delivered_;
        entry = refused_.insert(std::move(moved)).position;
    }
    Owed& owed = entry->second;
    const auto account = accounts_.find(owed.alarm);
    ++owed.refusals;
    owed.retryAt = now.steady + sendPace_.waitAfter(owed.refusals);
    if (owed.clear) {
        // An Alertmanager forgets it by itself. Others are told, however long that takes.
        if (owed.refusals >= kRefusals && alertmanager()) {
            ++statistics_.dropped;
            close(account, changes);
            gaveUp_ = true;
        }
    } else if (owed.refusals >= kRefusals || account->second.clearOwed != 0 || retired_) {
        giveUpRaise(account, changes);
        gaveUp_ = true;
    }
}

void Receiver::failed(const HttpOutcome& outcome, const Now& now, DeliveryChanges& changes) {
    sendPace_.failed(now.steady);
    if (sending_ == Sending::kRefresh) {
        refresh_.restart();
    }
    unanswered(outcome.doubt, changes);
    noteFailing(now);
}

// The message was not taken; in doubt it may have been.
void Receiver::unanswered(bool doubt, DeliveryChanges& changes) {
    const std::vector<int64_t> sent = std::exchange(underWay_, {});
    for (const int64_t sequence : sent) {
        const Owed* const owed = findOwed(sequence);
        if (owed == nullptr || owed->clear) {
            continue;
        }
        const auto found = accounts_.find(owed->alarm);
        Account& account = found->second;
        if (account.notified == Notified::kNo && doubt) {
            account.notified = Notified::kPerhaps;
        } else if (account.notified == Notified::kNo) {
            changes.sent.emplace_back(sequence, false);
        }
        const bool cleared = account.clearOwed != 0;
        if (cleared && account.notified == Notified::kNo) {
            ++statistics_.dropped;
            close(found, changes);
        } else if ((cleared && alertmanager()) || (retired_ && account.notified != Notified::kNo)) {
            dropOwed(account.raiseOwed, changes);
            changes.notified.push_back(account.raise);
        } else if (retired_) {
            close(found, changes);
        }
    }
}

void Receiver::noteFailing(const Now& now) {
    if (!statistics_.failingSince) {
        statistics_.failingSince = now.steady;
        statistics_.failingSinceWall = now.wall;
    }
}

// When all that it could not be told is over it failed nobody.
void Receiver::noteIdle() {
    if (queued() == 0 && !gaveUp_ && !(alertmanager() && !accounts_.empty())) {
        statistics_.failingSince.reset();
        statistics_.failingSinceWall.reset();
    }
}

}  // namespace station
