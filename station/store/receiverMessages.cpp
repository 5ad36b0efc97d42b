// What a receiver is sent, and what becomes of it.
#include <algorithm>
#include <utility>

#include "store/receiver.h"

namespace station {

namespace {

bool isRefusal(long status) {
    return status == 400 || status == 413 || status == 422;
}

}  // namespace

bool Receiver::exhausted(SteadyTime now) const {
    return sentInMinute_ >= std::max(webhook_.maxPerMinute, 1U) && now < minuteBegan_ + pace_.minute;
}

// An Alertmanager's refresh and what it is owed take turns, so that neither holds up the other.
std::optional<Message> Receiver::next(SteadyTime now, DeliveryChanges& changes) {
    if (busy_ || now < retryAt_) {
        return std::nullopt;
    }
    if (now >= minuteBegan_ + pace_.minute) {
        sentInMinute_ = 0;
        minuteBegan_ = now;
    }
    const bool full = exhausted(now);
    if (full && !owed_.empty()) {
        heldTo_ = owed_.rbegin()->first;
    }
    Message message;
    const bool refreshFirst = !refreshedLast_ || owed_.empty() || full;
    if (refreshFirst && takeRefresh(now, message)) {
        refreshedLast_ = true;
        busy_ = true;
    } else if (!full && (takeOwed(message, changes) || takeRefused(now, message, changes))) {
        refreshedLast_ = false;
        busy_ = true;
    }
    return busy_ ? std::optional(std::move(message)) : std::nullopt;
}

void Receiver::add(int64_t sequence, const Owed& owed, Message& message, DeliveryChanges& changes) {
    underWay_.push_back(sequence);
    message.notifications.push_back(notificationOf(owed));
    if (accounts_.at(owed.alarm).told == Told::kNo) {
        changes.sent.emplace_back(sequence, true);
    }
}

bool Receiver::takeOwed(Message& message, DeliveryChanges& changes) {
    if (owed_.empty()) {
        return false;
    }
    const bool held = owed_.begin()->first <= heldTo_;
    const std::size_t most = alertmanager() ? kAlerts : held ? kListed : 1;
    const std::size_t size = std::min({most, std::max<std::size_t>(limit_, 1), owed_.size()});
    for (auto owed = owed_.begin(); underWay_.size() < size; ++owed) {
        add(owed->first, owed->second, message, changes);
    }
    message.summed = size > 1 && !alertmanager() ? size : 0;
    return true;
}

// Half of the minute stays for what was not refused.
bool Receiver::takeRefused(SteadyTime now, Message& message, DeliveryChanges& changes) {
    if (sentInMinute_ > webhook_.maxPerMinute / 2) {
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

bool Receiver::takeRefresh(SteadyTime now, Message& message) {
    if (!alertmanager() || now < refreshAt_) {
        return false;
    }
    refreshFrom_ = refreshedTo_;
    auto entry = accounts_.upper_bound(refreshedTo_);
    const std::size_t size = std::clamp<std::size_t>(limit_, 1, kAlerts);
    for (; entry != accounts_.end() && message.notifications.size() < size; ++entry) {
        const Account& account = entry->second;
        if (account.told == Told::kYes && account.clearOwed == 0 && !account.raise.momentary) {
            message.notifications.push_back(account.raise);
        }
        refreshedTo_ = entry->first;
    }
    if (entry == accounts_.end()) {
        refreshAt_ = now + pace_.refresh;
        refreshedTo_ = 0;
    }
    refreshing_ = message.notifications.size();
    return refreshing_ > 0;
}

SteadyTime Receiver::due(SteadyTime now) const {
    SteadyTime due = SteadyTime::max();
    if (busy_) {
        return due;
    }
    const SteadyTime minuteEnd = minuteBegan_ + pace_.minute;
    if (!owed_.empty()) {
        due = exhausted(now) ? minuteEnd : now;
    }
    if (!refused_.empty()) {
        const bool wait = sentInMinute_ > webhook_.maxPerMinute / 2 && now < minuteEnd;
        SteadyTime ready = SteadyTime::max();
        for (const auto& [sequence, owed] : refused_) {
            ready = std::min(ready, owed.retryAt);
        }
        due = std::min(due, wait ? std::max(ready, minuteEnd) : ready);
    }
    if (alertmanager() && !accounts_.empty()) {
        due = std::min(due, refreshAt_);
    }
    return due == SteadyTime::max() ? due : std::max(due, retryAt_);
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
    busy_ = false;
    underWay_.clear();
    refreshing_ = 0;
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
            account->second.told = Told::kYes;
            unowe(account->second.raiseOwed, changes);
            changes.told.push_back(account->second.raise);
        }
    }
    sentInMinute_ += taken.empty() ? 0 : 1;
    statistics_.delivered += taken.size();
    statistics_.lastProblem.clear();
    statistics_.failingSince.reset();
    statistics_.failingSinceWall.reset();
    ++taken_;
    failures_ = refusals_ = 0;
    gaveUp_ = false;
    limit_ = std::min(limit_ * 2, kListed);
    retryAt_ = {};
}

// The receiver itself does well, as far as one can know: what is wrong is looked for at once. Where all is
// refused it is left alone for longer and longer.
void Receiver::refused(const Now& now, DeliveryChanges& changes) {
    const std::size_t size = underWay_.empty() ? refreshing_ : underWay_.size();
    if (size > 1) {
        limit_ = (size + 1) / 2;
    }
    const bool again = size == 1 && !underWay_.empty() && refused_.contains(underWay_.front());
    if (!again) {
        ++refusals_;
        if (refusals_ > kQuickRefusals) {
            retryAt_ = now.steady + waitAfter(refusals_ - kQuickRefusals);
        }
    }
    if (underWay_.empty()) {
        if (size > 1) {  // else this one is left out of the refresh
            refreshedTo_ = refreshFrom_;
            refreshAt_ = {};
        }
    } else {
        const int64_t first = underWay_.front();
        // A message that is refused while others are taken says nothing about the receiver.
        if (again && taken_ == refused_.at(first).takenBefore) {
            noteFailing(now);
        }
        unanswered(false, changes);
        if (size == 1) {
            refusedAlone(first, now, changes);
        }
    }
    if (refusals_ > kQuickRefusals) {
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
        moved.mapped().takenBefore = taken_;
        entry = refused_.insert(std::move(moved)).position;
    }
    Owed& owed = entry->second;
    const auto account = accounts_.find(owed.alarm);
    ++owed.refusals;
    owed.retryAt = now.steady + waitAfter(owed.refusals);
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
    retryAt_ = now.steady + waitAfter(++failures_);
    refusals_ = 0;
    if (underWay_.empty()) {
        refreshAt_ = {};
        refreshedTo_ = 0;
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
        if (account.told == Told::kNo && doubt) {
            account.told = Told::kPerhaps;
        } else if (account.told == Told::kNo) {
            changes.sent.emplace_back(sequence, false);
        }
        const bool over = account.clearOwed != 0;
        if (over && account.told == Told::kNo) {
            ++statistics_.dropped;
            close(found, changes);
        } else if ((over && alertmanager()) || (retired_ && account.told != Told::kNo)) {
            unowe(account.raiseOwed, changes);
            changes.told.push_back(account.raise);
        } else if (retired_) {
            close(found, changes);
        }
    }
}

// Doubles with each failure, give or take a fifth.
std::chrono::milliseconds Receiver::waitAfter(unsigned failures) {
    const auto doubled = pace_.firstWait * (int64_t{1} << std::min(std::max(failures, 1U) - 1, 20U));
    const auto wait = std::min<std::chrono::milliseconds>(doubled, pace_.longestWait);
    return wait * std::uniform_int_distribution<int>(80, 120)(random_) / 100;
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
