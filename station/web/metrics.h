// What the station knows, as metrics for Prometheus. docs/station.md lists them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "state/state.h"
#include "store/delivery.h"
#include "store/eventStore.h"
#include "web/exposition.h"
#include "web/meterMetrics.h"
#include "web/pidMetrics.h"
#include "web/server.h"

namespace station {

inline constexpr std::string_view kMetricsContentType = "text/plain; version=0.0.4; charset=utf-8";

// How long after the last snapshot the streams' values still stand, once the probe is silent.
inline constexpr std::chrono::seconds kMetricsStaleAfter{10};

// Up to so many alarms that are configured and not raised are told of as 0; of more the raised ones alone are
// told.
inline constexpr std::size_t kMetricsAlarms = 50'000;

// What the station tells of itself beside its state.
struct MetricsExtras {
    std::string_view version;
    EventStore::Statistics store;
    std::vector<Delivery::ReceiverStatistics> delivery;
    ServerStatistics server;
    MinuteStore::Statistics history{};
    std::function<MeterReports()> meterReports{};  // any thread; empty for none
};

// Writes the metrics of a state. One thread.
//
// A text for 1000 channels of ten PIDs has 13 MB and takes 20 ms; 31 MB and 45 ms once every check of every
// PID failed.
class MetricsWriter {
  public:
    // `flush` as Exposition has it: what it took out of the text is missing in what is returned.
    std::string text(const StationState& state, const MetricsExtras& extras,
                     const Exposition::Flush& flush = {});

  private:
    PidMetrics pids_;
};

}  // namespace station
