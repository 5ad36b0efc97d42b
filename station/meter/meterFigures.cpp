#include "meter/meterFigures.h"

#include <algorithm>
#include <cmath>

#include "measures/meterSample.h"

namespace station {

namespace {

constexpr const Measure& kLossEvents = measureOf("meter.lossEvents");
constexpr const Measure& kContinuity = measureOf("meter.Continuity_count_error");
constexpr const Measure& kCues = measureOf("meter.cues");
constexpr const Measure& kLossRun = measureOf("meter.lossRun");
constexpr const Measure& kLossBasis = measureOf("meter.lossBasis");
constexpr const Measure& kConstant = measureOf("meter.constant");
constexpr const Measure& kNotConstant = measureOf("meter.notConstant");
constexpr const Measure& kVideoMissing = measureOf("meter.videoMissing");
constexpr const Measure& kAudioMissing = measureOf("meter.audioMissing");

// The rates that tell whether it is constant are those of the latest 10 s.
constexpr double kRatesSeconds = 12;
// As many packets as fit into a datagram of Ethernet, of a flow that does not say.
constexpr uint64_t kMostPackets = 7;

uint64_t growth(uint64_t before, uint64_t after) {
    return after > before ? after - before : 0;
}

// At most ChannelSample::kAllOfIt.
uint64_t sumOf(uint64_t a, uint64_t b) {
    return a > ChannelSample::kAllOfIt - b ? ChannelSample::kAllOfIt : a + b;
}
uint64_t timesOf(uint64_t a, uint64_t b) {
    return b != 0 && a > ChannelSample::kAllOfIt / b ? ChannelSample::kAllOfIt : a * b;
}

}  // namespace

void MeterFigures::cover(const MeterFigures& before) {
    if (before.sample.epoch != sample.epoch) {
        return;
    }
    sample.disturbed = sample.disturbed || before.sample.disturbed;
    sample.ownFrames = sumOf(sample.ownFrames, before.sample.ownFrames);
    sample.ownPackets = sumOf(sample.ownPackets, before.sample.ownPackets);
    double& run = sample.level(kLossRun);
    run = std::fmax(run, before.sample.level(kLossRun));  // the one that is known, where one is
}

MeterFigures ReportReader::read(const metering::GroupReport& report, const OwnLoss& own, const Now& now) {
    MeterFigures figures{report.group(), now, readTotals(report)};
    ChannelSample& sample = figures.sample;
    if (!last_ || last_->epoch != sample.epoch || sample.received < last_->received) {
        *this = ReportReader();
    }
    sample.came = now.wall;
    sample.count(kCues).total = cues_;
    // Some seconds may not have been told.
    const bool untold = last_ && report.disturbed_seconds() > disturbedSeconds_ && own.frames == 0;
    takeOwnLoss(report, untold ? OwnLoss{OwnLoss::kUnknown, true} : own, sample);
    const double seconds = last_ ? std::max(report.seconds() - seconds_, 0.0) : 0;
    findRun(report.packets(), sample);
    followStreams(report, seconds, sample);
    followRate(report, seconds, sample);
    longest_ = report.packets().longest();
    seconds_ = report.seconds();
    disturbedSeconds_ = report.disturbed_seconds();
    last_ = sample;
    return figures;
}

void ReportReader::takeOwnLoss(const metering::GroupReport& report, const OwnLoss& own,
                               ChannelSample& sample) {
    const uint64_t told = report.flow().packets_per_datagram();
    sample.disturbed = own.much;
    sample.ownFrames = own.frames;
    sample.ownPackets = timesOf(own.frames, told == 0 ? kMostPackets : told);
}

// The longest run of the latest seconds may have been told in the report before; no run is longer than what
// was lost since.
void ReportReader::findRun(const metering::Packets& packets, ChannelSample& sample) const {
    if (!last_) {
        return;
    }
    const uint64_t lost = lossGrowth(sample, *last_);
    uint64_t run = 0;
    if (packets.has_longest_lately()) {
        run = std::min(packets.longest_lately(), lost);
    } else if (sample.state(kLossBasis) != last_->state(kLossBasis)) {
        return;
    } else {  // a meter that tells the longest of all alone: what a shorter one has, the counts bound
        const uint64_t events = growth(last_->count(kLossEvents).total, sample.count(kLossEvents).total);
        const uint64_t mean = events == 0 ? 0 : (lost + events - 1) / events;
        run = packets.longest() > longest_ ? packets.longest() : mean;
    }
    sample.level(kLossRun) = static_cast<double>(run);
}

void ReportReader::followStreams(const metering::GroupReport& report, double seconds, ChannelSample& sample) {
    const bool signal = last_ && sample.received > last_->received && !sample.disturbed;
    for (auto& [pid, stream] : streams_) {
        stream.listed = false;
    }
    for (const metering::Pid& pid : report.pid()) {
        const bool video = pid.kind() == "video";
        if (!video && pid.kind() != "audio") {
            continue;
        }
        const auto number = static_cast<uint16_t>(pid.pid());
        if (!streams_.contains(number) && streams_.size() == kStreams) {
            continue;
        }
        Stream& stream = streams_[number];
        const bool came = pid.packets() > stream.packets;
        stream.video = video;
        stream.listed = true;
        stream.packets = pid.packets();
        if (came) {
            stream.steady += seconds;
            stream.without = stream.silent = 0;
        } else if (signal) {
            stream.without += seconds;
            // By stream time, which may run ahead; an older meter does not tell it.
            stream.silent = pid.has_silent_ms() ? std::fmin(pid.silent_ms() / 1000, stream.without + seconds)
                                                : stream.without;
            stream.steady = stream.steady >= kSteadySeconds ? stream.steady : 0;
        }
    }
    std::erase_if(streams_, [](const auto& entry) { return !entry.second.listed; });
    watched_ += signal ? seconds : 0;
    if (signal) {
        sample.state(kVideoMissing) = missing(true);
        sample.state(kAudioMissing) = missing(false);
    }
}

// Streams that are silent from the first report on may never have been there, or be what an alarm is about.
int ReportReader::missing(bool video) const {
    int silent = 0;
    bool steady = false;
    bool allCome = true;
    bool any = false;
    for (const auto& [pid, stream] : streams_) {
        if (stream.video == video) {
            any = true;
            steady = steady || stream.steady >= kSteadySeconds;
            allCome = allCome && stream.silent == 0;
            silent += stream.steady >= kSteadySeconds && stream.silent >= kMissingSeconds ? 1 : 0;
        }
    }
    return steady || (any ? allCome : watched_ >= kUnlistedSeconds) ? silent : kUnknownState;
}

// Loss leaves gaps between clock references, so that rates differ for as long as these are looked at.
void ReportReader::followRate(const metering::GroupReport& report, double seconds, ChannelSample& sample) {
    const bool lost = last_ && (lossGrowth(sample, *last_) > 0 ||
                                sample.count(kContinuity).total > last_->count(kContinuity).total);
    const bool interrupted = !last_ || sample.received == last_->received || sample.disturbed;
    sinceLoss_ = lost || interrupted ? 0 : sinceLoss_ + seconds;
    if (sinceLoss_ < kRatesSeconds || !report.bitrate().has_constant()) {
        return;
    }
    const bool constant = sample.state(kConstant) == 1;
    constantFor_ = constant ? constantFor_ + seconds : 0;
    wasConstant_ = wasConstant_ || constantFor_ >= kConstantSeconds;
    if (constant || wasConstant_) {  // else it is not known whether it was before the first report
        sample.state(kNotConstant) = constant ? 0 : 1;
    }
}

}  // namespace station
