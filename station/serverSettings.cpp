#include "serverSettings.h"

namespace station {

ServerAccess serverAccess(const Configuration& configuration) {
    return {.token = configuration.token,
            .socketToken = configuration.socketToken,
            .allowedHosts = configuration.allowedHosts,
            .connections = configuration.http.connections,
            .connectionsPerAddress = configuration.http.connectionsPerAddress};
}

ServerOptions serverOptions(const Configuration& configuration) {
    ServerOptions options;
    options.listen = configuration.listen;
    options.socket = configuration.socket;
    options.access = serverAccess(configuration);
    options.page = configuration.page;
    return options;
}

}  // namespace station
