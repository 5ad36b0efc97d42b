// What the routes do. All of them are Handlers (routes.h).
#pragma once

#include "web/routes.h"

namespace station::handlers {

// Reading.
void access(Services& services, const Call& call, Reply&& reply);
void status(Services& services, const Call& call, Reply&& reply);
void channels(Services& services, const Call& call, Reply&& reply);
void channel(Services& services, const Call& call, Reply&& reply);
void meter(Services& services, const Call& call, Reply&& reply);
void cues(Services& services, const Call& call, Reply&& reply);
void picture(Services& services, const Call& call, Reply&& reply);
void records(Services& services, const Call& call, Reply&& reply);
void history(Services& services, const Call& call, Reply&& reply);
void alarms(Services& services, const Call& call, Reply&& reply);
void alarmTypeList(Services& services, const Call& call, Reply&& reply);
void events(Services& services, const Call& call, Reply&& reply);
void report(Services& services, const Call& call, Reply&& reply);
void timeline(Services& services, const Call& call, Reply&& reply);
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
void acknowledgeMany(Services& services, const Call& call, Reply&& reply);
void unacknowledge(Services& services, const Call& call, Reply&& reply);
void shelve(Services& services, const Call& call, Reply&& reply);
void unshelve(Services& services, const Call& call, Reply&& reply);
void incidents(Services& services, const Call& call, Reply&& reply);
void passed(Services& services, const Call& call, Reply&& reply);
void shelved(Services& services, const Call& call, Reply&& reply);
void setMaintenance(Services& services, const Call& call, Reply&& reply);
void endMaintenance(Services& services, const Call& call, Reply&& reply);
void clear(Services& services, const Call& call, Reply&& reply);
void passive(Services& services, const Call& call, Reply&& reply);
void igmpLatency(Services& services, const Call& call, Reply&& reply);
void reload(Services& services, const Call& call, Reply&& reply);
void importPlaylist(Services& services, const Call& call, Reply&& reply);

// What both use.
// For short texts.
Response jsonResponse(std::string text, int status = 200);
// All of an answer but its body; that is built on another thread.
Response jsonHead(int status = 200);
// An answer to a change is given in any case, built on this thread where no other has room: 503 would say
// that nothing was done.
enum class Of : uint8_t { kReading, kChange };
// `build` must not use what does not outlive the request.
void answer(Services& services, Of of, const std::optional<AnswerKey>& key, bool gzip,
            const AnswerBuilder::Build& build, Reply&& reply, Response head = jsonHead());
// 404 for a group that is no channel.
void answerChannel(Services& services, Of of, const Group& group, bool gzip, Reply&& reply, int status = 200);
void answerStatus(Services& services, Of of, bool gzip, Reply&& reply);
void answerMaintenance(Services& services, Of of, bool gzip, Reply&& reply);
bool takesGzip(const Call& call);
// Asks the owner thread; `then` answers on the I/O thread from what it said, unless it refused.
using AnswerThen = std::function<void(Services& services, Answer&& answer, Reply&& reply)>;
void ask(Services& services, Action action, Reply&& reply, AnswerThen then);

}  // namespace station::handlers
