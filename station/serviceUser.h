// Whether the service's user may read what a configuration names.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "configuration/configuration.h"

namespace station {

// The user that the package's service runs as, if this machine has one.
std::optional<std::string> serviceUser();

// What `user` cannot read of a configuration and the files and playlists that it names; nothing when there is
// no such user, or this process may not take its place (only root may). To be called while there is one
// thread: the whole process is that user meanwhile.
std::vector<Mistake> unreadableFor(const std::string& user, const std::filesystem::path& file);

}  // namespace station
