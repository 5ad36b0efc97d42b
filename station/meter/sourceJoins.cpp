#include "meter/sourceJoins.h"

namespace station {

bool SourceJoins::update(const Meter& meter, SteadyTime now) {
    const bool settled = meter.connected && now - meter.since >= kSettles;
    if (meter.connected) {
        lastConnected_ = now;
    }
    if (settled) {
        lastSettled_ = now;
    }
    const bool before = byMeter_;
    if (byMeter_) {
        byMeter_ = now - lastConnected_ <= kGone && now - lastSettled_ <= kUnsettled;
    } else {
        byMeter_ = settled && !meter.joinsFail;
    }
    return byMeter_ != before;
}

}  // namespace station
