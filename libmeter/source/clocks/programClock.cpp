#include "clocks/programClock.h"

#include <algorithm>

#include "checks/checkTable.h"

namespace meter {

// Whole packets that are missing between two PCRs by their distance in time, where it is beyond half a
// packet.
int64_t ProgramClock::missingPackets(Ticks step, uint64_t packets) const {
    const Pace rate = rates_.median();
    const auto rateTicks = static_cast<int64_t>(rate.ticks);
    const int64_t expected = step * rate.packets;  // both times rateTicks
    const auto came = static_cast<int64_t>(std::min<uint64_t>(packets, UINT32_MAX)) * rateTicks;
    const int64_t difference = expected - came;
    const int64_t magnitude = difference < 0 ? -difference : difference;
    if (2 * magnitude <= rateTicks) {
        return 0;
    }
    const int64_t rounded = (magnitude + rateTicks / 2) / rateTicks;
    return difference < 0 ? -rounded : rounded;
}

PcrFinding ProgramClock::pcr(Ticks value, const Moment& moment, Ticks own, bool signalled) {
    rates_.fetch();
    PcrFinding finding;
    const Ticks step = pcrStep(value_, value);
    const uint64_t packets = moment.position - position_;
    bool goesOn = false;
    if (count_ == 0) {
        finding.first = true;
    } else {
        finding.interval = std::max<Ticks>(own - own_, 0);
        highestInterval_ = std::max(highestInterval_, finding.interval);
        intervals_ += finding.interval;
        ++intervalCount_;
        const bool withinLimit = step <= kPcrStepLimit;
        finding.discontinuity = !withinLimit && !signalled;
        signalled_ += signalled ? 1 : 0;
        unsignalled_ += finding.discontinuity ? 1 : 0;
        goesOn = withinLimit && !signalled;
        // A step beyond the limit is a clock that was set, or, where counters tell of packets that are
        // missing there, the time that these took.
        const bool comparable = goesOn || (finding.discontinuity && missing_ && step <= kStepLimit);
        if (comparable && step > 0 && rates_.constant()) {
            finding.compared = true;
            finding.missing = missingPackets(step, packets);
        }
        if (goesOn && step > 0 && packets > 0 && packets <= RecentRates::kPartLimit) {
            rates_.add({static_cast<uint32_t>(step), static_cast<uint32_t>(packets)}, moment.stream);
        }
    }
    if (goesOn) {
        sum_ += step;
    } else {
        offset_.restart();
        sum_ = 0;
    }
    if (!goesOn || finding.missing != 0) {
        finding.accuracy = closeBlock();
        block_.add(moment.position, sum_, moment.arrival);
    } else {
        block_.add(moment.position, sum_, moment.arrival);
        if (block_.full()) {
            finding.accuracy = closeBlock();
        }
    }
    offset_.pcr(moment.arrival, sum_);
    ++count_;
    value_ = value;
    streamTime_ = moment.stream;
    own_ = own;
    position_ = moment.position;
    missing_ = false;
    return finding;
}

AccuracyFinding ProgramClock::packetsMissing() {
    missing_ = true;
    return closeBlock();
}

AccuracyFinding ProgramClock::closeBlock() {
    const AccuracyFinding finding = block_.close(rates_.constant());
    if (finding.measured > 0) {
        lastWorstNs_ = finding.worstNs;
        worstNs_ = std::max(worstNs_, finding.worstNs);
        measured_ += finding.measured;
        over500_ += finding.beyond.size();
    }
    return finding;
}

void ProgramClock::fill(ClockReport& report, bool bare) const {
    const auto ms = [](Ticks ticks) { return static_cast<double>(ticks) / static_cast<double>(kTicksPerMs); };
    if (intervalCount_ > 0) {
        report.intervalHighestMs = ms(highestInterval_);
        report.intervalMeanMs = ms(intervals_) / static_cast<double>(intervalCount_);
    }
    report.accuracyApplicable = rates_.constant();
    if (measured_ > 0) {
        report.worstNs = worstNs_;
        report.lastWorstNs = lastWorstNs_;
    }
    report.over500 = over500_;
    report.measured = measured_;
    if (!bare) {
        report.overallJitterNs = offset_.jitterNs();
        report.frequencyOffsetPpm = offset_.ppm();
    }
    report.signalled = signalled_;
    report.unsignalled = unsignalled_;
}

}  // namespace meter
