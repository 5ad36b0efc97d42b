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

    // Any thread, at once. `done` is called on the main thread: with what was odd, or with what went wrong.
    void reload(std::function<void(const LoadedFiles&)> done);
    // Of several that wait only the latest is written, and all are told: the problem, or an empty text. One
    // that could not be written is tried again every ten seconds.
    void save(RuntimeChannels channels, std::function<void(const std::string& problem)> done);

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
