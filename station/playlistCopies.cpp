#include "playlistCopies.h"

#include <algorithm>
#include <system_error>

#include "basics/text.h"
#include "channels/playlist.h"
#include "common/textFile.h"

namespace station {

namespace {

constexpr std::size_t kShownName = 100;     // bytes of a playlist's own name
constexpr std::size_t kOldNameLimit = 200;  // bytes

}  // namespace

PlaylistCopies::PlaylistCopies(const std::filesystem::path& stateDirectory)
    : directory_(stateDirectory / "playlists") {}

std::string PlaylistCopies::nameOf(const std::filesystem::path& file) {
    return basics::fingerprintText(file.string()) + "-" + file.filename().string().substr(0, kShownName);
}

std::string PlaylistCopies::oldNameOf(const std::filesystem::path& file) {
    std::string name = file.string();
    std::ranges::replace(name, '/', '-');
    return name.substr(name.size() - std::min(name.size(), kOldNameLimit));
}

std::string PlaylistCopies::read(const std::filesystem::path& file, const std::vector<PlaylistSource>& all,
                                 std::string& problem) const {
    std::string bytes = readTextFile(directory_ / nameOf(file), kPlaylistLimit, problem);
    const std::string old = oldNameOf(file);
    // One that another playlist may have written is nobody's.
    const bool shared = std::ranges::any_of(all, [&](const PlaylistSource& source) {
        return source.file != file && oldNameOf(source.file) == old;
    });
    if (!problem.empty() && !shared) {
        bytes = readTextFile(directory_ / old, kPlaylistLimit, problem);
    }
    return bytes;
}

std::string PlaylistCopies::keep(const std::filesystem::path& file, std::string_view bytes) const {
    std::error_code error;
    std::filesystem::create_directories(directory_, error);
    const std::filesystem::path copy = directory_ / nameOf(file);
    std::string problem;
    if (readTextFile(copy, kPlaylistLimit, problem) == bytes && problem.empty()) {
        return {};
    }
    problem = replaceTextFile(copy, bytes);
    if (problem.empty()) {
        std::filesystem::remove(directory_ / oldNameOf(file), error);
    }
    return problem;
}

}  // namespace station
