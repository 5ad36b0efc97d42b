#include "web/ownMetrics.h"

#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <system_error>

namespace station {

namespace {

using enum MetricType;

constexpr double kMsPerSecond = 1000;

double processCpuSeconds(const StationState& /*state*/) {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// A number of /proc/self/statm, counted in pages; 0 where the kernel does not tell.
double memoryBytes(bool resident) {
    std::array<unsigned long long, 2> pages{};
    if (FILE* const file = fopen("/proc/self/statm", "re")) {
        if (fscanf(file, "%llu %llu", &pages[0], &pages[1]) != 2) {
            pages = {};
        }
        fclose(file);
    }
    return static_cast<double>(pages[resident ? 1 : 0]) * static_cast<double>(sysconf(_SC_PAGESIZE));
}

double openDescriptors(const StationState& /*state*/) {
    std::error_code error;
    double count = 0;
    for (std::filesystem::directory_iterator entry("/proc/self/fd", error), end; !error && entry != end;
         entry.increment(error)) {
        ++count;
    }
    return count > 0 ? count - 1 : 0;  // but for the one that lists them
}

double mostDescriptors(const StationState& /*state*/) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<double>(limit.rlim_cur);
}

// A number of the station's own.
template <typename Source>
struct OwnMetric {
    MetricFamily family;
    double (*value)(const Source&);
};

constexpr auto kProcessMetrics = std::to_array<OwnMetric<StationState>>({
    {{"process_cpu_seconds_total", kCounter, "CPU time that the process has taken, in seconds."},
     processCpuSeconds},
    {{"process_open_fds", kGauge, "File descriptors that are open."}, openDescriptors},
    {{"process_max_fds", kGauge, "File descriptors that may be open."}, mostDescriptors},
    {{"process_virtual_memory_bytes", kGauge, "Virtual memory of the process, in bytes."},
     [](const StationState&) { return memoryBytes(false); }},
    {{"process_resident_memory_bytes", kGauge, "Resident memory of the process, in bytes."},
     [](const StationState&) { return memoryBytes(true); }},
    {{"process_start_time_seconds", kGauge, "When the process was started, in seconds since 1970."},
     [](const StationState& s) { return secondsSinceEpoch(s.started); }},
});

constexpr auto kUseMetrics = std::to_array<OwnMetric<StationState>>({
    {{"kestor_station_snapshot_cpu_seconds", kGauge,
      "CPU time for the last snapshot: parsing, alarms, history."},
     [](const StationState& s) { return s.use.lastSnapshotCpuMs / kMsPerSecond; }},
    {{"kestor_station_snapshot_bytes", kGauge, "Size of the last snapshot."},
     [](const StationState& s) { return static_cast<double>(s.probe.snapshotBytes); }},
    {{"kestor_station_dropped_snapshots_total", kCounter,
      "Snapshots dropped because they were not processed in time."},
     [](const StationState& s) { return static_cast<double>(s.probe.droppedSnapshots); }},
    {{"kestor_station_oversize_snapshots_total", kCounter, "Snapshots dropped because of their size."},
     [](const StationState& s) { return static_cast<double>(s.probe.tooLargeSnapshots); }},
    {{"kestor_station_log_dropped_lines_total", kCounter,
      "Log lines dropped because standard error did not accept them."},
     [](const StationState& s) { return static_cast<double>(s.use.logDropped); }},
    {{"kestor_station_dropped_lines_total", kCounter,
      "Lines of snapshots dropped because they were not records."},
     [](const StationState& s) { return static_cast<double>(s.probe.droppedLines); }},
    {{"kestor_station_pipe_wait_max_seconds", kGauge,
      "Longest time between two reads during which the pipe was full."},
     [](const StationState& s) { return s.probe.longestPipeWaitMs / kMsPerSecond; }},
    {{"kestor_station_probe_requests_total", kCounter, "Requests of the probe that were answered."},
     [](const StationState& s) { return static_cast<double>(s.probe.requests); }},
    {{"kestor_station_other_controller", kGauge, "1 while another controller holds the probe's port."},
     [](const StationState& s) { return s.probe.otherController ? 1.0 : 0.0; }},
    {{"kestor_station_refused_commands_total", kCounter, "Changes refused because too many were waiting."},
     [](const StationState& s) { return static_cast<double>(s.use.commandsRefused); }},
    {{"kestor_station_notes", kGauge, "Notes on the configuration and the playlists, at most 100."},
     [](const StationState& s) { return static_cast<double>(s.notes.size()); }},
});

constexpr auto kInfluxMetrics = std::to_array<OwnMetric<StationUse>>({
    {{"kestor_station_influx_points_total", kCounter, "Points accepted by the InfluxDB."},
     [](const StationUse& use) { return static_cast<double>(use.influxWritten); }},
    {{"kestor_station_influx_dropped_total", kCounter, "Points for the InfluxDB that were dropped."},
     [](const StationUse& use) { return static_cast<double>(use.influxDropped); }},
    {{"kestor_station_influx_failures_total", kCounter, "Requests to the InfluxDB that failed."},
     [](const StationUse& use) { return static_cast<double>(use.influxFailed); }},
});

constexpr auto kExtraMetrics = std::to_array<OwnMetric<MetricsExtras>>({
    {{"kestor_station_events_written_total", kCounter, "Events written to disk."},
     [](const MetricsExtras& e) { return static_cast<double>(e.store.written); }},
    {{"kestor_station_events_dropped_total", kCounter, "Events lost because they could not be written."},
     [](const MetricsExtras& e) { return static_cast<double>(e.store.dropped); }},
    {{"kestor_station_events_waiting", kGauge, "Events waiting to be written."},
     [](const MetricsExtras& e) { return static_cast<double>(e.store.waiting); }},
    {{"kestor_station_events_file_bytes", kGauge, "Size of events.db and its write-ahead log."},
     [](const MetricsExtras& e) { return static_cast<double>(e.store.bytes); }},
    {{"kestor_station_events_failing", kGauge, "1 while events cannot be written."},
     [](const MetricsExtras& e) { return e.store.failing ? 1.0 : 0.0; }},
    {{"kestor_station_history_file_bytes", kGauge, "Size of history.db and its write-ahead log."},
     [](const MetricsExtras& e) { return static_cast<double>(e.history.bytes); }},
    {{"kestor_station_history_dropped_total", kCounter,
      "Minutes of channels lost because they could not be written."},
     [](const MetricsExtras& e) { return static_cast<double>(e.history.dropped); }},
    {{"kestor_station_history_failing", kGauge, "1 while the minutes of channels cannot be written."},
     [](const MetricsExtras& e) { return e.history.problem.empty() ? 0.0 : 1.0; }},
    {{"kestor_station_http_connections", kGauge, "Open HTTP connections, event streams among them."},
     [](const MetricsExtras& e) { return static_cast<double>(e.server.connections); }},
    {{"kestor_station_http_streams", kGauge, "Open event streams."},
     [](const MetricsExtras& e) { return static_cast<double>(e.server.streams); }},
    {{"kestor_station_http_requests_total", kCounter, "HTTP requests."},
     [](const MetricsExtras& e) { return static_cast<double>(e.server.requests); }},
    {{"kestor_station_http_refused_total", kCounter, "HTTP connections refused at a limit."},
     [](const MetricsExtras& e) { return static_cast<double>(e.server.refused); }},
    {{"kestor_station_http_malformed_total", kCounter, "Malformed HTTP requests."},
     [](const MetricsExtras& e) { return static_cast<double>(e.server.malformed); }},
    {{"kestor_station_http_made_room_total", kCounter, "Idle HTTP connections closed for new ones."},
     [](const MetricsExtras& e) { return static_cast<double>(e.server.madeRoom); }},
    {{"kestor_station_http_wrong_tokens_total", kCounter, "Requests with a wrong token."},
     [](const MetricsExtras& e) { return static_cast<double>(e.server.wrongTokens); }},
    {{"kestor_station_http_answer_bytes", kGauge,
      "Bytes of answers that clients have not received completely."},
     [](const MetricsExtras& e) { return static_cast<double>(e.server.answerBytes); }},
    {{"kestor_station_http_answers_refused_total", kCounter,
      "Answers not built because others held too many bytes."},
     [](const MetricsExtras& e) { return static_cast<double>(e.server.answersRefused); }},
    {{"kestor_station_http_slow_closed_total", kCounter,
      "Connections closed because the client received nothing."},
     [](const MetricsExtras& e) { return static_cast<double>(e.server.slowClosed); }},
});

constexpr auto kReceiverMetrics = std::to_array<OwnMetric<Delivery::ReceiverStatistics>>({
    {{"kestor_station_delivery_messages_total", kCounter, "Messages accepted by a webhook."},
     [](const Delivery::ReceiverStatistics& r) { return static_cast<double>(r.delivered); }},
    {{"kestor_station_delivery_failures_total", kCounter, "Delivery attempts that failed."},
     [](const Delivery::ReceiverStatistics& r) { return static_cast<double>(r.failed); }},
    {{"kestor_station_delivery_dropped_total", kCounter, "Notifications dropped without being delivered."},
     [](const Delivery::ReceiverStatistics& r) { return static_cast<double>(r.dropped); }},
    {{"kestor_station_delivery_owed", kGauge, "Notifications waiting for delivery."},
     [](const Delivery::ReceiverStatistics& r) { return static_cast<double>(r.owed); }},
    {{"kestor_station_delivery_failing", kGauge, "1 while a webhook accepts nothing."},
     [](const Delivery::ReceiverStatistics& r) { return r.failingSince ? 1.0 : 0.0; }},
});

}  // namespace

double secondsSinceEpoch(WallTime time) {
    return std::chrono::duration<double>(time.time_since_epoch()).count();
}

void writeStationMetrics(Exposition& out, const StationState& state, const MetricsExtras& extras) {
    const auto write = [&out](const auto& metrics, const auto& source) {
        for (const auto& metric : metrics) {
            out.family(metric.family);
            out.sample(metric.value(source));
        }
    };
    write(kProcessMetrics, state);
    write(kUseMetrics, state);
    write(kExtraMetrics, extras);
    write(kInfluxMetrics, state.use);
    for (const auto& metric : kReceiverMetrics) {
        out.family(metric.family);
        for (const Delivery::ReceiverStatistics& receiver : extras.delivery) {
            std::string labels;
            appendLabel(labels, "webhook", receiver.name);
            out.sample(labels, {}, metric.value(receiver));
        }
    }
}

}  // namespace station
