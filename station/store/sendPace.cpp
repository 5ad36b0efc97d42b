#include "store/sendPace.h"

#include <algorithm>

namespace station {

SendPace::State SendPace::state() const {
    if (refusals_ > 0) {
        return refusals_ > kQuickRefusals ? State::kRefusing : State::kSplitting;
    }
    return failures_ > 0 ? State::kFailing : State::kTaking;
}

void SendPace::enterMinute(SteadyTime now) {
    if (now >= minuteEnd()) {
        sentInMinute_ = 0;
        minuteBegan_ = now;
    }
}

bool SendPace::minuteSpent(SteadyTime now) const {
    return sentInMinute_ >= std::max(perMinute_, 1U) && now < minuteEnd();
}

void SendPace::delivered(bool refresh) {
    sentInMinute_ += refresh ? 0 : 1;
    failures_ = refusals_ = 0;
    limit_ = std::min(limit_ * 2, kLargest);
    retryAt_ = {};
}

void SendPace::refused(std::size_t size, bool repeated, SteadyTime now) {
    if (size > 1) {
        limit_ = (size + 1) / 2;
    }
    if (!repeated && ++refusals_ > kQuickRefusals) {
        retryAt_ = now + waitAfter(refusals_ - kQuickRefusals);
    }
}

void SendPace::failed(SteadyTime now) {
    retryAt_ = now + waitAfter(++failures_);
    refusals_ = 0;
}

std::chrono::milliseconds SendPace::waitAfter(unsigned failures) {
    const auto doubled = pace_.firstWait * (int64_t{1} << std::min(std::max(failures, 1U) - 1, 20U));
    const auto wait = std::min<std::chrono::milliseconds>(doubled, pace_.longestWait);
    return wait * std::uniform_int_distribution<int>(80, 120)(random_) / 100;
}

}  // namespace station
