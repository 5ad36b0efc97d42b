#include "alarms/arrivals.h"

#include <algorithm>

#include "alarms/durations.h"

namespace station {

namespace {

using namespace std::chrono_literals;

// A snapshot that comes later than this tells nothing about when within that time packets came.
constexpr double kLateSnapshotSeconds = 3;
// How long after an interruption its gap may still be counted: tables and stamps come within this time.
constexpr auto kGapTime = 1500ms;

SteadyTime::duration fromSeconds(double seconds) {
    return std::chrono::duration_cast<SteadyTime::duration>(std::chrono::duration<double>(seconds));
}

}  // namespace

void Arrivals::awaitFirst() {
    hadSignal_ = false;
    awaitAnew();
    interrupted_ = false;
    settledAt_ = AlarmEngine::kSettlingPackets;
}

void Arrivals::awaitAnew() {
    awaitedSince_.reset();
    missingSince_.reset();
}

void Arrivals::follow(const ChannelSample& sample, uint64_t clockSteps, const Now& now) {
    missingSince_.reset();
    if (!hadSignal_ && !sample.signal && !awaitedSince_) {
        awaitedSince_ = now.steady;
    }
    if (sample.first) {
        settledAt_ = AlarmEngine::kSettlingPackets;
        interrupted_ = false;
    }
    const bool clockWasSet = clockSteps_ != clockSteps;
    if (clockWasSet || (interrupted_ && sample.signal)) {
        settledAt_ = sample.received + AlarmEngine::kSettlingPackets;
    }
    if (clockWasSet || sample.seconds > kLateSnapshotSeconds) {
        holdGaps(now);
    }
    clockSteps_ = clockSteps;
    interrupted_ = !sample.signal;
    if (sample.signal) {
        hadSignal_ = true;
        lastSignal_ = now.steady;
    }
}

SteadyTime Arrivals::miss(const Now& now) {
    missingSince_ = missingSince_.value_or(now.steady);
    return *missingSince_;
}

void Arrivals::holdGaps(const Now& now) {
    gapsHeldUntil_ = std::max(gapsHeldUntil_, now.steady + kGapTime);
}

Finding Arrivals::findSignal(const ChannelSample& sample, const Now& now) const {
    using Look = Finding::Look;
    if (sample.signal) {
        // Of the first sample it is not known when its packets came.
        const bool cameJustNow = !sample.first || sample.seconds > 0;
        return {.look = cameJustNow ? Look::kRight : Look::kUnknown};
    }
    if (!hadSignal_) {
        const SteadyTime since = awaitedSince_.value_or(now.steady);
        return {.look = Look::kWrong,
                .value = inSeconds(now.steady - since),
                .wrongSince = since,
                .moreRaiseDelay = AlarmEngine::kFirstPacketTime};
    }
    const bool late = sample.seconds > kLateSnapshotSeconds;
    return {.look = Look::kWrong,
            .value = inSeconds(now.steady - lastSignal_),
            .wrongSince = late ? now.steady : now.steady - fromSeconds(sample.seconds)};
}

}  // namespace station
