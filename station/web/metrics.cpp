#include "web/metrics.h"

#include <algorithm>
#include <bit>
#include <bitset>
#include <charconv>
#include <functional>
#include <optional>
#include <set>

#include "tr101290Checks.h"
#include "web/alarmMetrics.h"
#include "web/exposition.h"
#include "web/machineMetrics.h"
#include "web/ownMetrics.h"

namespace station {

namespace {

using records::ColumnName;
using records::Kind;
using enum MetricType;

// Whether a column's value means anything yet; one that does not is left out.
using Known = bool (*)(const Record&);

bool always(const Record& /*record*/) {
    return true;
}
bool hasPackets(const Record& stream) {
    return stream.integer("packetsReceived") != 0;
}
bool hasDelayFactor(const Record& stream) {
    return stream.fraction("mdiDelayFactor") != 0;
}
// The first block of datagrams is complete. Its mean may well be 0, since it counts whole milliseconds.
bool hasJitter(const Record& stream) {
    return stream.integer("jitterMeanInterArrival") != 0 || stream.fraction("jitterVarianceMaximum") != 0;
}
// Without a join time the column counts from 1970, and a packet before the join makes it wrap around.
bool hasJoinLatency(const Record& stream) {
    constexpr double kNoLatency = 1e11;  // three years, in ms
    return hasPackets(stream) && stream.number("igmpLatency") < kNoLatency;
}
bool hasPicture(const Record& pid) {
    return pid.integer("pictureWidth") != 0;
}
bool hasGop(const Record& pid) {
    return pid.integer("gopLength") != 0;
}
bool hasMos(const Record& pid) {
    return pid.fraction("mosScore") != 0;
}

// A metric that is a record's column.
struct ColumnMetric {
    MetricFamily family;
    ColumnName column;
    double divisor;  // the column's value is this many times the metric's
    Known known;
};

constexpr double kMsPerSecond = 1000;

constexpr std::array kStreamMetrics = std::to_array<ColumnMetric>({
    {{"kestor_stream_packets_total", kCounter, "Transport packets received."}, "packetsReceived", 1, always},
    {{"kestor_stream_lost_packets_total", kCounter, "Transport packets missing by the continuity counter."},
     "packetsLost",
     1,
     always},
    {{"kestor_stream_out_of_sequence_packets_total", kCounter,
      "Packets with payload and an unexpected continuity counter."},
     "packetsOutOfSequence",
     1,
     always},
    {{"kestor_stream_scrambled_packets_total", kCounter,
      "Scrambled packets (transport_scrambling_control other than 0)."},
     "packetsScrambled",
     1,
     always},
    {{"kestor_stream_bitrate_bps", kGauge, "Bit rate since the previous snapshot, lost packets included."},
     "bitRate",
     1,
     always},
    {{"kestor_stream_delay_factor_seconds", kGauge, "Delay factor of the Media Delivery Index (RFC 4445)."},
     "mdiDelayFactor",
     kMsPerSecond,
     hasDelayFactor},
    {{"kestor_stream_interarrival_seconds", kGauge,
      "Mean time between datagrams over the last block of 4096, in steps of a millisecond."},
     "jitterMeanInterArrival",
     kMsPerSecond,
     hasJitter},
    {{"kestor_stream_jitter_variance", kGauge,
      "Variance of the times between datagrams over the last block of 4096, in square milliseconds."},
     "jitterVariance",
     1,
     hasJitter},
    {{"kestor_stream_quality_index", kGauge,
      "Transport quality index, 1 (bad) to 5, from bit rate and loss since the previous snapshot."},
     "transportQualityIndex",
     1,
     hasPackets},
    {{"kestor_stream_ttl", kGauge, "IPv4 time to live of the latest datagram."}, "ttl", 1, hasPackets},
    {{"kestor_stream_dscp", kGauge, "Differentiated services code point of the latest datagram."},
     "dscp",
     1,
     hasPackets},
    {{"kestor_stream_wrong_source", kGauge, "1 once a datagram came from another source than the first."},
     "wrongSource",
     1,
     always},
    {{"kestor_stream_join_latency_seconds", kGauge, "Time from the join to the first packet."},
     "igmpLatency",
     kMsPerSecond,
     hasJoinLatency},
});

constexpr std::array kPidMetrics = std::to_array<ColumnMetric>({
    {{"kestor_pid_packets_total", kCounter, "Transport packets of the PID received."},
     "packetsReceived",
     1,
     always},
    {{"kestor_pid_lost_packets_total", kCounter,
      "Transport packets of the PID missing by the continuity counter."},
     "packetsLost",
     1,
     always},
    {{"kestor_pid_continuity_errors_total", kCounter,
      "Packets with payload and an unexpected continuity counter."},
     "Continuity_count_error",
     1,
     always},
    {{"kestor_pid_scrambled_packets_total", kCounter, "Scrambled packets of the PID."},
     "packetsScrambled",
     1,
     always},
    {{"kestor_pid_bitrate_bps", kGauge,
      "Bit rate of the PID since the previous snapshot, lost packets included."},
     "bitRate",
     1,
     always},
    {{"kestor_pid_picture_width_pixels", kGauge, "Picture width from the sequence parameter set."},
     "pictureWidth",
     1,
     hasPicture},
    {{"kestor_pid_picture_height_pixels", kGauge, "Picture height from the sequence parameter set."},
     "pictureHeight",
     1,
     hasPicture},
    {{"kestor_pid_gop_frames", kGauge, "Length of the group of pictures, running average."},
     "gopLength",
     1,
     hasGop},
    {{"kestor_pid_mos", kGauge, "Mean opinion score of a video or audio PID, 1 (bad) to 5."},
     "mosScore",
     1,
     hasMos},
});

// Where the checks' counters are, by check and kind of record.
constexpr auto kCheckColumns = [] {
    std::array<std::array<std::size_t, records::kKinds.size()>, records::kChecks.size()> columns{};
    for (std::size_t check = 0; check < columns.size(); ++check) {
        for (const auto& kind : records::kKinds) {
            columns[check][static_cast<std::size_t>(kind.kind)] =
                records::columnIndex(kind.kind, records::kChecks[check].column).value();
        }
    }
    return columns;
}();
static_assert(records::kChecks.size() <= 32);  // bits of failedChecks_

uint64_t checkErrors(const Record& record, std::size_t check) {
    return static_cast<uint64_t>(
        record.integer(kCheckColumns[check][static_cast<std::size_t>(record.kind())]));
}

// Checks that a PID's record counts, too; the others are of the stream as a whole.
bool isOfPids(std::size_t check) {
    const std::string_view column = records::kChecks[check].column;
    return column != "TS_sync_loss" && column != "Sync_byte_error" && column != "CRC_error";
}

// Whether a check can fail on a PID of this kind; what failed all the same is told as well.
bool concerns(std::size_t check, Kind kind) {
    const std::string_view column = records::kChecks[check].column;
    if (column == "Continuity_count_error" || column == "Transport_error") {
        return true;
    }
    if (kind == Kind::kPat || kind == Kind::kPmt) {
        return column.starts_with(kind == Kind::kPat ? "PAT_" : "PMT_");
    }
    return kind == Kind::kKnownPid &&
           (column == "PID_error" || column == "PTS_error" || column.starts_with("PCR_"));
}

std::string checkLabels(std::size_t check) {
    std::string labels;
    appendLabel(labels, "check", records::kChecks[check].column);
    appendLabel(labels, "priority", std::to_string(records::kChecks[check].priority));
    return labels;
}

// The records' addresses: bytes in network order read as a little-endian integer.
std::string addressText(int64_t address) {
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) {
        text += (text.empty() ? "" : ".") + std::to_string(static_cast<uint64_t>(address) >> shift & 0xFF);
    }
    return text;
}

// Appends a channel's own labels: "label_" and the name with '_' for what a label's name cannot have. Of two
// that come out alike, the later gets a number behind it.
void appendOwnLabels(std::string& text, const Labels& labels) {
    std::set<std::string> taken;
    for (const auto& [name, value] : labels) {
        std::string plain = "label_" + name;
        std::ranges::replace_if(
            plain,
            [](char c) {
                return !(c >= 'a' && c <= 'z') && !(c >= 'A' && c <= 'Z') && !(c >= '0' && c <= '9');
            },
            '_');
        std::string unique = plain;
        for (int number = 2; !taken.insert(unique).second; ++number) {
            unique = plain + "_" + std::to_string(number);
        }
        appendLabel(text, unique, value);
    }
}

struct ChannelRow {
    const ChannelState* state;
    std::string labels;    // group
    const Record* stream;  // null when there is no fresh record
};

struct PidRow {
    const ChannelRow* channel;
    const Record* record;
    int64_t pid;
    std::string labels;
};

uint64_t pidKey(const PidRow& row) {
    return uint64_t{row.channel->state->channel.group.hostOrder()} << 16 | static_cast<uint64_t>(row.pid);
}

bool isStale(const StationState& state) {
    const auto age = state.now.wall - state.probe.lastSnapshot;  // below 0 when the clock was put back
    return !state.probe.connected && (age > kMetricsStaleAfter || age < std::chrono::milliseconds(0));
}

std::vector<ChannelRow> channelRows(const StationState& state) {
    const bool stale = isStale(state);
    std::vector<ChannelRow> rows;
    rows.reserve(state.channels.size());
    for (const auto& channel : state.channels) {
        ChannelRow& row = rows.emplace_back();
        row.state = channel.get();
        // A probe that fell silent shows nothing; what it showed last stands for a while.
        const bool stands = channel->shown || (!state.probe.connected && channel->channel.enabled);
        row.stream = !stale && stands ? channel->stream : nullptr;
        appendLabel(row.labels, "group", channel->channel.group.text());
    }
    return rows;
}

// The PIDs to tell of. One that several programs list has a record for each, with the same values: the first
// stands for all.
std::vector<PidRow> pidRows(const std::vector<ChannelRow>& channels, MetricsPids which) {
    constexpr int64_t kPids = 0x2000;
    std::vector<PidRow> rows;
    if (which == MetricsPids::kNone) {
        return rows;
    }
    for (const ChannelRow& channel : channels) {
        if (channel.stream == nullptr) {
            continue;
        }
        std::bitset<kPids> told;
        for (const Record& record : channel.state->pids) {
            const int64_t pid = record.integer("pid");
            const bool listed = record.kind() != Kind::kUnlistedPid;
            if (pid < 0 || pid >= kPids || (!listed && which == MetricsPids::kListed) ||
                told.test(static_cast<std::size_t>(pid))) {
                continue;
            }
            told.set(static_cast<std::size_t>(pid));
            PidRow& row = rows.emplace_back(PidRow{&channel, &record, pid, {}});
            row.labels.reserve(channel.labels.size() + 16);
            row.labels = channel.labels;
            appendLabel(row.labels, "pid", std::to_string(pid));
        }
    }
    return rows;
}

void writeProbe(Exposition& out, const StationState& state, const MetricsExtras& extras) {
    const ProbeState& probe = state.probe;
    out.family({"kestor_up", kGauge,
                "1 while the probe delivers results, so that the channels' metrics are current."});
    out.sample(probe.connected ? 1 : 0);
    out.family(
        {"kestor_probe_asks", kGauge, "1 while the probe asks what to watch, so that changes reach it."});
    out.sample(probe.asks ? 1 : 0);
    out.family({"kestor_probe_restarts_total", kCounter, "Restarts of the probe that the station saw."});
    out.sample(static_cast<double>(probe.restarts));
    out.family({"kestor_snapshots_total", kCounter, "Snapshots read from the probe."});
    out.sample(static_cast<double>(probe.snapshots));
    if (probe.lastSnapshot != WallTime{}) {
        out.family({"kestor_last_snapshot_timestamp_seconds", kGauge, "When the last snapshot was read."});
        out.sample(secondsSinceEpoch(probe.lastSnapshot));
    }
    std::string version;
    appendLabel(version, "version", extras.version);
    out.family({"kestor_build_info", kGauge, "Always 1; the station's version."});
    out.sample({}, version, 1);
}

void writeChannelInfo(Exposition& out, const std::vector<ChannelRow>& rows) {
    out.family(
        {"kestor_channel_info", kGauge, "Always 1; the channel's name and other properties as labels."});
    std::string more;
    for (const ChannelRow& row : rows) {
        const Channel& channel = row.state->channel;
        // As long as the channel was ever shown, so that the series does not change when the probe falls
        // silent.
        const Record* const stream = row.state->stream;
        const bool seen = stream != nullptr && hasPackets(*stream);
        more.clear();
        appendLabel(more, "name", channel.name);
        appendLabel(more, "origin", originName(channel.origin));
        appendLabel(more, "profile", channel.profile);
        appendLabel(more, "source", seen ? addressText(stream->integer("sourceAddress")) : channel.source);
        const int64_t port = seen ? stream->integer("destinationPort") : channel.port;
        appendLabel(more, "port", port != 0 ? std::to_string(port) : "");
        appendOwnLabels(more, channel.labels);
        out.sample(row.labels, more, 1);
    }
}

void writeStreams(Exposition& out, const std::vector<ChannelRow>& rows) {
    for (const ColumnMetric& metric : kStreamMetrics) {
        out.family(metric.family);
        for (const ChannelRow& row : rows) {
            if (row.stream != nullptr && metric.known(*row.stream)) {
                out.sample(row.labels, {}, row.stream->number(metric.column) / metric.divisor);
            }
        }
    }
}

void writeStates(Exposition& out, const StationState& state, const std::vector<ChannelRow>& rows) {
    using enum ChannelStatus;
    if (isStale(state)) {
        return;
    }
    out.family({"kestor_stream_state", kGauge, "1 for the state that the channel is in, 0 for the others."});
    for (const ChannelStatus status : {kOk, kAlarm, kWaiting, kDisabled}) {
        std::string label;
        appendLabel(label, "state", channelStatusName(status));
        for (const ChannelRow& row : rows) {
            out.sample(row.labels, label, row.state->status == status ? 1 : 0);
        }
    }
}

void writeChecks(Exposition& out, const std::vector<ChannelRow>& rows) {
    out.family({"kestor_tr101290_errors_total", kCounter, "Errors of a check of ETSI TR 101 290."});
    for (std::size_t check = 0; check < records::kChecks.size(); ++check) {
        const std::string labels = checkLabels(check);
        for (const ChannelRow& row : rows) {
            if (row.stream != nullptr) {
                out.sample(row.labels, labels, static_cast<double>(checkErrors(*row.stream, check)));
            }
        }
    }
}

void writePids(Exposition& out, const std::vector<PidRow>& rows) {
    out.family({"kestor_pid_info", kGauge, "Always 1; what the tables say about the PID, as labels."});
    std::string more;
    for (const PidRow& row : rows) {
        const Record& record = *row.record;
        more.clear();
        appendLabel(more, "kind", records::kKinds[static_cast<std::size_t>(record.kind())].label);
        if (record.has("streamType")) {
            appendLabel(more, "stream_type", std::to_string(record.integer("streamType")));
        }
        if (record.has("pmtPid")) {
            appendLabel(more, "pmt_pid", std::to_string(record.integer("pmtPid")));
        }
        out.sample(row.labels, more, 1);
    }
    for (const ColumnMetric& metric : kPidMetrics) {
        out.family(metric.family);
        for (const PidRow& row : rows) {
            if (metric.known(*row.record)) {
                out.sample(row.labels, {}, row.record->number(metric.column) / metric.divisor);
            }
        }
    }
}

// Of each PID the checks that failed in this state or in an earlier one.
std::unordered_map<uint64_t, uint32_t> failedChecks(const std::vector<PidRow>& rows,
                                                    const std::unordered_map<uint64_t, uint32_t>& earlier) {
    std::unordered_map<uint64_t, uint32_t> failed;
    for (const PidRow& row : rows) {
        const auto known = earlier.find(pidKey(row));
        uint32_t checks = known == earlier.end() ? 0 : known->second;
        for (std::size_t check = 0; check < records::kChecks.size(); ++check) {
            checks |= isOfPids(check) && checkErrors(*row.record, check) != 0 ? uint32_t{1} << check : 0;
        }
        if (checks != 0) {
            failed.emplace(pidKey(row), checks);
        }
    }
    return failed;
}

// Of each PID the checks that are told before they fail: those that concern it, within the bound.
std::array<uint32_t, records::kKinds.size()> checksToldAhead(const std::vector<PidRow>& rows) {
    std::array<uint32_t, records::kKinds.size()> checks{};
    for (std::size_t kind = 0; kind < checks.size(); ++kind) {
        for (std::size_t check = 0; check < records::kChecks.size(); ++check) {
            checks[kind] |= concerns(check, static_cast<Kind>(kind)) ? uint32_t{1} << check : 0;
        }
    }
    std::size_t series = 0;
    for (const PidRow& row : rows) {
        series +=
            static_cast<std::size_t>(std::popcount(checks[static_cast<std::size_t>(row.record->kind())]));
    }
    return series > kMetricsPidChecks ? std::array<uint32_t, records::kKinds.size()>{} : checks;
}

void writePidChecks(Exposition& out, const std::vector<PidRow>& rows,
                    const std::unordered_map<uint64_t, uint32_t>& failed) {
    out.family(
        {"kestor_pid_tr101290_errors_total", kCounter, "Errors of a check of ETSI TR 101 290 on a PID."});
    std::array<std::string, records::kChecks.size()> labels;
    for (std::size_t check = 0; check < labels.size(); ++check) {
        labels[check] = checkLabels(check);
    }
    const auto ahead = checksToldAhead(rows);
    for (const PidRow& row : rows) {
        const auto found = failed.find(pidKey(row));
        const uint32_t told =
            ahead[static_cast<std::size_t>(row.record->kind())] | (found == failed.end() ? 0 : found->second);
        for (std::size_t check = 0; check < labels.size(); ++check) {
            if ((told >> check & 1) != 0) {
                out.sample(row.labels, labels[check], static_cast<double>(checkErrors(*row.record, check)));
            }
        }
    }
}

void writeLastPackets(Exposition& out, const std::vector<ChannelRow>& rows) {
    out.family({"kestor_channel_last_packet_timestamp_seconds", kGauge,
                "When packets of the channel last arrived; 0 if none have since the station started or the "
                "channel was added."});
    for (const ChannelRow& row : rows) {
        out.sample(row.labels, {}, secondsSinceEpoch(row.state->lastSeen));
    }
}

void writeMaintenance(Exposition& out, const StationState& state, const std::vector<ChannelRow>& rows) {
    WallTime until{};
    for (const Maintenance& window : state.maintenance) {
        if (!window.group && window.from <= state.now.wall) {
            until = std::max(until, window.until);
        }
    }
    out.family({"kestor_maintenance_end_timestamp_seconds", kGauge,
                "When the current maintenance window for all channels ends; 0 if there is none."});
    out.sample(secondsSinceEpoch(until));
    out.family({"kestor_channel_maintenance", kGauge,
                "1 while the channel is in a maintenance window: its alarms are not delivered."});
    for (const ChannelRow& row : rows) {
        out.sample(row.labels, {}, row.state->maintenance ? 1 : 0);
    }
}

// Enough for most; what is reserved and not written costs no memory.
std::size_t expectedSize(std::size_t channels, std::size_t pids) {
    constexpr std::size_t kOwn = 16 * 1024;
    constexpr std::size_t kLine = 120;
    constexpr std::size_t kChannelLines = 55;
    constexpr std::size_t kPidLines = 10;
    return kOwn + kLine * (channels * kChannelLines + pids * kPidLines);
}

}  // namespace

std::string MetricsWriter::text(const StationState& state, const MetricsExtras& extras,
                                const Exposition::Flush& flush) {
    const auto channels = channelRows(state);
    const auto which = state.configuration ? state.configuration->metricsPids : MetricsPids::kListed;
    const auto pids = pidRows(channels, which);
    failedChecks_ = failedChecks(pids, failedChecks_);

    std::string text;
    text.reserve(flush ? 2 * Exposition::kPiece : expectedSize(channels.size(), pids.size()));
    Exposition out(text, flush);
    writeProbe(out, state, extras);
    writeChannelInfo(out, channels);
    writeStreams(out, channels);
    writeStates(out, state, channels);
    writeChecks(out, channels);
    writePids(out, pids);
    writePidChecks(out, pids, failedChecks_);
    writeLastPackets(out, channels);
    writeMaintenance(out, state, channels);
    writeAlarmMetrics(out, state);
    writeMachine(out, state.machine);
    writeStationMetrics(out, state, extras);
    return text;
}

}  // namespace station
