// When alarms were raised and maintenance held: the route behind bands in plots.
#include <algorithm>

#include "web/handlers.h"
#include "web/jsonValues.h"
#include "web/queryReader.h"

namespace station::handlers {

namespace {

constexpr std::size_t kMostWindows = 100'000;  // a channel each
constexpr std::size_t kMostAlarms = 20'000;    // in an answer; beyond, the oldest are left out

std::string timelineJson(const ReportQuestion& question, ReportRows& rows) {
    auto& alarms = rows.alarms;
    std::ranges::sort(alarms, {}, &AlarmTime::raised);
    const std::size_t leftOut = alarms.size() - std::min(alarms.size(), kMostAlarms);
    std::string text;
    JsonWriter json(text);
    json.open('{').member("since", question.time.from).member("until", question.time.until);
    json.member("knownSince", rows.knownSince).name("alarms").open('[');
    for (const AlarmTime& alarm : std::span(alarms).subspan(leftOut)) {
        json.open('{').member("group", json::groupOrNull(alarm.group));
        json.member("alarm", alarmTypes()[alarm.type].name);
        json.member("severity", severityName(alarm.severity));
        json.member("raised", alarm.raised).member("cleared", alarm.cleared).close('}');
    }
    json.close(']').member("alarmsLeftOut", leftOut).name("maintenance").open('[');
    std::size_t left = kMostWindows;
    const auto windowValue = [&json, &left](const Maintenance& window, const std::optional<Group>& group) {
        if (left > 0) {
            --left;
            json.open('{').member("group", json::groupOrNull(group));
            json.member("from", window.from).member("until", window.until).close('}');
        }
    };
    for (const Maintenance& window : rows.maintenance) {
        if (window.ofAll() || window.group) {
            if (!question.group || window.covers(question.group)) {
                windowValue(window, window.group);
            }
        } else if (question.group) {
            if (window.covers(question.group)) {
                windowValue(window, question.group);
            }
        } else {
            for (const Group& group : window.groups) {
                windowValue(window, group);
            }
        }
    }
    json.close(']').close('}');
    return text;
}

}  // namespace

void timeline(Services& services, const Call& call, Reply&& reply) {
    QueryReader query(call.query);
    const WallTime now = call.state->now.wall;
    ReportQuestion question;
    question.time.until = std::min(query.time("until").value_or(now), now);
    question.time.from = query.time("since").value_or(question.time.until - std::chrono::days{1});
    question.group = query.read("group", "an IPv4 multicast group", Group::parse);
    if (!query.refusal && question.time.from >= question.time.until) {
        query.refusal = problem(422, "since has to be before until, and in the past", "since");
    }
    if (query.refusal) {
        return reply(std::move(*query.refusal));
    }
    const auto found = [&services, post = services.post, question, reply, gzip = takesGzip(call)](
                           ReportRows&& rows, const std::string& wrong) {
        const auto shared = std::make_shared<ReportRows>(std::move(rows));
        post([&services, shared, wrong, question, reply, gzip] {
            if (!wrong.empty()) {
                return reply(problem(503, wrong));
            }
            answer(
                services, Of::kReading, {}, gzip,
                [shared, question] { return AnswerText{timelineJson(question, *shared)}; }, Reply(reply));
        });
    };
    if (!services.station.queryReport(question, found)) {
        reply(problem(503, "Too many queries wait for the event store"));
    }
}

}  // namespace station::handlers
