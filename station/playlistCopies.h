// Copies of playlists in the state directory.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "configuration/configuration.h"

namespace station {

// A playlist as it was last good, for a start at which it cannot be read: a share that is not mounted yet
// must not end the watching of its channels. For use by one thread; waits for the disk.
class PlaylistCopies {
  public:
    explicit PlaylistCopies(const std::filesystem::path& stateDirectory);

    // The copy's bytes; nothing, and `problem` says why, when there is none. `all`: the playlists of the
    // configuration.
    std::string read(const std::filesystem::path& file, const std::vector<PlaylistSource>& all,
                     std::string& problem) const;
    // Empty when the copy holds these bytes.
    std::string keep(const std::filesystem::path& file, std::string_view bytes) const;

    // Each path has a name of its own: a hash of it, and its last part for people.
    static std::string nameOf(const std::filesystem::path& file);
    // The name that 1.1 gave, the same for paths that differ in '/' and '-' alone.
    static std::string oldNameOf(const std::filesystem::path& file);

  private:
    std::filesystem::path directory_;
};

}  // namespace station
