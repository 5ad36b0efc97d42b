#include "web/pidMetrics.h"

#include <array>
#include <bit>
#include <bitset>

#include "tr101290Checks.h"

namespace station {

namespace {

using records::ColumnName;
using records::Kind;
using enum MetricType;

// Whether a column's value means anything yet; one that does not is left out.
using HasValue = bool (*)(const Record&);

bool always(const Record& /*record*/) {
    return true;
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
    HasValue known;
};

constexpr std::array kPidMetrics = std::to_array<ColumnMetric>({
    {{"kestor_pid_packets_total", kCounter, "Transport packets of the PID received."},
     "packetsReceived",
     always},
    {{"kestor_pid_lost_packets_total", kCounter,
      "Transport packets of the PID missing by the continuity counter."},
     "packetsLost",
     always},
    {{"kestor_pid_continuity_errors_total", kCounter,
      "Packets with payload and an unexpected continuity counter."},
     "Continuity_count_error",
     always},
    {{"kestor_pid_scrambled_packets_total", kCounter, "Scrambled packets of the PID."},
     "packetsScrambled",
     always},
    {{"kestor_pid_bitrate_bps", kGauge,
      "Bit rate of the PID since the previous snapshot, lost packets included."},
     "bitRate",
     always},
    {{"kestor_pid_picture_width_pixels", kGauge, "Picture width from the sequence parameter set."},
     "pictureWidth",
     hasPicture},
    {{"kestor_pid_picture_height_pixels", kGauge, "Picture height from the sequence parameter set."},
     "pictureHeight",
     hasPicture},
    {{"kestor_pid_gop_frames", kGauge, "Length of the group of pictures, running average."},
     "gopLength",
     hasGop},
    {{"kestor_pid_mos", kGauge, "Mean opinion score of a video or audio PID, 1 (bad) to 5."},
     "mosScore",
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

struct PidRow {
    const ChannelRow* channel;
    const Record* record;
    int64_t pid;
    std::string labels;
};

uint64_t pidKey(const PidRow& row) {
    return uint64_t{row.channel->state->channel.group.hostOrder()} << 16 | static_cast<uint64_t>(row.pid);
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
        std::bitset<kPids> listedPids;
        for (const Record& record : channel.state->pids) {
            const int64_t pid = record.integer("pid");
            const bool listed = record.kind() != Kind::kUnlistedPid;
            if (pid < 0 || pid >= kPids || (!listed && which == MetricsPids::kListed) ||
                listedPids.test(static_cast<std::size_t>(pid))) {
                continue;
            }
            listedPids.set(static_cast<std::size_t>(pid));
            PidRow& row = rows.emplace_back(PidRow{&channel, &record, pid, {}});
            row.labels.reserve(channel.labels.size() + 16);
            row.labels = channel.labels;
            appendLabel(row.labels, "pid", std::to_string(pid));
        }
    }
    return rows;
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
                out.sample(row.labels, {}, row.record->number(metric.column));
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
std::array<uint32_t, records::kKinds.size()> checksListedAhead(const std::vector<PidRow>& rows) {
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
        labels[check] = checkLabels(records::kChecks[check]);
    }
    const auto ahead = checksListedAhead(rows);
    for (const PidRow& row : rows) {
        const auto found = failed.find(pidKey(row));
        const uint32_t listed =
            ahead[static_cast<std::size_t>(row.record->kind())] | (found == failed.end() ? 0 : found->second);
        for (std::size_t check = 0; check < labels.size(); ++check) {
            if ((listed >> check & 1) != 0) {
                out.sample(row.labels, labels[check], static_cast<double>(checkErrors(*row.record, check)));
            }
        }
    }
}

}  // namespace

std::string checkLabels(const records::Check& check) {
    std::string labels;
    appendLabel(labels, "check", check.column);
    appendLabel(labels, "priority", std::to_string(check.priority));
    return labels;
}

void PidMetrics::write(Exposition& out, const std::vector<ChannelRow>& channels, MetricsPids which) {
    const auto rows = pidRows(channels, which);
    failedChecks_ = failedChecks(rows, failedChecks_);
    writePids(out, rows);
    writePidChecks(out, rows, failedChecks_);
}

}  // namespace station
