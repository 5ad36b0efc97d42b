// Settings that only a restart puts in force.
#pragma once

#include <string>
#include <vector>

#include "channels/configuration.h"

namespace station {

// A sentence for each setting that the station took at its start and that `read` has otherwise.
std::vector<std::string> restartNotes(const Configuration& started, const Configuration& read);

}  // namespace station
