#include "clocks/accuracyBlock.h"

#include <algorithm>
#include <cmath>

namespace meter {

void AccuracyBlock::add(uint64_t position, Ticks time, Nanoseconds arrival) {
    if (points_.empty()) {
        firstPosition_ = position;
        firstTime_ = time;
    }
    lastTime_ = static_cast<uint32_t>(std::min<Ticks>(time - firstTime_, UINT32_MAX));
    points_.push_back({static_cast<uint32_t>(std::min<uint64_t>(position - firstPosition_, UINT32_MAX)),
                       lastTime_, arrival});
}

bool AccuracyBlock::full() const {
    return points_.size() >= kPcrsLimit ||
           (points_.size() >= kAccuracyBlockPcrs && lastTime_ >= kAccuracyBlockSpan);
}

AccuracyFinding AccuracyBlock::close(bool constant) {
    AccuracyFinding finding;
    beyond_.clear();
    if (constant && points_.size() >= kAccuracyBlockPcrs) {
        // Sums of whole numbers; from the means on in floating point, where values are small.
        uint64_t positions = 0;
        uint64_t times = 0;
        for (const Point& point : points_) {
            positions += point.position;
            times += point.time;
        }
        const auto count = static_cast<double>(points_.size());
        const double meanPosition = static_cast<double>(positions) / count;
        const double meanTime = static_cast<double>(times) / count;
        double square = 0;
        double mixed = 0;
        for (const Point& point : points_) {
            const double position = point.position - meanPosition;
            square += position * position;
            mixed += position * (point.time - meanTime);
        }
        const double slope = square > 0 ? mixed / square : 0;
        for (const Point& point : points_) {
            constexpr double kNsPerTick = 1000.0 / 27;
            const double distance =
                std::fabs(point.time - meanTime - slope * (point.position - meanPosition));
            const double ns = distance * kNsPerTick;
            finding.worstNs = std::max(finding.worstNs, ns);
            if (ns > kAccuracyLimitNs) {
                beyond_.push_back(point.arrival);
            }
        }
        finding.measured = points_.size();
        finding.beyond = beyond_;
    }
    points_.clear();
    return finding;
}

}  // namespace meter
