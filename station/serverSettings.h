// What the configuration says of the server.
#pragma once

#include "configuration/configuration.h"
#include "web/server.h"

namespace station {

ServerAccess serverAccess(const Configuration& configuration);
ServerOptions serverOptions(const Configuration& configuration);

}  // namespace station
