#include "measures/lossTally.h"

#include <algorithm>

#include "meter.pb.h"

namespace station {

namespace {

uint64_t lossOrNone(int64_t value) {
    return static_cast<uint64_t>(std::max<int64_t>(value, 0));
}

uint64_t lossGrowth(uint64_t before, uint64_t after) {
    return after > before ? after - before : 0;
}

}  // namespace

LossBasis lossBasisOf(const metering::GroupReport& report) {
    const std::string& basis = report.packets().basis();
    return basis == "rtp"       ? LossBasis::kRtp
           : basis == "clock"   ? LossBasis::kClock
           : basis == "counter" ? LossBasis::kCounter
                                : LossBasis::kNone;
}

LossFigures lossOf(const metering::GroupReport& report, bool disturbed) {
    const metering::Packets& packets = report.packets();
    return {.epoch = report.epoch(),
            .disturbed = disturbed,
            .disturbedSeconds = report.disturbed_seconds(),
            .basis = lossBasisOf(report),
            .best = packets.lost(),
            .byCounter = packets.by_counter(),
            .byClock = packets.by_clock(),
            .byRtp = packets.by_rtp(),
            .events = packets.events(),
            .rtpLost = report.network().rtp().lost(),
            .rtpEvents = report.network().rtp().loss_events()};
}

uint64_t LossTally::Highest::raise(int64_t value) {
    const uint64_t more = lossGrowth(value_, lossOrNone(value));
    value_ += more;
    return more;
}

void LossTally::Highest::restart(int64_t value) {
    value_ = lossOrNone(value);
}

void LossTally::follow(const LossFigures& now) {
    if (!last_ || last_->epoch != now.epoch) {
        last_ = LossFigures{.epoch = now.epoch, .basis = now.basis};
        best_ = byClock_ = rtpLost_ = {};
    }
    const LossFigures& before = *last_;
    const uint64_t byCounter = lossGrowth(before.byCounter, now.byCounter);
    uint64_t best = 0;
    uint64_t events = 0;
    if (now.basis == before.basis) {
        best = best_.raise(now.best);
        events = lossGrowth(before.events, now.events);
    } else {
        best_.restart(now.best);
        best = byCounter;
        events = byCounter > 0 ? 1 : 0;
    }
    const bool disturbed = now.disturbed || now.disturbedSeconds > before.disturbedSeconds;
    totals_.best += best;
    totals_.disturbed += disturbed ? best : 0;
    totals_.byCounter += byCounter;
    totals_.byClock += byClock_.raise(now.byClock);
    totals_.byRtp += lossGrowth(before.byRtp, now.byRtp);
    totals_.events += events;
    totals_.rtpLost += rtpLost_.raise(now.rtpLost);
    totals_.rtpEvents += lossGrowth(before.rtpEvents, now.rtpEvents);
    last_ = now;
}

}  // namespace station
