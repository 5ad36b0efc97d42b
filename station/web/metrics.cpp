#include "web/metrics.h"

#include <algorithm>

#include "basics/address.h"
#include "basics/text.h"
#include "tr101290Checks.h"
#include "web/alarmMetrics.h"
#include "web/exposition.h"
#include "web/machineMetrics.h"
#include "web/ownMetrics.h"
#include "web/pictureMetrics.h"

namespace station {

namespace {

using enum MetricType;

// A channel's own labels begin with "label_".
void appendOwnLabels(std::string& text, const Labels& labels) {
    basics::UniqueNames names;
    for (const auto& [name, value] : labels) {
        appendLabel(text, names.claim("label_" + basics::plainLabelName(name)), value);
    }
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
        const bool stands =
            channel->measured[Source::kProbe].shown || (!state.probe.connected && channel->channel.enabled);
        row.stream = !stale && stands ? channel->stream : nullptr;
        for (std::size_t source = 0; source < kSources; ++source) {
            row.fresh.values[source] = channel->measured.values[source].shown;
        }
        row.fresh[Source::kProbe] = row.stream != nullptr;
        appendLabel(row.labels, "group", channel->channel.group.text());
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
        const bool seen = stream != nullptr && stream->integer("packetsReceived") != 0;
        more.clear();
        appendLabel(more, "name", channel.name);
        appendLabel(more, "origin", originName(channel.origin));
        appendLabel(more, "profile", channel.profile);
        appendLabel(more, "source",
                    seen ? basics::dottedRecordAddress(stream->integer("sourceAddress")) : channel.source);
        const int64_t port = seen ? stream->integer("destinationPort") : channel.port;
        appendLabel(more, "port", port != 0 ? std::to_string(port) : "");
        appendOwnLabels(more, channel.labels);
        out.sample(row.labels, more, 1);
    }
}

void writeMeasures(Exposition& out, const std::vector<ChannelRow>& rows) {
    for (const Measure& measure : kMeasures) {
        const MeasureMetric& metric = measure.metric;
        if (metric.name.empty()) {
            continue;
        }
        out.family({metric.name, measure.kind == MeasureKind::kCounter ? kCounter : kGauge, metric.help});
        for (const ChannelRow& row : rows) {
            const ChannelSample& sample = row.state->measured[measure.source].sample;
            if (row.fresh[measure.source] && sample.knows(measure, metric.known)) {
                out.sample(row.labels, {}, sample.value(measure) / metric.divisor);
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

// Rules and dashboards ask by it which of two figures of a channel counts.
void writeJudges(Exposition& out, const std::vector<ChannelRow>& rows) {
    out.family({"kestor_channel_judged_by", kGauge,
                "1 for the source whose figures the channel's alarms go by where both have them, 0 for the "
                "other."});
    for (const Source source : {Source::kProbe, Source::kMeter}) {
        std::string label;
        appendLabel(label, "source", sourceName(source));
        for (const ChannelRow& row : rows) {
            out.sample(row.labels, label, row.state->judgedBy == source ? 1 : 0);
        }
    }
}

void writeChecks(Exposition& out, const std::vector<ChannelRow>& rows) {
    out.family({"kestor_tr101290_errors_total", kCounter, "Errors of a check of ETSI TR 101 290."});
    for (const records::Check& check : records::kChecks) {
        const Measure& measure = measureOf(check.column);
        const std::string labels = checkLabels(check);
        for (const ChannelRow& row : rows) {
            if (row.fresh[measure.source]) {
                out.sample(row.labels, labels, row.state->measured[measure.source].sample.value(measure));
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
        if (window.ofAll() && window.from <= state.now.wall) {
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
std::size_t expectedSize(const StationState& state) {
    constexpr std::size_t kOwn = 16 * 1024;
    constexpr std::size_t kLine = 120;
    constexpr std::size_t kChannelLines = 55;
    constexpr std::size_t kPidLines = 10;
    std::size_t lines = state.channels.size() * kChannelLines;
    for (const auto& channel : state.channels) {
        lines += channel->pids.size() * kPidLines;
    }
    return kOwn + kLine * lines;
}

}  // namespace

std::string MetricsWriter::text(const StationState& state, const MetricsExtras& extras,
                                const Exposition::Flush& flush) {
    const auto channels = channelRows(state);
    const auto which = state.configuration ? state.configuration->metricsPids : MetricsPids::kListed;
    std::string text;
    text.reserve(flush ? 2 * Exposition::kPiece : expectedSize(state));
    Exposition out(text, flush);
    writeProbe(out, state, extras);
    writeChannelInfo(out, channels);
    writeMeasures(out, channels);
    writeStates(out, state, channels);
    writeJudges(out, channels);
    writeChecks(out, channels);
    pids_.write(out, channels, which);
    writeMeter(out, state.meter);
    if (state.meter.connected && !state.meter.silent && extras.meterReports) {
        writeMeterFigures(out, channels, extras.meterReports(), which, state.now.steady);
    }
    writePictures(out, state);
    writeLastPackets(out, channels);
    writeMaintenance(out, state, channels);
    writeAlarmMetrics(out, state);
    writeMachine(out, state.machine);
    writeStationMetrics(out, state, extras);
    return text;
}

}  // namespace station
