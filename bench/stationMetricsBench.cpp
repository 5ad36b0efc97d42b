// What one scrape costs: 1000 channels of ten listed PIDs.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "configuration/configuration.h"
#include "measures/probeSample.h"
#include "support/fullReport.h"
#include "tr101290Checks.h"
#include "web/gzip.h"
#include "web/metrics.h"

namespace {

constexpr uint32_t kChannels = 1000;
constexpr uint32_t kPids = 10;

bool isCheck(std::string_view column) {
    return std::ranges::find(records::kChecks, column, &records::Check::column) != records::kChecks.end();
}

// Values as long as those of a channel that has run for days.
void appendLine(std::string& text, records::Kind kind, const station::Group& group, uint32_t pid,
                bool failed) {
    const auto columns = records::columnsOf(kind);
    text += group.text();
    text += kind == records::Kind::kStream ? ";0;-1;" : ";1;" + std::to_string(256 + pid) + ";";
    text += records::kKinds[static_cast<std::size_t>(kind)].label;
    for (std::size_t i = records::kLabelColumn + 1; i < columns.size(); ++i) {
        const uint32_t number = (group.hostOrder() + pid * 7 + static_cast<uint32_t>(i)) * 2654435761U;
        text += ';';
        text += columns[i].name == "descriptorCount" || (!failed && isCheck(columns[i].name)) ? "0"
                : columns[i].type == records::Type::kFraction
                    ? std::to_string(number % 5'000'000 / 1e6)
                    : std::to_string(std::min<uint64_t>(number >> (number % 4 * 6), columns[i].maximum));
    }
    text += '\n';
}

std::shared_ptr<const station::ChannelState> channelState(uint32_t number, bool failed) {
    const auto group =
        *station::Group::parse("239.1." + std::to_string(number / 256) + "." + std::to_string(number % 256));
    std::string text;
    appendLine(text, records::Kind::kStream, group, 0, true);
    for (uint32_t pid = 0; pid < kPids; ++pid) {
        const auto kind = pid == 0   ? records::Kind::kPat
                          : pid == 1 ? records::Kind::kPmt
                                     : records::Kind::kKnownPid;
        appendLine(text, kind, group, pid, failed);
    }
    const auto snapshot = std::make_shared<const records::Snapshot>(
        records::parseSnapshot(text, [](std::size_t, const std::string&) { abort(); }));
    station::Channel channel{.group = group};
    channel.name = "Channel number " + std::to_string(number);
    channel.labels = {{"site", "north"}, {"group", "news"}};
    return std::make_shared<const station::ChannelState>(station::ChannelState{
        .channel = channel,
        .status = station::ChannelStatus::kOk,
        .alarms = {},
        .measured = {{{{.shown = true,
                        .sample =
                            station::makeSample((*snapshot)[0], {&(*snapshot)[1], kPids}, nullptr, {})}}}},
        .stream = &(*snapshot)[0],
        .pids = {&(*snapshot)[1], kPids},
        .snapshot = snapshot,
        .lastSeen = {}});
}

// A report of an H.264 service with as many PIDs.
station::MeterReport meterReport(uint32_t number) {
    const auto group = 0xEF010000 + number;
    meter::Report report = test::fullReport(group);
    report.services.resize(1);
    report.network->rtp.reset();
    const meter::PidReport pid = report.pids[0];
    report.pids.assign(kPids, pid);
    for (uint32_t i = 0; i < kPids; ++i) {
        report.pids[i].pid = static_cast<uint16_t>(256 + i);
        report.pids[i].packets = 100'000'000 + number * i;
        report.pids[i].bps = 1'000'000 + number * i;
    }
    for (meter::CheckReport& check : report.checks) {
        check.applicable = true;
        check.pids.clear();
    }
    metering::GroupReport levels = test::reportMessage(report);
    station::MeterReport made;
    made.time = station::systemNow();
    made.description = std::make_shared<const std::string>(levels.description().SerializeAsString());
    levels.clear_description();
    made.levels = std::make_shared<const std::string>(levels.SerializeAsString());
    return made;
}

// A line of /proc/self/status, in MiB.
double memory(const std::string& name) {
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == name) {
            double kib = 0;
            status >> kib;
            return kib / 1024;
        }
    }
    return 0;
}

// range(0): whether every check of every PID has counted errors, which makes the most series; range(1):
// whether the client takes gzip; range(2): whether a meter reports all channels.
void scrape(benchmark::State& state) {
    station::StationState known;
    known.probe.connected = true;
    known.configuration = std::make_shared<const station::Configuration>();
    for (uint32_t number = 0; number < kChannels; ++number) {
        known.channels.push_back(channelState(number, state.range(0) != 0));
    }
    station::MeterReports reports;
    for (uint32_t number = 0; state.range(2) != 0 && number < kChannels; ++number) {
        reports.emplace_back(0xEF010000 + number, meterReport(number));
    }
    known.now = station::systemNow();
    known.meter.configured = known.meter.connected = state.range(2) != 0;
    station::MetricsExtras extras;
    extras.meterReports = [&reports] { return reports; };
    station::MetricsWriter writer;
    mallopt(M_MMAP_THRESHOLD, 1 << 20);             // what is freed does not stay
    std::ofstream("/proc/self/clear_refs") << "5";  // the peak starts anew
    const double before = memory("VmRSS:");
    std::size_t bytes = 0;
    for ([[maybe_unused]] auto _ : state) {
        if (state.range(1) == 0) {
            bytes = writer.text(known, extras).size();
        } else {  // as the station does it: the text is never whole in memory
            station::GzipWriter gzip;
            gzip.add(writer.text(known, extras, [&gzip](std::string& part) {
                gzip.add(part);
                part.clear();
            }));
            bytes = gzip.finish().size();
        }
        benchmark::DoNotOptimize(bytes);
    }
    state.counters["bytes"] = static_cast<double>(bytes);
    state.counters["transientMiB"] = memory("VmHWM:") - before;
}
BENCHMARK(scrape)
    ->ArgNames({"failed", "gzip", "meter"})
    ->ArgsProduct({{0, 1}, {0, 1}, {0, 1}})
    ->Unit(benchmark::kMillisecond);

}  // namespace
