// A channel's past: the route of histories.
#include <algorithm>
#include <cmath>

#include "web/handlers.h"
#include "web/historyText.h"
#include "web/queryReader.h"

namespace station::handlers {

namespace {

using Points = std::vector<HistoryPoint>;
constexpr std::chrono::minutes kMinute{1};
// Of an answer with several measures: points by measures.
constexpr int64_t kMostValues = 100'000;
constexpr std::chrono::days kLongest{30};  // that the disk keeps

struct Asked {
    QueryHistory owner;  // what is in memory
    bool several;        // `metrics` was asked for, also where that is one
    int64_t resolution;  // 1, 60, 300 or 3600
    std::optional<WallTime> since;
    std::optional<WallTime> until;
    bool csv;
};

bool isCounter(HistoryMetric metric) {
    return std::ranges::find(historyMetrics(), metric, &HistoryMetricName::metric)->counter;
}

// What the disk has, before what memory has. Where nothing is known for a while both ends of it say so.
Points joined(const Points& older, const Points& newer) {
    Points all;
    const auto add = [&all](const HistoryPoint& point) {
        if (!all.empty() && point.time - all.back().time > kMinute + kMinute / 2) {
            constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();
            all.push_back({all.back().time + kMinute, kUnknown, kUnknown, kUnknown});
            if (point.time - all.back().time > kMinute + kMinute / 2) {
                all.push_back({point.time - kMinute, kUnknown, kUnknown, kUnknown});
            }
        }
        all.push_back(point);
    };
    std::ranges::for_each(older, add);
    std::ranges::for_each(newer, add);
    return all;
}

// Minutes as points of so many seconds each, which begin at whole multiples of that.
Points gathered(const Points& minutes, int64_t seconds, bool counter) {
    const std::chrono::seconds step(seconds);
    Points all;
    std::size_t known = 0;
    for (const HistoryPoint& minute : minutes) {
        const WallTime begin(std::chrono::floor<std::chrono::seconds>(minute.time.time_since_epoch()) / step *
                             step);
        if (all.empty() || all.back().time != begin) {
            constexpr double kUnknown = std::numeric_limits<double>::quiet_NaN();
            all.push_back({begin, kUnknown, kUnknown, kUnknown});
            known = 0;
        }
        if (!std::isfinite(minute.mean)) {
            continue;
        }
        HistoryPoint& point = all.back();
        if (known++ == 0) {
            point = {begin, minute.minimum, minute.mean, minute.maximum};
        } else if (counter) {
            point.minimum = point.mean = point.maximum = point.mean + minute.mean;
        } else {
            point.minimum = std::min(point.minimum, minute.minimum);
            point.mean += (minute.mean - point.mean) / static_cast<double>(known);
            point.maximum = std::max(point.maximum, minute.maximum);
        }
    }
    return all;
}

// What memory has of each measure that was asked for, and what the disk has of a time before.
struct Found {
    std::vector<Points> inMemory;
    Minutes onDisk;
};

std::vector<HistorySeries> seriesOf(const Asked& asked, const Found& found) {
    std::vector<HistorySeries> all;
    for (std::size_t i = 0; i < asked.owner.metrics.size(); ++i) {
        const HistoryMetric metric = asked.owner.metrics[i];
        Points points = found.onDisk.empty() ? found.inMemory.at(i)
                                             : joined(pointsOf(found.onDisk, metric), found.inMemory.at(i));
        if (asked.resolution > 60) {
            points = gathered(points, asked.resolution, isCounter(metric));
        }
        std::erase_if(points,
                      [&](const HistoryPoint& point) { return asked.until && point.time >= *asked.until; });
        all.push_back({metric, std::move(points)});
    }
    return all;
}

void answerFound(Services& services, const Asked& asked, const std::shared_ptr<const Found>& found, bool gzip,
                 Reply&& reply) {
    Response head = jsonHead();
    if (asked.csv) {
        head.contentType = "text/csv; charset=utf-8";
        head.headers.emplace_back("Content-Disposition",
                                  "attachment; filename=\"" + asked.owner.group.text() + ".csv\"");
    }
    answer(
        services, Of::kReading, {}, gzip,
        [asked, found, state = services.station.state()] {
            const auto series = seriesOf(asked, *found);
            const HistoryAbout about{asked.owner.group, asked.resolution};
            return AnswerText{asked.csv       ? historyCsv(series)
                              : asked.several ? historiesJson(about, series, *state)
                                              : historyJson(about, series.front())};
        },
        std::move(reply), std::move(head));
}

// What memory has, and what it lacks of the time that was asked for from the disk.
void answerWhole(Services& services, const Asked& asked, std::vector<Points>&& inMemory, bool gzip,
                 Reply&& reply) {
    const auto found = std::make_shared<Found>();
    found->inMemory = std::move(inMemory);
    const Points& newer = found->inMemory.front();
    const WallTime known = newer.empty() ? services.station.state()->now.wall : newer.front().time;
    const WallTime until = std::min(known, asked.until.value_or(known));
    if (asked.owner.resolution == 1 || !asked.since || *asked.since + kMinute >= until) {
        return answerFound(services, asked, found, gzip, std::move(reply));
    }
    const auto read = [&services, post = services.post, asked, found, gzip, reply](Minutes&& minutes,
                                                                                   const std::string& wrong) {
        found->onDisk = std::move(minutes);
        post([&services, asked, found, gzip, reply, wrong] {
            wrong.empty() ? answerFound(services, asked, found, gzip, Reply(reply))
                          : reply(problem(503, wrong));
        });
    };
    if (!services.station.queryMinutes(asked.owner.group, *asked.since, until, read)) {
        reply(problem(503, "Too many queries wait for the disk"));
    }
}

std::optional<HistoryMetric> parseMetric(std::string_view text) {
    const auto found = std::ranges::find(historyMetrics(), text, &HistoryMetricName::name);
    return found == historyMetrics().end() ? std::nullopt : std::optional(found->metric);
}

// Each once: there are no more of them than the history keeps.
std::optional<std::vector<HistoryMetric>> parseMetrics(std::string_view text) {
    std::vector<HistoryMetric> metrics;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find(',', begin), text.size());
        const auto metric = parseMetric(text.substr(begin, end - begin));
        if (!metric || std::ranges::find(metrics, *metric) != metrics.end()) {
            return std::nullopt;
        }
        metrics.push_back(*metric);
        begin = end + 1;
    }
    return metrics;
}

// Whether one answer has room for it.
bool isBounded(const Asked& asked, WallTime now) {
    const auto time =
        std::min<std::chrono::milliseconds>(asked.until.value_or(now) - asked.since.value_or(now), kLongest);
    const auto points = std::chrono::ceil<std::chrono::seconds>(time).count() / asked.resolution;
    return points * static_cast<int64_t>(asked.owner.metrics.size()) <= kMostValues;
}

}  // namespace

void history(Services& services, const Call& call, Reply&& reply) {
    QueryReader query(call.query);
    const auto metric = query.read("metric", "a name of historyMetrics in /api/v1/meta", parseMetric);
    const auto metrics = query.read(
        "metrics", "different names of historyMetrics in /api/v1/meta with commas between", parseMetrics);
    const auto resolution = query.read("resolution", "1, 60, 300 or 3600", [](std::string_view text) {
        const auto value = parseInteger(text);
        return value == 1 || value == 60 || value == 300 || value == 3600 ? value : std::nullopt;
    });
    const auto since = query.time("since");
    const auto until = query.time("until");
    const auto csv = query.read("format", "json or csv", [](std::string_view text) {
        return text == "csv" || text == "json" ? std::optional(text == "csv") : std::nullopt;
    });
    if (metric.has_value() == metrics.has_value() && !query.refusal) {
        query.refusal = problem(422, metric ? "metric and metrics exclude each other" : "metric is missing",
                                metric ? "metrics" : "metric");
    }
    if (query.refusal) {
        return reply(std::move(*query.refusal));
    }
    if (call.state->find(*call.group) == nullptr) {
        return answerChannel(services, Of::kReading, *call.group, false, std::move(reply));
    }
    const Asked asked{.owner = {.group = *call.group,
                                .metrics = metric ? std::vector{*metric} : *metrics,
                                .resolution = resolution.value_or(1) == 1 ? 1 : 60,
                                .since = since.value_or(WallTime{})},
                      .several = metrics.has_value(),
                      .resolution = resolution.value_or(1),
                      .since = since,
                      .until = until,
                      .csv = csv.value_or(false)};
    if (asked.several && !isBounded(asked, call.state->now.wall)) {
        return reply(problem(422,
                             "That is more than one answer takes (" + std::to_string(kMostValues) +
                                 " values): ask for fewer metrics, a shorter time or a coarser "
                                 "resolution",
                             "metrics"));
    }
    ask(services, asked.owner, std::move(reply),
        [asked, gzip = takesGzip(call)](Services& room, Answer&& said, Reply&& answered) {
            answerWhole(room, asked, std::move(said.series), gzip, std::move(answered));
        });
}

}  // namespace station::handlers
