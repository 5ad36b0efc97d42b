// Metrics of PIDs, and the rows of channels that all metrics go by.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "state/state.h"
#include "tr101290Checks.h"
#include "web/exposition.h"

namespace station {

struct ChannelRow {
    const ChannelState* state;
    std::string labels;    // group
    const Record* stream;  // null when there is no fresh record
    BySource<bool> fresh;  // what the source said last stands
};

// The labels of a check's series.
std::string checkLabels(const records::Check& check);

// Up to so many series of PIDs' checks are told before a check fails; of more each from its first error on.
inline constexpr std::size_t kMetricsPidChecks = 20'000;

// Remembers which checks of which PIDs ever counted an error, so that such a series goes on with 0 when
// counters are cleared; a PID that is not shown is forgotten. One thread.
class PidMetrics {
  public:
    void write(Exposition& out, const std::vector<ChannelRow>& channels, MetricsPids which);

  private:
    // By group and PID, a bit a check of records::kChecks.
    std::unordered_map<uint64_t, uint32_t> failedChecks_;
};

}  // namespace station
