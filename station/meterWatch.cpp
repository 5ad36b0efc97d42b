#include "meterWatch.h"

#include <algorithm>

#include "common/counted.h"

namespace station {

namespace {

constexpr uint64_t kMsPerSecond = 1000;

std::string whyNot(const MeterState& meter, bool seen) {
    if (meter.connected) {
        return meter.silent ? "kestor-meter is connected and reports nothing"
                            : "kestor-meter captures nothing: " + meter.captureProblem;
    }
    if (!meter.problem.empty()) {
        return meter.problem;
    }
    return std::string(seen ? "kestor-meter is not connected"
                            : "kestor-meter has not come since the station's start") +
           ": systemctl status kestor-meter; without one for good set meter_socket = \"\"";
}

}  // namespace

MeterFindings MeterWatch::judge(const MeterState& meter, SteadyTime now) {
    MeterFindings found;
    began_ = began_.value_or(now);
    there_ = meter.connected && !meter.silent;
    const bool measures = there_ && (meter.captureProblem.empty() || meter.groups == 0);
    seen_ = seen_ || measures;
    const LossCounts lost = meter.lost.since(counts_);
    counts_ = meter.lost;
    while (!lost_.empty() && now - lost_.front().first > kLostKept) {
        lost_.pop_front();
    }
    if (there_) {
        const uint64_t asleep = (lost.suspendedMs + kMsPerSecond - 1) / kMsPerSecond;
        found.lost = {lost.frames() + asleep, std::max<uint64_t>(asleep, lost.frames() > 0 ? 1 : 0)};
        if (found.lost->count > 0) {
            lost_.emplace_back(now, lost);
        }
    }
    const bool awaited = seen_ || (expected_ && now - *began_ >= kFirstMeter);
    if (measures) {
        silentSince_.reset();
        found.silent = false;
    } else if (meter.configured && awaited) {
        silentSince_ = silentSince_.value_or(now);
        found.silent = true;
        found.since = *silentSince_;
        found.why = whyNot(meter, seen_);
    }
    return found;
}

std::string MeterWatch::lostIn(std::chrono::seconds time, SteadyTime now) const {
    LossCounts sum;
    for (const auto& [when, lost] : lost_) {
        if (now - when < time) {
            sum += lost;
        }
    }
    std::string text;
    const auto add = [&text](const std::string& what) { text += (text.empty() ? "" : "; ") + what; };
    if (sum.kernel > 0) {
        add(std::to_string(sum.kernel) +
            " by the kernel, since the meter's ring was full (other work on the machine, --ring-mib, "
            "--threads)");
    }
    if (sum.card > 0) {
        add(std::to_string(sum.card) + " by the card (its ring, ethtool -S)");
    }
    if (sum.cut > 0) {
        add(std::to_string(sum.cut) + " that the kernel handed over in part");
    }
    if (sum.suspendedMs > 0) {
        add("the machine slept for " +
            counted((sum.suspendedMs + kMsPerSecond - 1) / kMsPerSecond, "second"));
    }
    return text;
}

}  // namespace station
