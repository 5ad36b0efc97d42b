#include "restartNotes.h"

namespace station {

std::vector<std::string> restartNotes(const Configuration& started, const Configuration& read) {
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
    compare("state_dir", started.state, read.state);
    compare("pipe", started.pipe, read.pipe);
    compare("controller_endpoint", started.controllerEndpoint, read.controllerEndpoint);
    compare("page", started.page, read.page);
    compare("instance", started.instance, read.instance);
    return notes;
}

}  // namespace station
