// Which figures of a report are metrics, and under which names: one row each.
#pragma once

#include <array>
#include <limits>
#include <optional>
#include <string_view>

#include "meter/meterReport.h"
#include "meter/report.h"
#include "web/exposition.h"

namespace station::figures {

using enum MetricType;

inline constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();
inline constexpr double kMsPerSecond = 1e3;
inline constexpr double kNsPerSecond = 1e9;

// Rows of one family stand together, and `more` tells their series apart.
template <typename Of>
struct Figure {
    MetricFamily family;
    double (*value)(const Of&);  // NaN while it is not known
    std::string_view more{};     // as appendLabel() makes it
};

// A report, and what is known of the channel beside it.
struct ReportedStream {
    const meter::Report& report;
    const MeterTallies& tallies;
};

template <typename Value>
double known(const std::optional<Value>& value, double divisor = 1) {
    return value ? static_cast<double>(*value) / divisor : kUnknown;
}
inline double known(uint64_t value) {
    return static_cast<double>(value);
}
template <typename Value>
double ofFlow(const ReportedStream& stream, Value meter::FlowReport::*member) {
    return stream.report.flow ? known(*stream.report.flow.*member) : kUnknown;
}
inline double ofFlow(const ReportedStream& stream, uint64_t meter::FlowReport::*member) {
    return stream.report.flow ? known((*stream.report.flow).*member) : kUnknown;
}
template <typename Value>
double ofNetwork(const ReportedStream& stream, std::optional<Value> meter::NetworkReport::*member,
                 double divisor = 1) {
    return stream.report.network ? known((*stream.report.network).*member, divisor) : kUnknown;
}
inline const meter::RtpReport* rtpOf(const ReportedStream& stream) {
    return stream.report.network && stream.report.network->rtp ? &*stream.report.network->rtp : nullptr;
}
inline double ofRtp(const ReportedStream& stream, uint64_t meter::RtpReport::*member) {
    const meter::RtpReport* const rtp = rtpOf(stream);
    return rtp != nullptr ? known(rtp->*member) : kUnknown;
}
inline double basisIs(const ReportedStream& stream, std::string_view basis) {
    return stream.report.packets.lost.basis == basis ? 1 : kUnknown;
}

// clang-format off
inline constexpr auto kOfChannel = std::to_array<Figure<ReportedStream>>({
    {{"kestor_ts_measured_seconds", kGauge, "Time since the meter began to measure the channel, and its counters to count."},
     [](const ReportedStream& s) { return s.report.seconds; }},
    {{"kestor_ts_disturbed_seconds_total", kCounter, "Seconds in which this machine dropped frames or captured nothing: losses may be its own."},
     [](const ReportedStream& s) { return s.report.live ? known(s.report.live->disturbedSeconds) : kUnknown; }},
    {{"kestor_ts_join_latency_seconds", kGauge, "Time from the meter's own join to the first datagram."},
     [](const ReportedStream& s) { return s.report.live ? known(s.report.live->joinLatencyMs, kMsPerSecond) : kUnknown; }},

    {{"kestor_ts_packets_total", kCounter, "Transport packets received."},
     [](const ReportedStream& s) { return known(s.report.packets.received); }},
    {{"kestor_ts_null_packets_total", kCounter, "Null packets among them."},
     [](const ReportedStream& s) { return known(s.report.packets.null); }},
    {{"kestor_ts_scrambled_packets_total", kCounter, "Scrambled packets among them."},
     [](const ReportedStream& s) { return known(s.report.packets.scrambled); }},
    {{"kestor_ts_repeated_packets_total", kCounter, "Packets that came a second time, which is legal and no loss."},
     [](const ReportedStream& s) { return known(s.report.packets.repeated); }},
    {{"kestor_ts_lost_packets_total", kCounter, "Transport packets missing: basis=\"best\" is the best known figure, the others each way of counting; never to be summed up."},
     [](const ReportedStream& s) { return s.report.packets.lost.packets ? known(s.tallies.loss.best) : kUnknown; }, "basis=\"best\""},
    {{"kestor_ts_lost_packets_total", kCounter, ""},
     [](const ReportedStream& s) { return s.report.packets.lost.byRtp ? known(s.tallies.loss.byRtp) : kUnknown; }, "basis=\"rtp\""},
    {{"kestor_ts_lost_packets_total", kCounter, ""},
     [](const ReportedStream& s) { return s.report.packets.lost.byClock ? known(s.tallies.loss.byClock) : kUnknown; }, "basis=\"clock\""},
    {{"kestor_ts_lost_packets_total", kCounter, ""},
     [](const ReportedStream& s) { return known(s.tallies.loss.byCounter); }, "basis=\"counter\""},
    {{"kestor_ts_disturbed_lost_packets_total", kCounter, "Of the best known figure of lost packets, those found missing while this machine dropped frames or captured nothing: they may be its own."},
     [](const ReportedStream& s) { return s.report.packets.lost.packets ? known(s.tallies.loss.disturbed) : kUnknown; }},
    {{"kestor_ts_loss_basis", kGauge, "Always 1; which way of counting the best known figure of lost packets is by."},
     [](const ReportedStream& s) { return basisIs(s, "rtp"); }, "basis=\"rtp\""},
    {{"kestor_ts_loss_basis", kGauge, ""}, [](const ReportedStream& s) { return basisIs(s, "clock"); }, "basis=\"clock\""},
    {{"kestor_ts_loss_basis", kGauge, ""}, [](const ReportedStream& s) { return basisIs(s, "counter"); }, "basis=\"counter\""},
    {{"kestor_ts_loss_events_total", kCounter, "Runs of lost packets."},
     [](const ReportedStream& s) { return s.report.packets.lost.packets ? known(s.tallies.loss.events) : kUnknown; }},
    {{"kestor_ts_longest_loss_packets", kGauge, "The longest run of lost packets so far."},
     [](const ReportedStream& s) { return known(s.report.packets.lost.longest); }},
    {{"kestor_ts_longest_loss_seconds", kGauge, "How long that lasted."},
     [](const ReportedStream& s) { return known(s.report.packets.lost.longestMs, kMsPerSecond); }},

    {{"kestor_ts_bitrate_bps", kGauge, "Bit rate of the last second."},
     [](const ReportedStream& s) { return known(s.report.bitrate.bps); }},
    {{"kestor_ts_bitrate_lowest_bps", kGauge, "Lowest bit rate of a second in the last minute."},
     [](const ReportedStream& s) { return known(s.report.bitrate.lowest); }},
    {{"kestor_ts_bitrate_highest_bps", kGauge, "Highest bit rate of a second in the last minute."},
     [](const ReportedStream& s) { return known(s.report.bitrate.highest); }},
    {{"kestor_ts_bitrate_clock_bps", kGauge, "Bit rate by the stream's own clock."},
     [](const ReportedStream& s) { return known(s.report.bitrate.byClock); }},
    {{"kestor_ts_bitrate_constant", kGauge, "1 while the bit rate is constant by the stream's clock, 0 while it is not."},
     [](const ReportedStream& s) { return known(s.report.bitrate.constant); }},
    {{"kestor_ts_null_ratio", kGauge, "Share of null packets in the last second, 0 to 1."},
     [](const ReportedStream& s) { return known(s.report.bitrate.nullShare); }},
    {{"kestor_ts_utc_offset_seconds", kGauge, "Time of the stream's TDT less this machine's."},
     [](const ReportedStream& s) { return known(s.report.transport.utcOffsetMs, kMsPerSecond); }},
    {{"kestor_ts_changes_total", kCounter, "Changes of flow and tables since the station was started or the channel added."},
     [](const ReportedStream& s) { return known(s.tallies.changes); }},
    {{"kestor_cues_total", kCounter, "Cues (SCTE 35) since the station was started or the channel added, each once."},
     [](const ReportedStream& s) { return known(s.tallies.cues); }},
    {{"kestor_cue_errors_total", kCounter, "Cues that could not be read."},
     [](const ReportedStream& s) { return known(s.report.cuesEncrypted); }, "reason=\"encrypted\""},
    {{"kestor_cue_errors_total", kCounter, ""},
     [](const ReportedStream& s) { return known(s.report.cuesMalformed); }, "reason=\"malformed\""},

    {{"kestor_net_datagrams_total", kCounter, "Datagrams of the channel's flow."},
     [](const ReportedStream& s) { return ofFlow(s, &meter::FlowReport::datagrams); }},
    {{"kestor_net_malformed_datagrams_total", kCounter, "Datagrams that carry neither transport packets nor RTP."},
     [](const ReportedStream& s) { return ofFlow(s, &meter::FlowReport::malformed); }},
    {{"kestor_net_fragments_total", kCounter, "IP fragments, which are not put together."},
     [](const ReportedStream& s) { return ofFlow(s, &meter::FlowReport::fragments); }},
    {{"kestor_net_other_flow_datagrams_total", kCounter, "Datagrams of other senders or ports to the group, which are not measured."},
     [](const ReportedStream& s) { return ofFlow(s, &meter::FlowReport::otherFlows); }},
    {{"kestor_net_fec_datagrams_total", kCounter, "Datagrams of SMPTE 2022-1 protection."},
     [](const ReportedStream& s) { return ofFlow(s, &meter::FlowReport::fec); }},
    {{"kestor_net_packets_per_datagram", kGauge, "Transport packets in a datagram."},
     [](const ReportedStream& s) { return ofFlow(s, &meter::FlowReport::packetsPerDatagram); }},
    {{"kestor_net_ttl", kGauge, "IPv4 time to live of the latest datagram."},
     [](const ReportedStream& s) { return ofFlow(s, &meter::FlowReport::ttl); }},
    {{"kestor_net_dscp", kGauge, "Differentiated services code point of the latest datagram."},
     [](const ReportedStream& s) { return ofFlow(s, &meter::FlowReport::dscp); }},
    {{"kestor_net_interarrival_seconds", kGauge, "Times between datagrams in the last second."},
     [](const ReportedStream& s) { return ofNetwork(s, &meter::NetworkReport::interArrivalLowestMs, kMsPerSecond); }, "stat=\"lowest\""},
    {{"kestor_net_interarrival_seconds", kGauge, ""},
     [](const ReportedStream& s) { return ofNetwork(s, &meter::NetworkReport::interArrivalMeanMs, kMsPerSecond); }, "stat=\"mean\""},
    {{"kestor_net_interarrival_seconds", kGauge, ""},
     [](const ReportedStream& s) { return ofNetwork(s, &meter::NetworkReport::interArrivalHighestMs, kMsPerSecond); }, "stat=\"highest\""},
    {{"kestor_net_interarrival_seconds", kGauge, ""},
     [](const ReportedStream& s) { return ofNetwork(s, &meter::NetworkReport::interArrivalP99Ms, kMsPerSecond); }, "stat=\"p99\""},
    {{"kestor_net_delay_factor_seconds", kGauge, "Delay factor of the Media Delivery Index (RFC 4445) in the last second."},
     [](const ReportedStream& s) { return ofNetwork(s, &meter::NetworkReport::delayFactorMs, kMsPerSecond); }},
    {{"kestor_net_delay_factor_highest_seconds", kGauge, "Highest delay factor so far."},
     [](const ReportedStream& s) { return ofNetwork(s, &meter::NetworkReport::delayFactorHighestMs, kMsPerSecond); }},
    {{"kestor_net_media_lost_packets_total", kCounter, "Sum of the media loss rates (RFC 4445) of all seconds since the station was started or the channel added: packets lost or out of order."},
     [](const ReportedStream& s) { return known(s.tallies.mediaLost); }},
    {{"kestor_net_media_loss_rate_highest", kGauge, "Highest media loss rate so far, in packets of a second."},
     [](const ReportedStream& s) { return ofNetwork(s, &meter::NetworkReport::lossRateHighest); }},

    {{"kestor_rtp_received_total", kCounter, "RTP datagrams received, without repeated ones."},
     [](const ReportedStream& s) { return ofRtp(s, &meter::RtpReport::received); }},
    {{"kestor_rtp_lost_total", kCounter, "RTP datagrams lost (RFC 3550: expected less received)."},
     [](const ReportedStream& s) { return rtpOf(s) != nullptr ? known(s.tallies.loss.rtpLost) : kUnknown; }},
    {{"kestor_rtp_loss_events_total", kCounter, "Runs of lost RTP datagrams."},
     [](const ReportedStream& s) { return rtpOf(s) != nullptr ? known(s.tallies.loss.rtpEvents) : kUnknown; }},
    {{"kestor_rtp_longest_loss_datagrams", kGauge, "The longest run of lost RTP datagrams so far."},
     [](const ReportedStream& s) { return ofRtp(s, &meter::RtpReport::longestBurst); }},
    {{"kestor_rtp_repeated_total", kCounter, "RTP datagrams that came twice."},
     [](const ReportedStream& s) { return ofRtp(s, &meter::RtpReport::repeated); }},
    {{"kestor_rtp_reordered_total", kCounter, "RTP datagrams that came out of order."},
     [](const ReportedStream& s) { return ofRtp(s, &meter::RtpReport::outOfOrder); }},
    {{"kestor_rtp_jitter_seconds", kGauge, "Inter-arrival jitter (RFC 3550, 6.4.1)."},
     [](const ReportedStream& s) { return rtpOf(s) != nullptr ? known(rtpOf(s)->jitterMs, kMsPerSecond) : kUnknown; }},
    {{"kestor_rtp_timestamp_steps_total", kCounter, "Steps of the RTP time stamp off arrival by over 1 s."},
     [](const ReportedStream& s) { return ofRtp(s, &meter::RtpReport::timestampSteps); }},
    {{"kestor_rtp_ssrc_changes_total", kCounter, "Changes of the RTP synchronisation source."},
     [](const ReportedStream& s) { return ofRtp(s, &meter::RtpReport::ssrcChanges); }},
    {{"kestor_rtp_payload_type", kGauge, "RTP payload type."},
     [](const ReportedStream& s) { return rtpOf(s) != nullptr ? static_cast<double>(rtpOf(s)->payloadType) : kUnknown; }},
});

// Of each PID with PCRs.
using Clock = meter::ClockReport;
inline constexpr auto kOfClock = std::to_array<Figure<Clock>>({
    {{"kestor_ts_pcr_interval_seconds", kGauge, "Times between PCRs by their values."},
     [](const Clock& c) { return known(c.intervalMeanMs, kMsPerSecond); }, "stat=\"mean\""},
    {{"kestor_ts_pcr_interval_seconds", kGauge, ""},
     [](const Clock& c) { return known(c.intervalHighestMs, kMsPerSecond); }, "stat=\"highest\""},
    {{"kestor_ts_pcr_accuracy_seconds", kGauge, "Largest distance of a PCR from its place (PCR_AC) in the last block; where the bit rate is constant."},
     [](const Clock& c) { return c.accuracyApplicable ? known(c.lastWorstNs, kNsPerSecond) : kUnknown; }},
    {{"kestor_ts_pcr_accuracy_worst_seconds", kGauge, "Largest distance of a PCR from its place so far."},
     [](const Clock& c) { return c.accuracyApplicable ? known(c.worstNs, kNsPerSecond) : kUnknown; }},
    {{"kestor_ts_pcr_measured_total", kCounter, "PCRs whose accuracy was measured."},
     [](const Clock& c) { return c.accuracyApplicable ? known(c.measured) : kUnknown; }},
    {{"kestor_ts_pcr_inaccurate_total", kCounter, "PCRs that were over 500 ns off their place."},
     [](const Clock& c) { return c.accuracyApplicable ? known(c.over500) : kUnknown; }},
    {{"kestor_ts_pcr_jitter_seconds", kGauge, "Overall jitter (PCR_OJ): spread of arrival against the clock in the last second."},
     [](const Clock& c) { return known(c.overallJitterNs, kNsPerSecond); }},
    {{"kestor_ts_pcr_offset_ppm", kGauge, "Frequency offset of the clock (PCR_FO), positive when it is fast; 30 is the limit."},
     [](const Clock& c) { return known(c.frequencyOffsetPpm); }},
    {{"kestor_ts_pcr_discontinuities_total", kCounter, "Steps of the clock, announced by discontinuity_indicator or not."},
     [](const Clock& c) { return known(c.signalled); }, "signalled=\"true\""},
    {{"kestor_ts_pcr_discontinuities_total", kCounter, ""},
     [](const Clock& c) { return known(c.unsignalled); }, "signalled=\"false\""},
});

// Of each PID; which ones `pids` of [metrics] says.
using Pid = meter::PidReport;
inline constexpr auto kOfPid = std::to_array<Figure<Pid>>({
    {{"kestor_ts_pid_packets_total", kCounter, "Transport packets of the PID."},
     [](const Pid& p) { return known(p.packets); }},
    {{"kestor_ts_pid_bitrate_bps", kGauge, "Bit rate of the PID in the last second."},
     [](const Pid& p) { return known(p.bps); }},
    {{"kestor_ts_pid_continuity_errors_total", kCounter, "Continuity errors of the PID."},
     [](const Pid& p) { return known(p.continuityErrors); }},
    {{"kestor_ts_pid_lost_packets_total", kCounter, "Packets of the PID missing by its continuity counter."},
     [](const Pid& p) { return known(p.lost); }},
    {{"kestor_ts_pid_repeated_packets_total", kCounter, "Packets of the PID that came a second time."},
     [](const Pid& p) { return known(p.repeated); }},
});

using Service = meter::ServiceReport;
inline constexpr auto kOfService = std::to_array<Figure<Service>>({
    {{"kestor_service_scrambled", kGauge, "1 while a stream of the service is scrambled, 0 while none is."},
     [](const Service& s) { return known(s.scrambled); }},
    {{"kestor_service_audio_video_seconds", kGauge, "Time stamps of the audio less those of the video."},
     [](const Service& s) { return known(s.audioVideoMs, kMsPerSecond); }},
});

// Of video, audio and whatever else a PMT lists.
using Stream = meter::StreamReport;
inline constexpr auto kOfStream = std::to_array<Figure<Stream>>({
    {{"kestor_ts_pts_ahead_seconds", kGauge, "Least time in the last second by which the PID's data came before it is due."},
     [](const Stream& s) { return known(s.ptsAheadMs, kMsPerSecond); }},
    {{"kestor_video_width_pixels", kGauge, "Picture width."},
     [](const Stream& s) { return s.video ? known(s.video->width) : kUnknown; }},
    {{"kestor_video_height_pixels", kGauge, "Picture height."},
     [](const Stream& s) { return s.video ? known(s.video->height) : kUnknown; }},
    {{"kestor_video_frame_rate_hz", kGauge, "Frame rate by the stream's headers, else by decoding time stamps."},
     [](const Stream& s) { return s.video ? known(s.video->frameRate) : kUnknown; }},
    {{"kestor_video_pictures_per_second", kGauge, "Pictures a second by decoding time stamps."},
     [](const Stream& s) { return s.video ? known(s.video->picturesPerSecond) : kUnknown; }},
    {{"kestor_gop_pictures", kGauge, "Length of groups of pictures: of the last, and of those of the last minute."},
     [](const Stream& s) { return s.gop ? known(s.gop->pictures) : kUnknown; }, "stat=\"last\""},
    {{"kestor_gop_pictures", kGauge, ""},
     [](const Stream& s) { return s.gop ? known(s.gop->lowest) : kUnknown; }, "stat=\"lowest\""},
    {{"kestor_gop_pictures", kGauge, ""},
     [](const Stream& s) { return s.gop ? known(s.gop->mean) : kUnknown; }, "stat=\"mean\""},
    {{"kestor_gop_pictures", kGauge, ""},
     [](const Stream& s) { return s.gop ? known(s.gop->highest) : kUnknown; }, "stat=\"highest\""},
    {{"kestor_gop_seconds", kGauge, "Length of the last group of pictures."},
     [](const Stream& s) { return s.gop ? known(s.gop->ms, kMsPerSecond) : kUnknown; }},
    {{"kestor_gop_closed", kGauge, "1 when the last group began with an IDR picture or a closed group, else 0."},
     [](const Stream& s) { return s.gop ? known(s.gop->closed) : kUnknown; }},
    {{"kestor_gop_intra_without_idr_total", kCounter, "I pictures that were no IDR."},
     [](const Stream& s) { return s.gop ? known(s.gop->intraWithoutIdr) : kUnknown; }},
    {{"kestor_audio_sample_rate_hz", kGauge, "Sampling rate."},
     [](const Stream& s) { return s.audio ? known(s.audio->sampleRate) : kUnknown; }},
    {{"kestor_audio_channels", kGauge, "Channels of the audio."},
     [](const Stream& s) { return s.audio ? known(s.audio->channels) : kUnknown; }},
    {{"kestor_audio_bitrate_bps", kGauge, "Bit rate of the audio."},
     [](const Stream& s) { return s.audio ? known(s.audio->bitrate) : kUnknown; }},
});

// Of the meter itself, since it was started or, where they say so, connected.
inline constexpr auto kOfMeter = std::to_array<Figure<MeterState>>({
    {{"kestor_meter_seconds_total", kCounter, "Seconds reported since the station was started, of each thread."},
     [](const MeterState& m) { return known(m.seconds); }},
    {{"kestor_meter_events_total", kCounter, "Cues and changes reported since the station was started."},
     [](const MeterState& m) { return known(m.events); }},
    {{"kestor_meter_connections_total", kCounter, "Connections of a meter since the station was started."},
     [](const MeterState& m) { return known(m.connections); }},
    {{"kestor_meter_groups", kGauge, "Groups that the meter is told to measure."},
     [](const MeterState& m) { return static_cast<double>(m.groups); }},
    {{"kestor_meter_groups_left_out", kGauge, "Channels beyond the most that a meter takes, which are not measured."},
     [](const MeterState& m) { return static_cast<double>(m.groupsLeftOut); }},
    {{"kestor_meter_reported_groups", kGauge, "Groups in the last second that was reported."},
     [](const MeterState& m) { return static_cast<double>(m.reported); }},
    {{"kestor_meter_dropped_reports_total", kCounter, "Reports of groups that were too large or found no room."},
     [](const MeterState& m) { return known(m.reportsDropped); }},
    {{"kestor_meter_lost_seconds_total", kCounter, "Seconds that never came here, since they were not taken in time."},
     [](const MeterState& m) { return known(m.secondsLost); }},
    {{"kestor_meter_lost_events_total", kCounter, "Cues and changes that never came here."},
     [](const MeterState& m) { return known(m.eventsLost); }},
    {{"kestor_meter_frames_total", kCounter, "Frames captured."},
     [](const MeterState& m) { return known(m.frames); }},
    {{"kestor_meter_kernel_dropped_frames_total", kCounter, "Frames for which the capture had no room: the meter had no processor time."},
     [](const MeterState& m) { return known(m.kernelDrops); }},
    {{"kestor_meter_card_dropped_frames_total", kCounter, "Frames of any traffic that the card or its driver dropped."},
     [](const MeterState& m) { return known(m.cardDrops); }},
    {{"kestor_meter_cut_frames_total", kCounter, "Frames that the kernel handed over in part, which are not measured."},
     [](const MeterState& m) { return known(m.cutFrames); }},
    {{"kestor_meter_disturbed", kGauge, "1 while frames are dropped here or nothing is captured, so that losses may be this machine's."},
     [](const MeterState& m) { return m.disturbed ? 1.0 : 0.0; }},
    {{"kestor_meter_capturing", kGauge, "1 while the meter captures, 0 while something keeps it from that."},
     [](const MeterState& m) { return m.captureProblem.empty() ? 1.0 : 0.0; }},
    {{"kestor_meter_cpu_seconds_total", kCounter, "CPU time of the threads that measure."},
     [](const MeterState& m) { return m.cpuSeconds; }},
    {{"kestor_meter_threads", kGauge, "Threads that measure."},
     [](const MeterState& m) { return static_cast<double>(m.threads); }},
    {{"kestor_meter_joined_groups", kGauge, "Groups that the meter joined itself."},
     [](const MeterState& m) { return static_cast<double>(m.joined); }},
    {{"kestor_meter_failed_joins", kGauge, "Groups that it should have joined and could not."},
     [](const MeterState& m) { return static_cast<double>(m.joinFailures); }},
});
// clang-format on

}  // namespace station::figures
