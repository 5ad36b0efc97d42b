// The event store's notes of what was observed, for reports.
#include "store/eventStoreParts.h"

namespace station {

void EventStore::Implementation::observe(const Now& now) {
    const std::lock_guard lock(mutex_);
    const auto lasts = [&] {
        const auto passed = now.steady - observedAt_->steady;
        const auto stepped = (now.wall - observedAt_->wall) - passed;
        return passed <= kObservedGap && stepped <= kClockStep && -stepped <= kClockStep;
    };
    if (observedAt_ && !observed_.empty() && lasts()) {
        observed_.back().until = std::max(observed_.back().until, now.wall);
    } else {
        observed_.push_back({now.wall, now.wall});
        if (observed_.size() > kObservedSpans) {
            observed_.pop_front();
        }
    }
    observedAt_ = now;
}

void EventStore::Implementation::watch(std::vector<Group>&& groups) {
    const std::lock_guard lock(mutex_);
    watched_ = std::move(groups);
    watchedSince_ = clock_().wall;
    toldWatched_ = true;
}

// Writes what was observed, behind the events of that time. A file never claims to know a time of which it
// lacks events.
void EventStore::Implementation::noteTimes() {
    std::optional<WallTime> since;
    std::vector<Group> groups;
    std::vector<Span> spans;
    {
        const std::lock_guard lock(mutex_);
        since = watchedSince_;
        if (since) {
            groups = watched_;
        }
        spans = observedDue_;
    }
    if (since) {
        database_->noteWatched(groups, *since);
        const std::lock_guard lock(mutex_);
        if (watchedSince_ == since) {
            watchedSince_.reset();
        }
    }
    if (const int known = meterKnown; known >= 0 && known != meterNoted_) {
        database_->noteMeter(known != 0);
        meterNoted_ = known;
    }
    if (spans.empty()) {
        return;
    }
    database_->noteObserved(spans);
    noteObservedAt_ = Clock::now() + kObservedInterval;
    const std::lock_guard lock(mutex_);
    observedDue_.clear();
    while (observed_.size() > 1 && observed_.front().from != spans.back().from) {
        observed_.pop_front();
    }
}

// The file is a new one, without the events of the time before.
void EventStore::Implementation::forgetTimes() {
    meterNoted_ = -1;
    const std::lock_guard lock(mutex_);
    observed_.clear();
    observedDue_.clear();
    observedAt_.reset();
    if (toldWatched_) {
        watchedSince_ = clock_().wall;
    }
}

}  // namespace station
