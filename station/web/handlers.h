// What the routes do. All of them are Handlers (routes.h).
#pragma once

#include "web/routes.h"

namespace station::handlers {

// Reading.
void access(Services& services, const Call& call, Reply&& reply);
void status(Services& services, const Call& call, Reply&& reply);
void channels(Services& services, const Call& call, Reply&& reply);
void channel(Services& services, const Call& call, Reply&& reply);
void records(Services& services, const Call& call, Reply&& reply);
void history(Services& services, const Call& call, Reply&& reply);
void alarms(Services& services, const Call& call, Reply&& reply);
void alarmTypeList(Services& services, const Call& call, Reply&& reply);
void events(Services& services, const Call& call, Reply&& reply);
void stream(Services& services, const Call& call, Reply&& reply);
void overview(Services& services, const Call& call, Reply&& reply);
void meta(Services& services, const Call& call, Reply&& reply);
void use(Services& services, const Call& call, Reply&& reply);
void maintenance(Services& services, const Call& call, Reply&& reply);
void exportPlaylist(Services& services, const Call& call, Reply&& reply);
void metrics(Services& services, const Call& call, Reply&& reply);
void health(Services& services, const Call& call, Reply&& reply);
void readiness(Services& services, const Call& call, Reply&& reply);
void index(Services& services, const Call& call, Reply&& reply);
void pageFile(Services& services, const Call& call, Reply&& reply);
void versionedPageFile(Services& services, const Call& call, Reply&& reply);
void libraryFile(Services& services, const Call& call, Reply&& reply);

// Changing.
void putChannel(Services& services, const Call& call, Reply&& reply);
void deleteChannel(Services& services, const Call& call, Reply&& reply);
void acknowledge(Services& services, const Call& call, Reply&& reply);
void setMaintenance(Services& services, const Call& call, Reply&& reply);
void endMaintenance(Services& services, const Call& call, Reply&& reply);
void clear(Services& services, const Call& call, Reply&& reply);
void passive(Services& services, const Call& call, Reply&& reply);
void igmpLatency(Services& services, const Call& call, Reply&& reply);
void reload(Services& services, const Call& call, Reply&& reply);
void importPlaylist(Services& services, const Call& call, Reply&& reply);

// What both use.
Response jsonResponse(std::string text, int status = 200);
// 404 for a group that is no channel.
Response channelResponse(const StationState& state, const Group& group, int status = 200);
Response statusResponse(Services& services, const StationState& state);
// Asks the owner thread; `build` makes the answer on the I/O thread from what it said, unless it refused.
using BuildAnswer = std::function<Response(Services& services, Answer&& answer)>;
void ask(Services& services, Action action, Reply&& reply, BuildAnswer build);

}  // namespace station::handlers
