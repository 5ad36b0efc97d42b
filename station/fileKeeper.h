// Files and signals.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "configuration/channelSet.h"
#include "fileReader.h"
#include "mailbox.h"

namespace station {

// Has the configuration and the playlists read when they change, on SIGHUP and on demand, and the run-time
// channels kept on the disk, each on a thread of its own, so that nobody else waits for a disk. The main
// thread takes the signals and does nothing that could wait.
class FileKeeper {
  public:
    // How long a start waits for files on slow disks. It goes on with copies of the playlists then, and with
    // no change taken until channels.json is read.
    static constexpr std::chrono::milliseconds kStartWait{5000};
    // A reading that takes longer is told in the log.
    static constexpr std::chrono::milliseconds kSlow{10000};
    // What a disk that hangs may take of the end.
    static constexpr std::chrono::milliseconds kEndWait{1000};
    // Who waits for a reading at a time.
    static constexpr std::size_t kAskers = 256;

    // Blocks SIGTERM, SIGINT and SIGHUP for this thread and all that it starts from here on; load() and run()
    // take them. `mailbox` gets what is read later.
    FileKeeper(FileReader::Options options, Mailbox& mailbox);
    ~FileKeeper();  // waits for the threads
    FileKeeper(const FileKeeper&) = delete;

    // Reads configuration and playlists; `result` tells all mistakes. Nothing when SIGTERM or SIGINT came
    // first.
    std::optional<LoadedFiles> load();
    // Reads the run-time channels, once nobody else writes in the state directory.
    LoadedRuntime loadRuntime(const std::filesystem::path& stateDirectory);
    // Serves until SIGTERM or SIGINT; nobody who waits for something to be saved is told any more then.
    void run();
    // Writes what is still to be saved. False when a disk hangs: then the process has to end without ending
    // its threads.
    bool end();

    // Any thread, at once. `done` comes to the mailbox with the files. False when too many wait: then it
    // never does.
    bool reload(std::function<void(const ReadResult&)> done);
    // As ChannelSaver::save().
    void save(RuntimeChannels channels, std::function<void(const std::string& problem)> done);

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
