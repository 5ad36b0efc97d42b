// Metrics of what the meter measures, and of the meter itself.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "meter/meterReport.h"
#include "meter/meterState.h"
#include "web/exposition.h"
#include "web/pidMetrics.h"

namespace station {

// Of one channel so many are told, the first of its report, whatever its stream says; what is left out is
// counted (kestor_meter_series_left_out).
inline constexpr std::size_t kMetricsClocks = 64;
inline constexpr std::size_t kMetricsServices = 64;
inline constexpr std::size_t kMetricsStreams = 128;
inline constexpr std::size_t kMetricsMeterPids = 256;

// Writes the families `kestor_ts_...`, `kestor_net_...`, `kestor_rtp_...`, `kestor_transport_info`,
// `kestor_service_...`, `kestor_video_...`, `kestor_audio_...`, `kestor_gop_...` and `kestor_cue...`: of
// channels that have a report of the last kMeterReportHolds, by a meter that captures. What is not known is
// left out, and so is a check that cannot be judged. A report is read and forgotten before the next one is,
// since read it takes up to a hundred times its room. One thread. `reports` in the order of groups, as
// `channels`.
void writeMeterFigures(Exposition& out, const std::vector<ChannelRow>& channels, const MeterReports& reports,
                       MetricsPids which, SteadyTime now);

// The families `kestor_meter_...`; none where no meter is configured, `kestor_meter_up` alone where none is
// connected.
void writeMeter(Exposition& out, const MeterState& meter);

}  // namespace station
