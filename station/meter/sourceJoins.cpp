#include "meter/sourceJoins.h"

namespace station {

bool SourceJoins::update(const Meter& meter, SteadyTime now) {
    const bool settled = meter.connected && now - meter.since >= kSettles && meter.joinedAll;
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
        byMeter_ = settled;
    }
    return byMeter_ != before;
}

}  // namespace station
