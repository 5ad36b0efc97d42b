#include "knownFiles.h"

#include <algorithm>

#include "common/counted.h"
#include "common/text.h"

namespace station {

std::string KnownPlaylist::whatStays() const {
    return good ? "; its last good list of " + std::to_string(good->channels.size()) +
                      (good->channels.size() == 1 ? " channel stays in force" : " channels stays in force")
                : "";
}

std::string whatWasRead(const std::filesystem::path& file, const Playlist& playlist) {
    std::string text =
        "playlist " + file.string() + ": read, " + counted(playlist.channels.size(), "channel");
    if (playlist.skipped > 0) {
        text += ", " + counted(playlist.skipped, "line") + " skipped";
    }
    if (playlist.skipped > 0 && !playlist.notes.empty()) {
        text += "; line " + std::to_string(playlist.notes.front().line) + ": " + playlist.notes.front().text;
    }
    return text;
}

std::string KnownFiles::whatStays() const {
    return !configuration ? ""
           : copyOf       ? "; the last good configuration stays in force, a copy of " + rfc3339(*copyOf)
                          : "; the last good configuration stays in force";
}

std::vector<std::filesystem::path> KnownFiles::playlistFiles() const {
    std::vector<std::filesystem::path> files;
    for (const PlaylistSource& source :
         configuration ? configuration->playlists : std::vector<PlaylistSource>{}) {
        if (std::ranges::find(files, source.file) == files.end()) {
            files.push_back(source.file);
        }
    }
    return files;
}

ReadResult KnownFiles::result() const {
    constexpr const char* kBeingWritten = " is being written, and read when that is over";
    ReadResult now;
    now.configurationRefused = !mistakes.empty();
    now.refusals = mistakes;
    if (!mistakes.empty() && configuration) {
        now.notes.push_back(configurationFile.string() + " has mistakes" + whatStays());
    }
    if (const std::string note = configuration ? openToAll(*configuration) : ""; !note.empty()) {
        now.notes.push_back(note);
    }
    if (configurationWaits) {
        now.notes.push_back(configurationFile.string() + kBeingWritten);
    }
    std::vector<std::string> lines;
    std::vector<std::pair<std::string, const Playlist*>> read;
    for (const auto& file : playlistFiles()) {
        const auto found = lists.find(file);
        if (found == lists.end()) {
            continue;
        }
        const KnownPlaylist& list = found->second;
        const std::string name = file.filename().string();
        if (!list.refusal.empty()) {
            now.refusals.push_back(list.refusal);
        }
        if (list.waits) {
            now.notes.push_back(name + kBeingWritten + list.whatStays());
        }
        if (!list.good) {
            continue;
        }
        read.emplace_back(name, &*list.good);
        for (const PlaylistNote& note : list.good->notes) {
            lines.push_back(name + ":" + std::to_string(note.line) + ": " + note.text);
        }
    }
    const bool allShown = lines.size() <= kNotes;
    for (const auto& [name, list] : read) {
        if (list->skipped > (allShown ? list->notes.size() : 0)) {
            now.notes.push_back(name + ": " + counted(list->skipped, "line") + " skipped");
        }
    }
    lines.resize(std::min(lines.size(), kNotes));
    now.notes.insert(now.notes.end(), lines.begin(), lines.end());
    return now;
}

LoadedFiles KnownFiles::collect() const {
    LoadedFiles files;
    files.configuration = configuration;
    files.result = result();
    for (const PlaylistSource& source :
         configuration ? configuration->playlists : std::vector<PlaylistSource>{}) {
        if (const auto list = lists.find(source.file); list != lists.end() && list->second.good) {
            files.playlists.emplace_back(source, *list->second.good);
        }
    }
    return files;
}

}  // namespace station
