#include "web/meterMetrics.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <cmath>
#include <utility>

#include "channels/channel.h"
#include "common/text.h"
#include "web/meterFigures.h"

namespace station {

namespace {

using namespace figures;

constexpr std::size_t kPidCount = 0x2000;

// Checks that can last: absences, loss of synchronisation, unreferenced PIDs. Others are over as they happen.
constexpr auto kLasting = std::to_array<std::string_view>(
    {"1.1", "1.3.a", "1.5.a", "1.6", "2.6", "3.1.a", "3.2", "3.4.a", "3.5.a", "3.6.a", "3.6.c", "3.8"});

void join(std::string& labels, std::string_view more) {
    labels += labels.empty() || more.empty() ? "" : ",";
    labels += more;
}

std::string numberLabel(std::string_view name, uint64_t value) {
    std::string labels;
    appendLabel(labels, name, std::to_string(value));
    return labels;
}

// A text of the stream's own, which may be anything.
void appendText(std::string& labels, std::string_view name, const std::optional<std::string>& text) {
    appendLabel(labels, name, text ? printable(toUtf8(*text), kNameLimit) : std::string());
}
template <typename Number>
void appendNumber(std::string& labels, std::string_view name, const std::optional<Number>& number) {
    appendLabel(labels, name, number ? std::to_string(*number) : std::string());
}

// The values of all figures of a table, a line for each report, clock, PID ...: what is left of a report.
template <typename Of, std::size_t kFigures>
class Lines {
  public:
    explicit Lines(const std::array<Figure<Of>, kFigures>& figures) : figures_(figures) {}

    // `labels` beside the channel's.
    void add(const ChannelRow& channel, std::string labels, const Of& of) {
        Line& line = lines_.emplace_back(Line{&channel, std::move(labels), {}});
        for (std::size_t i = 0; i < kFigures; ++i) {
            line.values[i] = figures_[i].value(of);
        }
    }
    void write(Exposition& out) const {
        std::string_view family;
        std::string labels;
        for (std::size_t i = 0; i < kFigures; ++i) {
            if (std::exchange(family, figures_[i].family.name) != figures_[i].family.name) {
                out.family(figures_[i].family);
            }
            for (const Line& line : lines_) {
                if (!std::isnan(line.values[i])) {
                    labels = line.labels;
                    join(labels, figures_[i].more);
                    out.sample(line.channel->labels, labels, line.values[i]);
                }
            }
        }
    }

  private:
    struct Line {
        const ChannelRow* channel;
        std::string labels;
        std::array<double, kFigures> values;
    };
    const std::array<Figure<Of>, kFigures>& figures_;
    std::vector<Line> lines_;
};

// Series whose value is always 1.
struct Info {
    MetricFamily family;
    std::vector<std::pair<const ChannelRow*, std::string>> series{};

    void write(Exposition& out) const {
        out.family(family);
        for (const auto& [channel, labels] : series) {
            out.sample(channel->labels, labels, 1);
        }
    }
};

struct CheckLine {
    const ChannelRow* channel;
    uint8_t check;  // its place among all checks
    bool active;
    uint64_t count;
    uint64_t seconds;
};
struct PidCheckLine {
    const ChannelRow* channel;
    uint16_t pid;
    uint8_t check;
    uint64_t count;
};

// What is left of all reports, in the order in which families are told.
class Collected {
  public:
    explicit Collected(MetricsPids which) : which_(which) {
        for (const meter::CheckReport& check : checks_) {
            std::string& labels = checkLabels_.emplace_back();
            appendLabel(labels, "check", check.name);
            appendLabel(labels, "priority", std::to_string(check.priority));
        }
    }

    void add(const ChannelRow& channel, const ReportedStream& reported) {
        const meter::Report& report = reported.report;
        channels_.add(channel, {}, reported);
        addTransport(channel, report.transport);
        for (const meter::ClockReport& clock : firstOf(report.clocks, kMetricsClocks)) {
            clocks_.add(channel, numberLabel("pid", clock.pid), clock);
        }
        addChecks(channel, report, addPids(channel, report));
        std::bitset<kPidCount> seen;
        std::size_t streams = 0;
        for (const meter::ServiceReport& service : firstOf(report.services, kMetricsServices)) {
            addService(channel, service);
            for (const meter::StreamReport& stream : service.streams) {
                if (seen.test(stream.pid % kPidCount)) {
                    continue;  // another service has it, too
                }
                seen.set(stream.pid % kPidCount);
                ++streams <= kMetricsStreams ? addStream(channel, service, stream)
                                             : static_cast<void>(++leftOut_);
            }
        }
    }

    void write(Exposition& out) const {
        writeChecks(out);
        channels_.write(out);
        clocks_.write(out);
        pids_.write(out);
        writePidChecks(out);
        transportInfo_.write(out);
        services_.write(out);
        serviceInfo_.write(out);
        videoInfo_.write(out);
        audioInfo_.write(out);
        streams_.write(out);
        out.family({"kestor_meter_series_left_out", kGauge,
                    "Clocks, services, streams and PIDs beyond the most that are exported of a channel."});
        out.sample(static_cast<double>(leftOut_));
    }

  private:
    template <typename Element>
    std::span<const Element> firstOf(const std::vector<Element>& all, std::size_t limit) {
        leftOut_ += all.size() - std::min(all.size(), limit);
        return {all.data(), std::min(all.size(), limit)};
    }

    // Returns which ones are told.
    std::bitset<kPidCount> addPids(const ChannelRow& channel, const meter::Report& report) {
        std::bitset<kPidCount> listed;
        if (which_ == MetricsPids::kNone) {
            return listed;
        }
        for (const meter::PidReport& pid : report.pids) {
            if (which_ == MetricsPids::kListed && !pid.referenced) {
                continue;
            }
            if (listed.count() == kMetricsMeterPids) {
                ++leftOut_;
            } else if (!listed.test(pid.pid % kPidCount)) {
                listed.set(pid.pid % kPidCount);
                pids_.add(channel, numberLabel("pid", pid.pid), pid);
            }
        }
        return listed;
    }
    void addChecks(const ChannelRow& channel, const meter::Report& report,
                   const std::bitset<kPidCount>& pids) {
        for (std::size_t i = 0; i < std::min(report.checks.size(), checks_.size()); ++i) {
            const meter::CheckReport& check = report.checks[i];
            const auto place = static_cast<uint8_t>(i);
            if (!check.applicable) {
                continue;
            }
            lines_.push_back({&channel, place, check.active, check.count, check.seconds});
            for (const auto& [pid, count] : check.pids) {
                if (pids.test(pid % kPidCount)) {
                    pidLines_.push_back({&channel, pid, place, count});
                }
            }
        }
    }
    void addTransport(const ChannelRow& channel, const meter::TransportReport& transport) {
        if (!transport.transportStreamId && !transport.originalNetworkId && !transport.network) {
            return;
        }
        std::string labels;
        appendNumber(labels, "transport_stream_id", transport.transportStreamId);
        appendNumber(labels, "original_network_id", transport.originalNetworkId);
        appendText(labels, "network", transport.network);
        transportInfo_.series.emplace_back(&channel, std::move(labels));
    }
    void addService(const ChannelRow& channel, const meter::ServiceReport& service) {
        services_.add(channel, numberLabel("program", service.program), service);
        std::string labels = numberLabel("program", service.program);
        appendText(labels, "name", service.name);
        appendText(labels, "provider", service.provider);
        appendNumber(labels, "type", service.type);
        appendLabel(labels, "pmt_pid", std::to_string(service.pmtPid));
        appendNumber(labels, "pmt_version", service.pmtVersion);
        appendNumber(labels, "pcr_pid", service.pcrPid);
        serviceInfo_.series.emplace_back(&channel, std::move(labels));
    }
    void addStream(const ChannelRow& channel, const meter::ServiceReport& service,
                   const meter::StreamReport& stream) {
        streams_.add(channel, numberLabel("pid", stream.pid), stream);
        std::string labels = numberLabel("pid", stream.pid);
        appendLabel(labels, "program", std::to_string(service.program));
        appendText(labels, "codec", stream.codec);
        if (stream.kind == meter::StreamKind::kVideo) {
            const meter::VideoReport video = stream.video.value_or(meter::VideoReport{});
            appendText(labels, "profile", video.profile);
            appendNumber(labels, "level", video.level);
            appendNumber(labels, "width", video.width);
            appendNumber(labels, "height", video.height);
            appendLabel(labels, "scan",
                        !video.interlaced ? "" : (*video.interlaced ? "interlaced" : "progressive"));
            appendText(labels, "chroma", video.chroma);
            appendNumber(labels, "bit_depth", video.bitDepth);
            appendText(labels, "transfer", video.transfer);
            videoInfo_.series.emplace_back(&channel, std::move(labels));
        } else if (stream.kind == meter::StreamKind::kAudio) {
            const meter::AudioReport audio = stream.audio.value_or(meter::AudioReport{});
            appendText(labels, "language", stream.language);
            appendText(labels, "profile", audio.profile);
            appendNumber(labels, "channels", audio.channels);
            appendNumber(labels, "sample_rate", audio.sampleRate);
            audioInfo_.series.emplace_back(&channel, std::move(labels));
        }
    }

    void writeChecks(Exposition& out) const {
        out.family({"kestor_ts_tr101290_errors_total", kCounter,
                    "How often a check of ETSI TR 101 290 failed; an absence counts once."});
        for (const CheckLine& line : lines_) {
            out.sample(line.channel->labels, checkLabels_[line.check], static_cast<double>(line.count));
        }
        out.family({"kestor_ts_tr101290_error_seconds_total", kCounter,
                    "Seconds in which a check of ETSI TR 101 290 failed."});
        for (const CheckLine& line : lines_) {
            out.sample(line.channel->labels, checkLabels_[line.check], static_cast<double>(line.seconds));
        }
        out.family({"kestor_ts_tr101290_active", kGauge,
                    "1 while a check that can last (an absence, loss of synchronisation) fails, else 0."});
        for (const CheckLine& line : lines_) {
            if (line.active || std::ranges::find(kLasting, checks_[line.check].id) != kLasting.end()) {
                out.sample(line.channel->labels, checkLabels_[line.check], line.active ? 1 : 0);
            }
        }
    }
    void writePidChecks(Exposition& out) const {
        out.family({"kestor_ts_pid_tr101290_errors_total", kCounter,
                    "How often a check of ETSI TR 101 290 failed on a PID; from the first error on."});
        for (const PidCheckLine& line : pidLines_) {
            std::string labels = numberLabel("pid", line.pid);
            join(labels, checkLabels_[line.check]);
            out.sample(line.channel->labels, labels, static_cast<double>(line.count));
        }
    }

    const MetricsPids which_;
    const std::vector<meter::CheckReport> checks_ = meter::allChecks();
    std::vector<std::string> checkLabels_;
    std::vector<CheckLine> lines_;
    Lines<ReportedStream, kOfChannel.size()> channels_{kOfChannel};
    Lines<Clock, kOfClock.size()> clocks_{kOfClock};
    Lines<Pid, kOfPid.size()> pids_{kOfPid};
    std::vector<PidCheckLine> pidLines_;
    Lines<Service, kOfService.size()> services_{kOfService};
    Lines<Stream, kOfStream.size()> streams_{kOfStream};
    Info transportInfo_{{"kestor_transport_info", kGauge,
                         "Always 1; what the tables say the transport stream is, as labels."}};
    Info serviceInfo_{
        {"kestor_service_info", kGauge, "Always 1; a service of the channel as its tables tell."}};
    Info videoInfo_{{"kestor_video_info", kGauge, "Always 1; what a video stream is, as labels."}};
    Info audioInfo_{{"kestor_audio_info", kGauge, "Always 1; what an audio stream is, as labels."}};
    std::size_t leftOut_ = 0;
};

}  // namespace

void writeMeterFigures(Exposition& out, const std::vector<ChannelRow>& channels, const MeterReports& reports,
                       MetricsPids which, SteadyTime now) {
    Collected collected(which);
    auto next = reports.begin();
    for (const ChannelRow& channel : channels) {
        const uint32_t group = channel.state->channel.group.hostOrder();
        next = std::find_if(next, reports.end(), [group](const auto& one) { return one.first >= group; });
        if (next == reports.end() || next->first != group || !next->second.capturing ||
            now - next->second.time.steady > kMeterReportHolds) {
            continue;
        }
        const meter::Report report = next->second.read();
        collected.add(channel, {report, next->second.tallies});
    }
    collected.write(out);
}

void writeMeter(Exposition& out, const MeterState& meter) {
    if (!meter.configured) {
        return;
    }
    const bool up = meter.connected && !meter.silent;
    out.family({"kestor_meter_up", kGauge, "1 while kestor-meter reports, so that its figures are current."});
    out.sample(up ? 1 : 0);
    if (!meter.connected) {
        return;
    }
    std::string labels;
    appendLabel(labels, "version", meter.version);
    appendLabel(labels, "interface", meter.interface);
    out.family({"kestor_meter_info", kGauge, "Always 1; the meter's version and where it captures."});
    out.sample({}, labels, 1);
    for (const auto& figure : kOfMeter) {
        out.family(figure.family);
        if (const double value = figure.value(meter); !std::isnan(value)) {
            out.sample(value);
        }
    }
}

}  // namespace station
