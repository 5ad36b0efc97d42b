// Files and signals: the work of the main thread.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "channels/channelSet.h"
#include "mailbox.h"

namespace station {

// Reads the configuration and the playlists when they change, on SIGHUP and on demand, and keeps the run-time
// channels on the disk, so that nobody else waits for a disk.
class FileKeeper {
  public:
    struct Options {
        std::filesystem::path configuration;  // empty: none, defaults hold
        // What the command line puts in the place of what the file says.
        std::function<void(Configuration&)> override;
    };
    // Blocks SIGTERM, SIGINT and SIGHUP for this thread and all that it starts from here on; run() takes
    // them.
    explicit FileKeeper(Options options);
    ~FileKeeper();
    FileKeeper(const FileKeeper&) = delete;

    // Reads everything; `refusals` tells all mistakes.
    LoadedFiles load();

    // Serves until SIGTERM or SIGINT.
    void run(Mailbox& mailbox);
    // Writes what is still to be saved; nobody who asked for it is there any more to be told.
    void saveLast();

    // Who waits for a slow disk at a time, in each of the two below; beyond, they are not waited for.
    static constexpr std::size_t kAskers = 256;

    // Any thread, at once. `done` comes to the mailbox with the files. False when too many wait: then it
    // never does.
    bool reload(std::function<void(const LoadedFiles&)> done);
    // Of several that wait only the latest is written, and all are told: the problem, or an empty text. One
    // that could not be written is tried again every ten seconds. When too many wait, `done` is told so at
    // once.
    void save(RuntimeChannels channels, std::function<void(const std::string& problem)> done);

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
