// What happens to the analysis of a stream as time goes on: looks for absences, seconds, begin and end.
#include <algorithm>

#include "analyser/streamAnalysis.h"

namespace meter {

void StreamAnalysis::look(Ticks now) {
    const Nanoseconds arrival = momentAt(now).arrival;
    if (bare_ && arrival / kNsPerSecond > second_) {
        endSeconds(arrival);
    }
    const Look at{now, arrival, std::min(lookedAt_, arrival)};
    lookedAt_ = arrival;
    nextLook_ = std::min(presence_->look(at), information_->look(at));
    if (bare_) {
        nextLook_ = std::min(nextLook_, (second_ + 1) * kTicksPerSecond);
    }
    book_.advance(arrival);
}

void StreamAnalysis::advance(Nanoseconds arrival) {
    if (bare_ || arrival < arrival_) {
        return;
    }
    time_.arrived(0);
    if (arrival / kNsPerSecond > second_) {
        endSeconds(arrival);
    }
    book_.advance(arrival);
}

void StreamAnalysis::endSecond(PidRecord& record, int64_t seconds) {
    const uint64_t packets = record.state->packets - record.packetsAtSecond;
    const uint64_t clear = record.state->packets - record.scrambled - record.notRead;
    if (packets > 0) {
        record.keysShown = static_cast<uint8_t>(record.keysInSecond | (clear > record.clearAtSecond ? 1 : 0));
    }
    record.keysInSecond = 0;
    record.packetsAtSecond = record.state->packets;
    record.clearAtSecond = clear;
    record.rates.push(static_cast<uint32_t>(packets));
    record.rates.push(0, seconds - 1);
}

void StreamAnalysis::endSeconds(Nanoseconds arrival) {
    const int64_t second = arrival / kNsPerSecond;
    const int64_t seconds = second - second_;
    const uint64_t received = this->received() - receivedAtSecond_;
    const PidRecord* null = pids_.known(kNullPid);
    const uint64_t nullCount = null != nullptr ? null->state->packets : 0;
    counterRuns_.secondsEnded(seconds);
    clockRuns_.secondsEnded(seconds);
    nullShare_.reset();
    if (received > 0 && seconds == 1) {
        nullShare_ = static_cast<double>(nullCount - nullAtSecond_) / static_cast<double>(received);
    }
    nullAtSecond_ = nullCount;
    receivedAtSecond_ = this->received();
    rates_.push(static_cast<uint32_t>(received));
    rates_.push(0, seconds - 1);
    for (PidRecord* const one : pids_.all()) {
        PidRecord& record = *one;
        endSecond(record, seconds);
    }
    for (PidRecord* record : clocks_) {
        record->clock->secondEnded(second_);
        if (seconds > 1) {
            record->clock->secondEnded(second - 1);
        }
    }
    for (int64_t i = std::min<int64_t>(seconds, kMinuteSeconds); i > 0; --i) {
        media_->secondEnded();
    }
    second_ = second;
    secondEnd_ = (second + 1) * kNsPerSecond;
    roomWanted_ = pids_.refused();
    book_.advance(arrival);
}

void StreamAnalysis::finish() {
    for (PidRecord* record : clocks_) {
        countAccuracy(*record, record->clock->finish());
    }
    if (bare_ && now() / kNsPerSecond > second_) {
        endSeconds(now());
    }
    book_.advance(now());
}

void StreamAnalysis::restart(Nanoseconds arrival) {
    finish();
    advance(arrival);
    book_.endAll(arrival);
    arrival_ = arrival;
    clocks_.clear();
    time_ = {};
    nextLook_ = 0;
    sync_ = {};
    referenced_.reset();
    services_ = std::make_unique<Services>();
    if (excerpt_ != nullptr) {
        excerpt_->gap();
    }
    media_ = std::make_unique<MediaStreams>();
    cues_->restart();
    rates_.clear();
    nullShare_.reset();
    for (PidRecord* const one : pids_.all()) {
        PidRecord& record = *one;
        record.state->lastSeen = -kSilentLimit - 1;  // its place is the next one's who needs one
        record.state->last = nullptr;
        record.state->roles = kUnknownPid;
        record.state->continuity.forget();
        record.key = 0;
        record.keysInSecond = 0;
        record.keysShown = 0;
        record.rates.clear();
        record.unreferencedHeld = false;
        record.unreferencedFrom.reset();
        record.ptsAt.reset();
        record.track = {};
        record.discontinuity = false;
        record.clock.reset();
        record.pcr.reset();
        if (record.sections) {
            record.sections = std::make_unique<SectionAssembler>(record.pid);
            record.state->roles |= kSectionsPid;
        }
    }
    presence_.emplace(settings_, pids_, book_, 0);
    information_.emplace(settings_.serviceInformationRequired, book_, 0);
    modelRevision_ = services_->model().revision;
    applyModel();
}

}  // namespace meter
