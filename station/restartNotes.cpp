#include "restartNotes.h"

#include <algorithm>
#include <utility>

#include "common/log.h"

namespace station {

namespace {

std::vector<std::string> differences(const Configuration& started, const Configuration& read) {
    std::vector<std::string> notes;
    const auto compare = [&notes](const char* key, const std::string& used, const std::string& wanted) {
        if (used != wanted) {
            notes.push_back(std::string(key) + " was changed to \"" + wanted + "\", but \"" + used +
                            "\" stays in use until the station is restarted: systemctl restart "
                            "kestor-station");
        }
    };
    compare("listen", started.listen, read.listen);
    compare("socket", started.socket, read.socket);
    compare("meter_socket", started.meterSocket, read.meterSocket);
    compare("[pictures] socket", started.pictures.socket, read.pictures.socket);
    compare("state_dir", started.state, read.state);
    compare("pipe", started.pipe, read.pipe);
    compare("controller_endpoint", started.controllerEndpoint, read.controllerEndpoint);
    compare("page", started.page, read.page);
    compare("instance", started.instance, read.instance);
    return notes;
}

}  // namespace

void RestartNotes::compare(const Configuration& read) {
    std::vector<std::string> notes = differences(*started_, read);
    for (const std::string& note : notes) {
        if (std::ranges::find(notes_, note) == notes_.end()) {
            log(LogLevel::kWarning, note);
        }
    }
    notes_ = std::move(notes);
}

}  // namespace station
