#include "influx/influx.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <csignal>
#include <deque>
#include <limits>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "basics/text.h"
#include "common/log.h"
#include "recordColumns.h"
#include "store/httpPoster.h"

namespace station {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kFirstWait{1'000};  // after a failure, doubles with each
constexpr std::chrono::milliseconds kLongestWait{30'000};
constexpr std::chrono::seconds kIdle{60};

// Commas, spaces and equals signs are escaped in tag keys and values. Line ends cannot be, and a backslash at
// the end would escape what separates the tag from the next.
void appendEscaped(std::string& line, std::string_view text) {
    while (text.ends_with('\\')) {
        text.remove_suffix(1);
    }
    for (const char character : text) {
        if (character == ',' || character == ' ' || character == '=') {
            line += '\\';
        }
        line += static_cast<unsigned char>(character) < 0x20 ? '_' : character;
    }
}

void appendTag(std::string& line, std::string_view key, std::string_view value) {
    const std::size_t before = line.size();
    line += ',';
    line += key;
    line += '=';
    const std::size_t begin = line.size();
    appendEscaped(line, value);
    if (line.size() == begin) {  // the protocol knows no empty tag
        line.resize(before);
    }
}

// Names that the point has itself, or that the server keeps to itself.
bool isReserved(std::string_view key) {
    return key == "probe" || key == "group" || key == "channel" || key == "time" || key.starts_with('_');
}

// The labels as tags. The server takes no point in which a key stands twice.
void appendLabels(std::string& line, const Labels& labels) {
    basics::UniqueNames used;
    for (const auto& [key, value] : labels) {
        std::string name;
        appendEscaped(name, isReserved(key) ? "label_" + key : key);
        appendTag(line, name.empty() ? used.claimNumbered("label") : used.claim(name), value);
    }
}

void appendNumber(std::string& text, auto number) {
    char digits[32];
    const auto written = std::to_chars(std::begin(digits), std::end(digits), number);
    text.append(digits, written.ptr);
}

// "name=12i" or "name=1.5" for each column; what the server could not hold is left out.
std::string fieldsOf(const Record& stream) {
    const auto columns = records::columnsOf(stream.kind());
    std::string fields;
    for (std::size_t i = records::kCommonColumns.size(); i < columns.size(); ++i) {
        const records::Column& column = columns[i];
        const bool fraction = column.type == records::Type::kFraction;
        if (column.type == records::Type::kText) {
            continue;
        }
        const bool tooMuch = fraction ? !std::isfinite(stream.fraction(i))
                                      : column.type == records::Type::kUnsigned && stream.integer(i) < 0;
        if (tooMuch) {
            continue;
        }
        fields += fields.empty() ? "" : ",";
        fields += column.name;
        fields += '=';
        if (fraction) {
            appendNumber(fields, stream.fraction(i));
        } else {
            appendNumber(fields, stream.integer(i));
            fields += 'i';
        }
    }
    return fields;
}

// Of all measures of the sample's source, named without it; what is not known is left out.
std::string fieldsOf(const ChannelSample& sample) {
    std::string fields;
    for (const Measure& measure : kMeasures) {
        if (measure.source != sample.source || !sample.knows(measure, nullptr)) {
            continue;
        }
        const bool whole = measure.kind != MeasureKind::kLevel;
        const double number = sample.value(measure);
        if (!std::isfinite(number) || (measure.kind == MeasureKind::kState && number < 0)) {
            continue;
        }
        const std::string_view name = measure.name.substr(measure.name.find('.') + 1);
        fields.append(fields.empty() ? "" : ",").append(name).append("=");
        if (whole) {
            constexpr auto kLargest = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
            appendNumber(fields, measure.kind == MeasureKind::kCounter
                                     ? static_cast<int64_t>(std::min(sample.count(measure).total, kLargest))
                                     : static_cast<int64_t>(sample.state(measure)));
            fields += 'i';
        } else {
            appendNumber(fields, number);
        }
    }
    return fields;
}

}  // namespace

std::string influxLines(const StationState& state, const std::string& instance, std::size_t& points,
                        InfluxWritten& written) {
    std::string lines;
    points = 0;
    const bool snapshot = std::exchange(written.snapshots, state.probe.snapshots) != state.probe.snapshots;
    std::unordered_map<uint32_t, WallTime> reports;
    for (const auto& channel : state.channels) {
        const auto add = [&](std::string_view measurement, const std::string& fields, WallTime time) {
            if (fields.empty()) {
                return;
            }
            lines += measurement;
            appendTag(lines, "probe", instance);
            appendTag(lines, "group", channel->channel.group.text());
            appendTag(lines, "channel", channel->channel.name);
            appendLabels(lines, channel->channel.labels);
            lines += ' ';
            lines += fields;
            lines += ' ';
            appendNumber(lines, std::chrono::nanoseconds(time.time_since_epoch()).count());
            lines += '\n';
            ++points;
        };
        if (snapshot && channel->measured[Source::kProbe].shown && channel->stream != nullptr) {
            add("kestor_stream", fieldsOf(*channel->stream), state.probe.lastSnapshot);
        }
        const ChannelSample& sample = channel->measured[Source::kMeter].sample;
        const uint32_t group = channel->channel.group.hostOrder();
        const auto before = written.reports.find(group);
        const WallTime last = before == written.reports.end() ? WallTime{} : before->second;
        if (channel->measured[Source::kMeter].shown && sample.came != last) {
            add("kestor_meter", fieldsOf(sample), sample.came);
        }
        reports.emplace(group, channel->measured[Source::kMeter].shown ? sample.came : last);
    }
    written.reports = std::move(reports);
    return lines;
}

struct InfluxWriter::Implementation {
    explicit Implementation(std::string name) : instance(std::move(name)) {}

    void run();
    void follow();
    void add(const StationState& state);
    void send();
    void settle(const HttpOutcome& outcome);
    void dropFirst();

    struct Batch {
        std::string lines;
        std::size_t points = 0;
    };

    const std::string instance;
    HttpPoster poster;
    mutable std::mutex mutex;  // guards the four below; no lock is taken while it is held
    std::optional<Configuration::Influx> ordered;
    StatePointer newest;
    Statistics statistics;
    bool closing = false;

    // The writer thread's.
    Configuration::Influx options;
    InfluxWritten written;
    std::deque<Batch> kept;  // a snapshot each, oldest first; the first `underWay` are being sent
    std::size_t keptBytes = 0;
    std::size_t underWay = 0;
    SteadyTime retryAt{};
    std::chrono::milliseconds wait{kFirstWait};
    LogOnChange problem;
    std::thread thread;
};

void InfluxWriter::Implementation::run() {
    prctl(PR_SET_NAME, "influx");
    sigset_t broken;  // TLS writes to a closed connection without MSG_NOSIGNAL
    sigemptyset(&broken);
    sigaddset(&broken, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &broken, nullptr);
    while (true) {
        {
            const std::lock_guard lock(mutex);
            if (closing) {
                return;
            }
        }
        follow();
        send();
        const bool waits = underWay == 0 && !kept.empty();
        poster.run(waits ? std::max(retryAt, Clock::now()) : Clock::now() + kIdle);
    }
}

void InfluxWriter::Implementation::follow() {
    StatePointer state;
    {
        const std::lock_guard lock(mutex);
        if (ordered) {
            options = *std::exchange(ordered, std::nullopt);
            retryAt = {};
        }
        state = std::exchange(newest, nullptr);
    }
    while (options.url.empty() && kept.size() > underWay) {
        dropFirst();
    }
    if (state != nullptr && !options.url.empty()) {
        add(*state);
    }
}

void InfluxWriter::Implementation::add(const StationState& state) {
    Batch batch;
    batch.lines = influxLines(state, instance, batch.points, written);
    if (batch.points == 0) {
        return;
    }
    keptBytes += batch.lines.size();
    kept.push_back(std::move(batch));
    while (keptBytes > kKeptBytes && kept.size() > underWay + 1) {
        dropFirst();
    }
}

// The oldest that is not under way.
void InfluxWriter::Implementation::dropFirst() {
    const auto first = kept.begin() + static_cast<std::ptrdiff_t>(underWay);
    {
        const std::lock_guard lock(mutex);
        statistics.dropped += first->points;
    }
    keptBytes -= first->lines.size();
    kept.erase(first);
}

void InfluxWriter::Implementation::send() {
    if (underWay > 0 || kept.empty() || options.url.empty() || Clock::now() < retryAt) {
        return;
    }
    HttpPost request;
    request.url = options.url;
    request.authorization = options.authorization;
    request.timeout = options.timeout;
    request.contentType = "text/plain; charset=utf-8";
    do {
        request.body += kept[underWay].lines;
        ++underWay;
    } while (underWay < kept.size() && request.body.size() + kept[underWay].lines.size() <= kPostBytes);
    poster.post(std::move(request), [this](const HttpOutcome& outcome) { settle(outcome); });
}

void InfluxWriter::Implementation::settle(const HttpOutcome& outcome) {
    const std::size_t sent = std::exchange(underWay, 0);
    const std::string who = "influx " + shownUrl(options.url);
    if (!outcome.taken()) {
        retryAt = Clock::now() + wait;
        wait = std::min(wait * 2, kLongestWait);
        problem.say(LogLevel::kWarning,
                    who + ": " + outcome.problem + "; tried again, what is too much to keep is dropped");
        // What the server refuses it refuses again.
        const bool refused = outcome.status >= 400 && outcome.status < 500 && outcome.status != 401 &&
                             outcome.status != 403 && outcome.status != 404 && outcome.status != 429;
        for (std::size_t i = 0; refused && i < sent; ++i) {
            dropFirst();
        }
        const std::lock_guard lock(mutex);
        ++statistics.failed;
        statistics.lastProblem = outcome.problem;
        return;
    }
    problem.resolved(who + ": numbers arrive again");
    retryAt = {};
    wait = kFirstWait;
    uint64_t points = 0;
    for (std::size_t i = 0; i < sent; ++i) {
        points += kept.front().points;
        keptBytes -= kept.front().lines.size();
        kept.pop_front();
    }
    const std::lock_guard lock(mutex);
    statistics.written += points;
    statistics.lastProblem.clear();
}

InfluxWriter::InfluxWriter(const Configuration::Influx& options, const std::string& instance)
    : implementation_(std::make_unique<Implementation>(instance)) {
    implementation_->options = options;
    implementation_->thread = std::thread([writer = implementation_.get()] { writer->run(); });
}

InfluxWriter::~InfluxWriter() {
    {
        const std::lock_guard lock(implementation_->mutex);
        implementation_->closing = true;
    }
    implementation_->poster.wake();
    implementation_->thread.join();
}

void InfluxWriter::configure(const Configuration::Influx& options) {
    {
        const std::lock_guard lock(implementation_->mutex);
        implementation_->ordered = options;
    }
    implementation_->poster.wake();
}

void InfluxWriter::write(StatePointer state) {
    {
        const std::lock_guard lock(implementation_->mutex);
        implementation_->newest = std::move(state);
    }
    implementation_->poster.wake();
}

InfluxWriter::Statistics InfluxWriter::statistics() const {
    const std::lock_guard lock(implementation_->mutex);
    return implementation_->statistics;
}

}  // namespace station
