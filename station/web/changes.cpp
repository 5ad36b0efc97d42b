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
void askParsed(Services& services, ParsedAction&& parsed, Reply&& reply, BuildAnswer build) {
    if (auto* refused = std::get_if<Response>(&parsed)) {
        return reply(std::move(*refused));
    }
    ask(services, std::get<Action>(std::move(parsed)), std::move(reply), std::move(build));
}

Response newStatus(Services& services, Answer&&) {
    return statusResponse(services, *services.station.state());
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

void ask(Services& services, Action action, Reply&& reply, BuildAnswer build) {
    Command command{std::move(action),
                    [post = services.post, &services, reply, build = std::move(build)](Answer&& answer) {
                        const auto shared = std::make_shared<Answer>(std::move(answer));
                        post([&services, reply, build, shared] {
                            reply(shared->refusal ? refusalResponse(*shared->refusal)
                                                  : build(services, std::move(*shared)));
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
              [group, status](Services& room, Answer&&) {
                  return channelResponse(*room.station.state(), group, status);
              });
}

void deleteChannel(Services& services, const Call& call, Reply&& reply) {
    ask(services, DeleteChannel{*call.group}, std::move(reply), newStatus);
}

void acknowledge(Services& services, const Call& call, Reply&& reply) {
    const int64_t id = call.id;
    askParsed(services, parseAcknowledge(id, call.request.body), std::move(reply),
              [id](Services& room, Answer&&) { return alarmResponse(*room.station.state(), id); });
}

void setMaintenance(Services& services, const Call& call, Reply&& reply) {
    askParsed(
        services, parseMaintenance(call.state->now.wall, call.request.body), std::move(reply),
        [](Services& room, Answer&& answer) { return windowResponse(*room.station.state(), answer.id); });
}

void endMaintenance(Services& services, const Call& call, Reply&& reply) {
    ask(services, EndMaintenance{call.id}, std::move(reply),
        [](Services& room, Answer&&) { return jsonResponse(maintenanceListJson(*room.station.state())); });
}

void clear(Services& services, const Call& call, Reply&& reply) {
    askParsed(services, parseNothing(ClearCounters{}, call.request.body), std::move(reply), newStatus);
}

void passive(Services& services, const Call& call, Reply&& reply) {
    askParsed(services, parsePassive(call.request.body), std::move(reply), newStatus);
}

void igmpLatency(Services& services, const Call& call, Reply&& reply) {
    askParsed(services, parseIgmpLatency(call.request.body), std::move(reply), newStatus);
}

void reload(Services& services, const Call& call, Reply&& reply) {
    askParsed(services, parseNothing(ReloadFiles{}, call.request.body), std::move(reply), newStatus);
}

void importPlaylist(Services& services, const Call& call, Reply&& reply) {
    ask(services, ImportPlaylist{call.request.body}, std::move(reply),
        [](Services&, Answer&& answer) { return jsonResponse(importJson(answer)); });
}

}  // namespace station::handlers
