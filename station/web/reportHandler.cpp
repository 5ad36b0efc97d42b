// What a time was like: the route of reports.
#include "web/handlers.h"
#include "web/queryReader.h"
#include "web/reportText.h"

namespace station::handlers {

namespace {

enum class Format : uint8_t { kJson, kCsv, kOutages };

struct LabelAsked {
    std::string name;
    std::optional<std::string> value;  // channels that have it alone
};

// What a request asks for.
struct ReportRequest {
    ReportQuestion question;
    std::optional<LabelAsked> label;
    Format format = Format::kJson;
};

std::optional<LabelAsked> parseLabel(const std::string& text) {
    const std::size_t equals = text.find('=');
    if (equals == 0 || text.empty() || text.size() > 2 * kNameLimit + 1) {
        return std::nullopt;
    }
    LabelAsked label{.name = text.substr(0, equals), .value = {}};
    if (equals != std::string::npos) {
        label.value = text.substr(equals + 1);
    }
    return label;
}

std::optional<Format> parseFormat(std::string_view text) {
    return text == "json"      ? std::optional(Format::kJson)
           : text == "csv"     ? std::optional(Format::kCsv)
           : text == "outages" ? std::optional(Format::kOutages)
                               : std::nullopt;
}

ReportRequest readRequest(QueryReader& query, WallTime now) {
    ReportRequest request;
    const auto until = query.time("until");
    const auto since = query.time("since");
    request.question.time.until = std::min(until.value_or(now), now);
    request.question.time.from = since.value_or(request.question.time.until - std::chrono::days{1});
    request.question.group = query.read("group", "an IPv4 multicast group", Group::parse);
    request.label = query.read("label", "the name of a label, or NAME=VALUE", parseLabel);
    request.format = query.read("format", "json, csv or outages", parseFormat).value_or(Format::kJson);
    if (!query.refusal && request.question.time.from >= request.question.time.until) {
        query.refusal = problem(422, "since has to be before until, and in the past", "since");
    }
    return request;
}

std::vector<ReportedChannel> channelsOf(const StationState& state, const ReportRequest& request) {
    std::vector<ReportedChannel> channels;
    for (const auto& one : state.channels) {
        const Channel& channel = one->channel;
        if (request.question.group && channel.group != *request.question.group) {
            continue;
        }
        if (request.label && request.label->value) {
            const auto value = channel.labels.find(request.label->name);
            if (value == channel.labels.end() || value->second != *request.label->value) {
                continue;
            }
        }
        channels.push_back({channel.group, channel.name, channel.labels});
    }
    return channels;
}

// What a channel that is gone was labelled is not known.
Report reportOf(const ReportRows& rows, const StationState& state, const ReportRequest& request) {
    return makeReport(rows, channelsOf(state, request),
                      {.time = request.question.time,
                       .label = request.label ? request.label->name : std::string(),
                       .channelsGone = !request.label || !request.label->value});
}

void answerReport(Services& services, const std::shared_ptr<Report>& report, const ReportRequest& request,
                  bool gzip, Reply&& reply) {
    if (request.question.group && report->channels.empty()) {
        return reply(
            problem(404, request.question.group->text() + " was no channel of this station then", "group"));
    }
    Response head = jsonHead();
    if (request.format != Format::kJson) {
        const bool outages = request.format == Format::kOutages;
        head.contentType = "text/csv; charset=utf-8";
        head.headers.emplace_back(
            "Content-Disposition",
            "attachment; filename=\"" + reportFileName(outages ? "outages" : "report", report->time) + "\"");
    }
    const std::string label = request.label ? request.label->name : std::string();
    answer(
        services, Of::kReading, {}, gzip,
        [report, label, format = request.format] {
            return AnswerText{format == Format::kJson  ? reportJson(*report, label)
                              : format == Format::kCsv ? reportCsv(*report)
                                                       : outagesCsv(*report)};
        },
        std::move(reply), std::move(head));
}

// Asks what the history has of the report's losses, and answers with or without it.
void answerWithLosses(Services& services, const std::shared_ptr<Report>& report, const ReportRequest& request,
                      bool gzip, Reply&& reply) {
    LossQuestion question{.time = report->time, .counted = {}};
    for (const ChannelReport& channel : report->channels) {
        question.counted.emplace(channel.channel.group, channel.counted);
    }
    const auto found = [&services, post = services.post, report, request, gzip, reply](
                           LossSums&& sums, const std::string& wrong) {
        for (ChannelReport& channel : report->channels) {
            if (const auto sum = sums.find(channel.channel.group); sum != sums.end()) {
                channel.loss = sum->second;
            }
        }
        report->lossProblem = wrong;
        post([&services, report, request, gzip, reply] {
            answerReport(services, report, request, gzip, Reply(reply));
        });
    };
    if (!services.station.queryLosses(std::move(question), found)) {
        report->lossProblem = "Too many queries wait for the disk";
        answerReport(services, report, request, gzip, std::move(reply));
    }
}

}  // namespace

void report(Services& services, const Call& call, Reply&& reply) {
    QueryReader query(call.query);
    const ReportRequest request = readRequest(query, call.state->now.wall);
    if (query.refusal) {
        return reply(std::move(*query.refusal));
    }
    // On the thread for queries.
    const auto found = [&services, post = services.post, reply, request, state = call.state,
                        gzip = takesGzip(call)](ReportRows&& rows, const std::string& wrong) {
        const auto made =
            std::make_shared<Report>(wrong.empty() ? reportOf(rows, *state, request) : Report{});
        post([&services, made, wrong, reply, request, gzip] {
            wrong.empty() ? answerWithLosses(services, made, request, gzip, Reply(reply))
                          : reply(problem(503, wrong));
        });
    };
    if (!services.station.queryReport(request.question, found)) {
        reply(problem(503, "Too many queries wait for the event store"));
    }
}

}  // namespace station::handlers
