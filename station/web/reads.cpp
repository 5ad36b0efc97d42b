// Handlers that read.
#include <algorithm>

#include "channels/playlist.h"
#include "common/text.h"
#include "web/apiJson.h"
#include "web/handlers.h"
#include "web/queryReader.h"

namespace station::handlers {

namespace {

constexpr int64_t kLargestLimit = 1000;
constexpr int64_t kDefaultLimit = 100;
// The owner publishes at least once a second.
constexpr std::chrono::seconds kStateOverdue{5};
constexpr int64_t kDefaultCells = 60;
constexpr int64_t kDefaultCellSeconds = 5;

std::optional<bool> parseSwitch(std::string_view text) {
    return text == "1" || text == "0" ? std::optional(text == "1") : std::nullopt;
}

std::string exportText(const StationState& state) {
    ChannelMap channels;
    for (const auto& one : state.channels) {
        channels.emplace(one->channel.group, one->channel);
    }
    return writePlaylist(channels);
}

}  // namespace

Response jsonResponse(std::string text, int status) {
    Response response;
    response.status = status;
    response.contentType = "application/json";
    response.body = std::make_shared<Payload>(std::move(text));
    return response;
}

Response jsonHead(int status) {
    Response response;
    response.status = status;
    response.contentType = "application/json";
    return response;
}

bool takesGzip(const Call& call) {
    return acceptsGzip(call.request.acceptEncoding);
}

void answer(Services& services, Of of, const std::optional<AnswerKey>& key, bool gzip,
            const AnswerBuilder::Build& build, Reply&& reply, Response head) {
    // Of a reading it keeps nothing that is large, since it ends on the I/O thread.
    const auto here = of == Of::kChange ? build : AnswerBuilder::Build();
    const auto response = [here, head = std::move(head)](const PayloadPointer& payload) {
        Response whole = head;
        whole.body = payload == nullptr && here ? std::make_shared<Payload>(here().made) : payload;
        return whole.body != nullptr ? whole : problem(503, "There is no room for more answers");
    };
    const auto built = [post = services.post, reply, response](const PayloadPointer& payload) {
        post([reply, response, payload] { reply(response(payload)); });
    };
    if (!services.answers->ask(key, gzip, build, built)) {
        reply(response(nullptr));
    }
}

void answerChannel(Services& services, Of of, const Group& group, bool gzip, Reply&& reply, int status) {
    const StatePointer state = services.station.state();
    if (state->find(group) == nullptr) {
        return reply(problem(404, group.text() + " is no channel of this station", "group"));
    }
    answer(
        services, of, AnswerKey{"channel", {state->number, group.hostOrder()}}, gzip,
        [state, group] { return AnswerText{channelJson(*state, *state->find(group))}; }, std::move(reply),
        jsonHead(status));
}

void answerStatus(Services& services, Of of, bool gzip, Reply&& reply) {
    const StatePointer state = services.station.state();
    answer(
        services, of, AnswerKey{"status", {state->number}}, gzip,
        [state] { return AnswerText{statusJson(*state)}; }, std::move(reply));
}

void answerMaintenance(Services& services, Of of, bool gzip, Reply&& reply) {
    const StatePointer state = services.station.state();
    answer(
        services, of, AnswerKey{"maintenance", {state->number}}, gzip,
        [state] { return AnswerText{maintenanceListJson(*state)}; }, std::move(reply));
}

void access(Services&, const Call& call, Reply&& reply) {
    using enum Access::Right;
    reply(jsonResponse(call.changes == kGranted      ? R"({"changes":"allowed"})"
                       : call.changes == kNeedsToken ? R"({"changes":"token"})"
                                                     : R"({"changes":"refused"})"));
}

void status(Services& services, const Call& call, Reply&& reply) {
    answerStatus(services, Of::kReading, takesGzip(call), std::move(reply));
}

void channels(Services& services, const Call& call, Reply&& reply) {
    answer(
        services, Of::kReading, AnswerKey{"channels", {call.state->number}}, takesGzip(call),
        [state = call.state] { return AnswerText{channelsJson(*state)}; }, std::move(reply));
}

void channel(Services& services, const Call& call, Reply&& reply) {
    answerChannel(services, Of::kReading, *call.group, takesGzip(call), std::move(reply));
}

// Why there is no report of a channel, for an operator.
static std::string whyUnmetered(const MeterState& meter, const ChannelState& channel) {
    if (!meter.configured) {
        return "This station has no meter: meter_socket is empty";
    }
    if (!meter.connected) {
        return "No meter is connected" +
               (meter.problem.empty() ? ": is kestor-meter running?" : ": " + meter.problem);
    }
    return channel.channel.enabled ? "The meter has not reported this channel yet"
                                   : "The channel is disabled, so that nothing measures it";
}

void meter(Services& services, const Call& call, Reply&& reply) {
    QueryReader query(call.query);
    const bool text = query
                          .read("format", "json or text",
                                [](std::string_view format) {
                                    return format == "text" || format == "json"
                                               ? std::optional(format == "text")
                                               : std::nullopt;
                                })
                          .value_or(false);
    if (query.refusal) {
        return reply(std::move(*query.refusal));
    }
    const ChannelState* channel = call.state->find(*call.group);
    if (channel == nullptr) {
        return answerChannel(services, Of::kReading, *call.group, false, std::move(reply));
    }
    std::optional<MeterReport> report = services.station.meterReport(*call.group);
    if (!report) {
        return reply(problem(503, whyUnmetered(call.state->meter, *channel)));
    }
    if (std::chrono::steady_clock::now() - report->time.steady > kMeterReportHolds) {
        return reply(problem(503, "The meter's last report is of " + rfc3339(report->time.wall) +
                                      ": it is stopped or overloaded"));
    }
    Response head = jsonHead();
    if (text) {
        head.contentType = "text/plain; charset=utf-8";
    }
    const AnswerKey key{text ? "meter-text" : "meter", {report->number}};
    answer(
        services, Of::kReading, key, takesGzip(call),
        [report = std::move(*report), text] {
            return AnswerText{text ? meterReportText(report) : meterReportJson(report)};
        },
        std::move(reply), std::move(head));
}

void cues(Services& services, const Call& call, Reply&& reply) {
    if (call.state->find(*call.group) == nullptr) {
        return answerChannel(services, Of::kReading, *call.group, false, std::move(reply));
    }
    answer(
        services, Of::kReading, AnswerKey{"cues", {call.state->number, call.group->hostOrder()}},
        takesGzip(call),
        [cues = services.station.meterCues(*call.group), report = services.station.meterReport(*call.group)] {
            return AnswerText{cuesJson(cues, report)};
        },
        std::move(reply));
}

// Why there is no picture of a channel, for an operator.
static std::string whyUnpictured(const PictureState& pictures, const ChannelState& channel) {
    if (!pictures.configured) {
        return "This station takes no pictures: socket in [pictures] is empty";
    }
    if (!channel.channel.enabled) {
        return "The channel is disabled, so that no picture of it is taken";
    }
    if (channel.picture.last && channel.picture.last->outcome != PictureOutcome::kTaken) {
        return std::string(whyNoPicture(channel.picture.last->outcome)) +
               (channel.picture.problem.empty() ? "" : ": " + channel.picture.problem);
    }
    if (!pictures.problem.empty()) {
        return "No picture of the channel was taken yet: " + pictures.problem;
    }
    return pictures.connected ? "No picture of the channel was taken yet"
                              : "No picture was taken yet: is the package kestor-picture installed, and does "
                                "its service run?";
}

// `taken` makes addresses of pictures differ, so that a browser may keep each.
void picture(Services& services, const Call& call, Reply&& reply) {
    const ChannelState* channel = call.state->find(*call.group);
    if (channel == nullptr) {
        return answerChannel(services, Of::kReading, *call.group, false, std::move(reply));
    }
    services.station.look(*call.group);
    const PicturePointer picture = services.station.picture(*call.group);
    if (!picture) {
        return reply(problem(404, whyUnpictured(call.state->pictures, *channel)));
    }
    Response response;
    response.contentType = "image/jpeg";
    response.body = std::make_shared<const Payload>(picture, std::string_view(picture->jpeg), nullptr);
    response.headers.emplace_back("ETag", "\"" + picture->tag + "\"");
    response.headers.emplace_back("Cache-Control", "no-cache");
    reply(std::move(response));
}

void records(Services& services, const Call& call, Reply&& reply) {
    const StationState& state = *call.state;
    if (state.snapshot == nullptr || !state.probe.connected) {
        return reply(problem(503, "There is no snapshot of the probe, or none that is fresh"));
    }
    Response response;
    response.contentType = "text/plain; charset=utf-8";
    // Numbers of snapshots start anew with the station.
    response.headers.emplace_back("ETag", "\"" + std::to_string(state.started.time_since_epoch().count()) +
                                              "-" + std::to_string(state.probe.snapshots) + "\"");
    answer(
        services, Of::kReading, AnswerKey{"records", {state.probe.snapshots}}, takesGzip(call),
        [snapshot = state.snapshot] {
            return AnswerText{{}, snapshot, snapshot->text()};
        },
        std::move(reply), std::move(response));
}

void alarms(Services& services, const Call& call, Reply&& reply) {
    answer(
        services, Of::kReading, AnswerKey{"alarms", {call.state->number}}, takesGzip(call),
        [state = call.state] { return AnswerText{alarmsJson(*state)}; }, std::move(reply));
}

void alarmTypeList(Services& services, const Call& call, Reply&& reply) {
    answer(
        services, Of::kReading, AnswerKey{"alarm-types"}, takesGzip(call),
        [] { return AnswerText{alarmTypesJson()}; }, std::move(reply));
}

static void answerEvents(Services& services, const std::shared_ptr<std::vector<Event>>& events, bool csv,
                         bool gzip, Reply&& reply) {
    Response head = jsonHead();
    if (csv) {
        head.contentType = "text/csv; charset=utf-8";
        head.headers.emplace_back("Content-Disposition", "attachment; filename=\"events.csv\"");
    }
    answer(
        services, Of::kReading, {}, gzip,
        [events, csv] { return AnswerText{csv ? eventsCsv(*events) : eventsJson(*events)}; },
        std::move(reply), std::move(head));
}

void events(Services& services, const Call& call, Reply&& reply) {
    QueryReader query(call.query);
    EventFilter filter;
    const std::string wantedText = "1 to " + std::to_string(EventFilter::kTextBytes) + " bytes of text";
    filter.text = query.read("channel", wantedText, [](const std::string& text) {
        return text.empty() || text.size() > EventFilter::kTextBytes ? std::nullopt : std::optional(text);
    });
    filter.group = filter.text ? Group::parse(*filter.text) : std::nullopt;
    if (filter.group) {
        filter.text.reset();
    }
    filter.severity = query.read("severity", "critical, major, minor or warning", parseSeverity);
    filter.kind = query.read("kind", "a name of eventKinds in /api/v1/meta", parseEventKind);
    filter.alarm = query.read("alarm", "a name of alarmTypes in /api/v1/meta", findAlarmType);
    filter.since = query.time("since");
    filter.until = query.time("until");
    filter.before = query.integer("before", 1, std::numeric_limits<int64_t>::max());
    filter.limit = static_cast<std::size_t>(query.integer("limit", 1, kLargestLimit).value_or(kDefaultLimit));
    const auto csv = query.read("format", "json or csv", [](std::string_view text) {
        return text == "csv" || text == "json" ? std::optional(text == "csv") : std::nullopt;
    });
    if (query.refusal) {
        return reply(std::move(*query.refusal));
    }
    const bool asCsv = csv.value_or(false);
    const auto found = [&services, post = services.post, reply, asCsv, gzip = takesGzip(call)](
                           std::vector<Event>&& events, const std::string& wrong) {
        const auto shared = std::make_shared<std::vector<Event>>(std::move(events));
        post([&services, shared, wrong, reply, asCsv, gzip] {
            wrong.empty() ? answerEvents(services, shared, asCsv, gzip, Reply(reply))
                          : reply(problem(503, wrong));
        });
    };
    const bool queued = services.station.queryEvents(filter, found);
    if (!queued) {
        reply(problem(503, "Too many queries wait for the event store"));
    }
}

void stream(Services&, const Call& call, Reply&& reply) {
    Response response;
    response.contentType = "text/event-stream";
    response.headers.emplace_back("Vary", "Accept-Encoding");
    if (takesGzip(call)) {
        response.compressed = true;
        response.headers.emplace_back("Content-Encoding", "gzip");
    }
    response.headers.emplace_back("X-Accel-Buffering", "no");  // a proxy is to pass events on at once
    response.eventStream = true;
    reply(std::move(response));
}

void overview(Services& services, const Call& call, Reply&& reply) {
    QueryReader query(call.query);
    const int64_t longest = kSecondsKept;
    const int64_t cells = query.integer("cells", 1, longest).value_or(kDefaultCells);
    const int64_t seconds = query.integer("seconds", 1, longest).value_or(kDefaultCellSeconds);
    if (!query.refusal && cells * seconds > longest) {
        query.refusal = problem(422, "cells times seconds is at most " + std::to_string(longest), "cells");
    }
    const bool day = query.read("day", "1 or 0", parseSwitch).value_or(false);
    if (query.refusal) {
        return reply(std::move(*query.refusal));
    }
    const QueryOverview asked{.sparkCells = static_cast<std::size_t>(cells),
                              .sparkSeconds = static_cast<std::size_t>(seconds),
                              .day = day};
    services.overviews.ask(services, asked, takesGzip(call), std::move(reply));
}

void meta(Services& services, const Call& call, Reply&& reply) {
    answer(
        services, Of::kReading, AnswerKey{"meta", {call.state->number}}, takesGzip(call),
        [state = call.state] { return AnswerText{metaJson(*state)}; }, std::move(reply));
}

void use(Services& services, const Call& call, Reply&& reply) {
    reply(jsonResponse(useJson(call.state->use, call.state->probe, services.station.storeStatistics(),
                               services.station.historyStatistics(), services.station.deliveryStatistics(),
                               services.statistics())));
}

namespace {

void answerState(Services& services, const Call& call, const char* name,
                 std::string (*text)(const StationState&), Reply&& reply) {
    answer(
        services, Of::kReading, AnswerKey{name, {call.state->number}}, takesGzip(call),
        [state = call.state, text] { return AnswerText{text(*state)}; }, std::move(reply));
}

}  // namespace

void incidents(Services& services, const Call& call, Reply&& reply) {
    answerState(services, call, "incidents", incidentsJson, std::move(reply));
}

void passed(Services& services, const Call& call, Reply&& reply) {
    answerState(services, call, "passed", passedJson, std::move(reply));
}

void shelved(Services& services, const Call& call, Reply&& reply) {
    answerState(services, call, "shelved", shelvedJson, std::move(reply));
}

void maintenance(Services& services, const Call& call, Reply&& reply) {
    answerMaintenance(services, Of::kReading, takesGzip(call), std::move(reply));
}

void exportPlaylist(Services& services, const Call& call, Reply&& reply) {
    Response response;
    response.contentType = "audio/x-mpegurl";
    response.headers.emplace_back("Content-Disposition", "attachment; filename=\"channels.m3u\"");
    answer(
        services, Of::kReading, AnswerKey{"export", {call.state->channelsVersion}}, takesGzip(call),
        [state = call.state] { return AnswerText{exportText(*state)}; }, std::move(reply),
        std::move(response));
}

void metrics(Services& services, const Call& call, Reply&& reply) {
    const auto answer = [post = services.post, reply](const PayloadPointer& payload) {
        post([reply, payload] {
            Response response;
            response.contentType = kMetricsContentType;
            response.body = payload;
            reply(
                payload == nullptr
                    ? problem(
                          503,
                          "There is no room for it; ask for gzip (Accept-Encoding), or set pids in [metrics]")
                    : std::move(response));
        });
    };
    MetricsExtras extras{.version = KESTOR_VERSION,
                         .store = services.station.storeStatistics(),
                         .delivery = services.station.deliveryStatistics(),
                         .server = services.statistics(),
                         .history = services.station.historyStatistics(),
                         .meterReports = [&station = services.station] { return station.meterReports(); }};
    if (!services.metrics->ask({.state = call.state,
                                .extras = std::move(extras),
                                .compressed = acceptsGzip(call.request.acceptEncoding),
                                .built = answer})) {
        reply(problem(503, "Too many scrapes wait"));
    }
}

void health(Services&, const Call&, Reply&& reply) {
    reply(jsonResponse(R"({"status":"ok"})"));
}

void readiness(Services&, const Call& call, Reply&& reply) {
    if (call.state == nullptr || call.state->probe.lastSnapshot == WallTime{}) {
        return reply(problem(503, "No snapshot of the probe came yet"));
    }
    if (std::chrono::steady_clock::now() - call.state->now.steady > kStateOverdue) {
        return reply(
            problem(503, "The station is stuck: what it knows is not of now; restart kestor-station"));
    }
    reply(call.state->probe.connected ? jsonResponse(R"({"status":"ok"})")
                                      : problem(503, "The probe is silent"));
}

void index(Services& services, const Call&, Reply&& reply) {
    reply(services.files.page("index.html"));
}

void pageFile(Services& services, const Call& call, Reply&& reply) {
    reply(services.files.page(call.file));
}

void versionedPageFile(Services& services, const Call& call, Reply&& reply) {
    reply(services.files.versionedPage(call.version, call.file));
}

void libraryFile(Services& services, const Call& call, Reply&& reply) {
    reply(services.files.library(call.file));
}

}  // namespace station::handlers
