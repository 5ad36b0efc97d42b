#include "store/receiver.h"

#include <algorithm>
#include <set>
#include <utility>

namespace station {

namespace {

bool isRefusal(long status) {
    return status == 400 || status == 413 || status == 422;
}

// A raise that is followed by a clear.
bool isRaise(const Notification& notification) {
    return notification.raised && !notification.momentary;
}

}  // namespace

Receiver::Receiver(const Webhook& webhook, const DeliveryPace& pace)
    : webhook_(webhook), pace_(pace), random_(std::random_device()()) {
    statistics_.url = shownUrl(webhook.url);
}

void Receiver::restore(std::deque<Owed>&& owed, std::map<int64_t, Notification>&& told) {
    owed_ = std::move(owed);
    told_ = std::move(told);
}

Delivery::ReceiverStatistics Receiver::statistics() const {
    Delivery::ReceiverStatistics statistics = statistics_;
    statistics.owed = owed_.size();
    const bool idle = owed_.empty() && !(alertmanager() && !told_.empty());
    statistics.tried = idle || statistics.delivered + statistics.failed > 0;
    return statistics;
}

// What is owed.

std::deque<Owed>::iterator Receiver::findOwed(int64_t alarmId, bool raised) {
    return std::ranges::find_if(owed_, [alarmId, raised](const Owed& owed) {
        const Notification& one = owed.notification;
        return one.alarmId == alarmId && one.raised == raised && !one.momentary;
    });
}

// Whether it was told of the raise, or will be.
bool Receiver::knows(const Notification& notification) {
    return isRaise(notification) &&
           (told_.contains(notification.alarmId) || findOwed(notification.alarmId, true) != owed_.end());
}

void Receiver::drop(const std::deque<Owed>::iterator& owed, DeliveryChanges& changes) {
    changes.settled.push_back(owed->sequence);
    ++statistics_.dropped;
    owed_.erase(owed);
}

void Receiver::append(Notification&& notification, int64_t& lastSequence, DeliveryChanges& changes) {
    while (owed_.size() >= Delivery::kOwedLimit && owed_.size() > underWay_) {
        drop(owed_.begin() + static_cast<std::ptrdiff_t>(underWay_), changes);
    }
    owed_.push_back({++lastSequence, std::move(notification), false});
    changes.owed.push_back(owed_.back());
}

DeliveryChanges Receiver::owe(Notification notification, int64_t& lastSequence) {
    DeliveryChanges changes;
    if (!notification.raised && !notification.momentary) {
        oweClear(std::move(notification), lastSequence, changes);
    } else if (notification.severity <= webhook_.minimumSeverity && !knows(notification)) {
        append(std::move(notification), lastSequence, changes);
    }
    return changes;
}

// A clear goes by the name, labels and severity of its raise: an Alertmanager knows the alert by them.
void Receiver::oweClear(Notification&& clear, int64_t& lastSequence, DeliveryChanges& changes) {
    const auto owed = findOwed(clear.alarmId, true);
    const auto told = told_.find(clear.alarmId);
    if ((owed == owed_.end() && told == told_.end()) || findOwed(clear.alarmId, false) != owed_.end()) {
        return;
    }
    const bool underWay =
        owed != owed_.end() && owed - owed_.begin() < static_cast<std::ptrdiff_t>(underWay_);
    if (owed != owed_.end() && !underWay && !owed->doubt) {
        drop(owed, changes);
        return;
    }
    Notification whole = owed != owed_.end() ? owed->notification : told->second;
    whole.raised = false;
    whole.time = clear.time;
    whole.text = std::move(clear.text);
    whole.value = clear.value;
    append(std::move(whole), lastSequence, changes);
}

DeliveryChanges Receiver::resume(const std::vector<ActiveNotification>& active, int64_t& lastSequence,
                                 WallTime now) {
    DeliveryChanges changes;
    std::set<int64_t> raised;
    for (const ActiveNotification& one : active) {
        raised.insert(one.raise.alarmId);
        if (const auto clear = findOwed(one.raise.alarmId, false); clear != owed_.end()) {
            drop(clear, changes);
        }
    }
    std::set<int64_t> over;
    for (const auto& [id, notification] : told_) {
        if (!raised.contains(id)) {
            over.insert(id);
        }
    }
    for (const Owed& owed : owed_) {
        const int64_t id = owed.notification.alarmId;
        if (isRaise(owed.notification) && !raised.contains(id)) {
            over.insert(id);
        }
    }
    for (const int64_t id : over) {
        Notification clear;
        clear.alarmId = id;
        clear.time = now;
        clear.text = "no longer raised";
        oweClear(std::move(clear), lastSequence, changes);
    }
    for (const ActiveNotification& one : active) {
        if (!one.silenced && one.raise.severity <= webhook_.minimumSeverity && !knows(one.raise)) {
            append(Notification(one.raise), lastSequence, changes);
        }
    }
    return changes;
}

// What is sent.

bool Receiver::exhausted(SteadyTime now) const {
    return sentInMinute_ >= std::max(webhook_.maxPerMinute, 1U) && now < minuteBegan_ + pace_.minute;
}

std::optional<Message> Receiver::next(SteadyTime now) {
    if (busy_ || now < retryAt_) {
        return std::nullopt;
    }
    if (now >= minuteBegan_ + pace_.minute) {
        sentInMinute_ = 0;
        minuteBegan_ = now;
    }
    const bool full = exhausted(now);
    held_ = held_ || (full && !owed_.empty());
    std::optional<Message> message;
    if (!owed_.empty() && !full) {
        message = takeOwed();
    } else if (alertmanager() && !told_.empty() && now >= refreshAt_) {
        message = takeRefresh(now);
    }
    busy_ = message.has_value();
    return message;
}

Message Receiver::takeOwed() {
    Message message;
    underWay_ = 1;
    if (alertmanager()) {
        underWay_ = std::min(owed_.size(), kAlerts);
    } else if (held_) {
        underWay_ = owed_.size();
    }
    listed_ = alertmanager() ? underWay_ : std::min(underWay_, kListed);
    message.summed = underWay_ > 1 && !alertmanager() ? underWay_ : 0;
    std::set<int64_t> alarms;
    for (std::size_t i = 0; i < listed_; ++i) {
        const Notification& notification = owed_[i].notification;
        // A raise and its clear are one alert to an Alertmanager: the clear waits for the next message.
        if (alertmanager() && !alarms.insert(notification.alarmId).second) {
            underWay_ = listed_ = i;
            break;
        }
        message.notifications.push_back(notification);
    }
    return message;
}

Message Receiver::takeRefresh(SteadyTime now) {
    Message message;
    underWay_ = listed_ = 0;
    auto alarm = told_.upper_bound(refreshedTo_);
    for (; alarm != told_.end() && message.notifications.size() < kAlerts; ++alarm) {
        message.notifications.push_back(alarm->second);
        refreshedTo_ = alarm->first;
    }
    if (alarm == told_.end()) {
        refreshAt_ = now + pace_.refresh;
        refreshedTo_ = 0;
    }
    return message;
}

SteadyTime Receiver::due(SteadyTime now) const {
    SteadyTime due = SteadyTime::max();
    if (busy_) {
        return due;
    }
    if (!owed_.empty()) {
        due = std::max(retryAt_, exhausted(now) ? minuteBegan_ + pace_.minute : now);
    }
    if (alertmanager() && !told_.empty()) {
        due = std::min(due, std::max(retryAt_, refreshAt_));
    }
    return due;
}

// What became of it.

DeliveryChanges Receiver::settle(const HttpOutcome& outcome, const Now& now) {
    DeliveryChanges changes = outcome.taken() ? delivered(now.steady) : failed(outcome, now);
    busy_ = false;
    underWay_ = listed_ = 0;
    return changes;
}

DeliveryChanges Receiver::delivered(SteadyTime) {
    DeliveryChanges changes;
    for (std::size_t i = 0; i < underWay_; ++i) {
        Owed& owed = owed_.front();
        Notification& notification = owed.notification;
        changes.settled.push_back(owed.sequence);
        if (!notification.raised) {
            told_.erase(notification.alarmId);
            changes.over.push_back(notification.alarmId);
        } else if (isRaise(notification) && i < listed_) {
            if (told_.size() >= kToldLimit) {
                changes.over.push_back(told_.begin()->first);
                told_.erase(told_.begin());
            }
            changes.told.push_back(notification);
            told_.insert_or_assign(notification.alarmId, std::move(notification));
        }
        owed_.pop_front();
    }
    if (underWay_ > 0) {
        ++sentInMinute_;
        held_ = false;
    }
    statistics_.delivered += underWay_;
    statistics_.lastProblem.clear();
    statistics_.failingSince.reset();
    statistics_.failingSinceWall.reset();
    failures_ = 0;
    refusals_ = 0;
    retryAt_ = {};
    return changes;
}

DeliveryChanges Receiver::failed(const HttpOutcome& outcome, const Now& now) {
    DeliveryChanges changes;
    ++statistics_.failed;
    statistics_.lastProblem = outcome.problem;
    if (!statistics_.failingSince) {
        statistics_.failingSince = now.steady;
        statistics_.failingSinceWall = now.wall;
    }
    const auto doubled = pace_.firstWait * (int64_t{1} << std::min(failures_++, 20U));
    const auto wait = std::min<std::chrono::milliseconds>(doubled, pace_.longestWait);
    retryAt_ = now.steady + wait * std::uniform_int_distribution<int>(80, 120)(random_) / 100;
    refreshAt_ = underWay_ == 0 ? SteadyTime{} : refreshAt_;
    refreshedTo_ = 0;
    refusals_ = isRefusal(outcome.status) ? refusals_ + 1 : 0;
    if (refusals_ >= kRefusals) {
        for (; underWay_ > 0; --underWay_) {
            drop(owed_.begin(), changes);
        }
        refusals_ = 0;
    }
    std::set<int64_t> over;  // before they could be told
    for (std::size_t i = 0; i < underWay_; ++i) {
        Owed& owed = owed_[i];
        owed.doubt = owed.doubt || outcome.doubt;
        const int64_t id = owed.notification.alarmId;
        if (isRaise(owed.notification) && !owed.doubt && findOwed(id, false) != owed_.end()) {
            over.insert(id);
        }
    }
    for (const int64_t id : over) {
        drop(findOwed(id, true), changes);
        drop(findOwed(id, false), changes);
    }
    return changes;
}

}  // namespace station
