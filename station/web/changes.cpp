// Handlers that change something. Each answers once the state that shows the change is published.
#include <algorithm>

#include "web/apiJson.h"
#include "web/handlers.h"
#include "web/requestBody.h"

namespace station::handlers {

namespace {

Response refusalResponse(const Refusal& refusal) {
    using Why = Refusal::Why;
    const int status = refusal.why == Why::kInvalid    ? 422
                       : refusal.why == Why::kNotFound ? 404
                       : refusal.why == Why::kConflict ? 409
                                                       : 503;
    return problem(status, refusal.text, refusal.field);
}

// Asks for what a body says, or refuses the body.
void askParsed(Services& services, ParsedAction&& parsed, Reply&& reply, AnswerThen then) {
    if (auto* refused = std::get_if<Response>(&parsed)) {
        return reply(std::move(*refused));
    }
    ask(services, std::get<Action>(std::move(parsed)), std::move(reply), std::move(then));
}

// Answers with the state as it is afterwards.
AnswerThen newStatus(const Call& call) {
    return [gzip = takesGzip(call)](Services& services, Answer&&, Reply&& reply) {
        answerStatus(services, Of::kChange, gzip, std::move(reply));
    };
}

Response windowResponse(const StationState& state, int64_t id) {
    const auto found = std::ranges::find(state.maintenance, id, &Maintenance::id);
    return found == state.maintenance.end() ? problem(404, "The maintenance window has ended already")
                                            : jsonResponse(maintenanceJson(*found), 201);
}

Response alarmResponse(const StationState& state, int64_t id) {
    const auto found = std::ranges::find(state.alarms, id, &Alarm::id);
    return found == state.alarms.end() ? problem(404, "No such alarm is raised", "id")
                                       : jsonResponse(alarmJson(state, *found));
}

}  // namespace

void ask(Services& services, Action action, Reply&& reply, AnswerThen then) {
    Command command{std::move(action),
                    [post = services.post, &services, reply, then = std::move(then)](Answer&& answer) {
                        const auto shared = std::make_shared<Answer>(std::move(answer));
                        post([&services, reply, then, shared] {
                            if (shared->refusal) {
                                return reply(refusalResponse(*shared->refusal));
                            }
                            then(services, std::move(*shared), Reply(reply));
                        });
                    }};
    if (!services.station.command(std::move(command))) {
        reply(problem(503, "Too much waits to be done"));
    }
}

void putChannel(Services& services, const Call& call, Reply&& reply) {
    const Group group = *call.group;
    const int status = call.state->find(group) == nullptr ? 201 : 200;
    askParsed(services, parsePutChannel(group, call.request.body), std::move(reply),
              [group, status, gzip = takesGzip(call)](Services& room, Answer&&, Reply&& respond) {
                  answerChannel(room, Of::kChange, group, gzip, std::move(respond), status);
              });
}

void deleteChannel(Services& services, const Call& call, Reply&& reply) {
    ask(services, DeleteChannel{*call.group}, std::move(reply), newStatus(call));
}

void acknowledge(Services& services, const Call& call, Reply&& reply) {
    const int64_t id = call.id;
    askParsed(services, parseAcknowledge(id, call.request.body), std::move(reply),
              [id](Services& room, Answer&&, Reply&& respond) {
                  respond(alarmResponse(*room.station.state(), id));
              });
}

namespace {

void handle(Services& services, const Call& call, HandleAlarms::What what, Reply&& reply) {
    askParsed(services, parseHandle(what, call.request.body), std::move(reply),
              [](Services& /*room*/, Answer&& result, Reply&& respond) {
                  respond(jsonResponse(handledJson(result)));
              });
}

}  // namespace

void acknowledgeMany(Services& services, const Call& call, Reply&& reply) {
    handle(services, call, HandleAlarms::What::kAcknowledge, std::move(reply));
}

void unacknowledge(Services& services, const Call& call, Reply&& reply) {
    handle(services, call, HandleAlarms::What::kUnacknowledge, std::move(reply));
}

void shelve(Services& services, const Call& call, Reply&& reply) {
    handle(services, call, HandleAlarms::What::kShelve, std::move(reply));
}

void unshelve(Services& services, const Call& call, Reply&& reply) {
    handle(services, call, HandleAlarms::What::kUnshelve, std::move(reply));
}

void setMaintenance(Services& services, const Call& call, Reply&& reply) {
    askParsed(services, parseMaintenance(call.state->now.wall, call.request.body), std::move(reply),
              [](Services& room, Answer&& result, Reply&& respond) {
                  respond(windowResponse(*room.station.state(), result.id));
              });
}

void endMaintenance(Services& services, const Call& call, Reply&& reply) {
    ask(services, EndMaintenance{call.id}, std::move(reply),
        [gzip = takesGzip(call)](Services& room, Answer&&, Reply&& respond) {
            answerMaintenance(room, Of::kChange, gzip, std::move(respond));
        });
}

void clear(Services& services, const Call& call, Reply&& reply) {
    askParsed(services, parseNothing(ClearCounters{}, call.request.body), std::move(reply), newStatus(call));
}

void passive(Services& services, const Call& call, Reply&& reply) {
    askParsed(services, parsePassive(call.request.body), std::move(reply), newStatus(call));
}

void igmpLatency(Services& services, const Call& call, Reply&& reply) {
    askParsed(services, parseIgmpLatency(call.request.body), std::move(reply), newStatus(call));
}

void reload(Services& services, const Call& call, Reply&& reply) {
    askParsed(services, parseNothing(ReloadFiles{}, call.request.body), std::move(reply), newStatus(call));
}

void importPlaylist(Services& services, const Call& call, Reply&& reply) {
    ask(services, ImportPlaylist{call.request.body}, std::move(reply),
        [gzip = takesGzip(call)](Services& room, Answer&& result, Reply&& respond) {
            const auto shared = std::make_shared<Answer>(std::move(result));
            answer(
                room, Of::kChange, {}, gzip, [shared] { return AnswerText{importJson(*shared)}; },
                std::move(respond));
        });
}

}  // namespace station::handlers
