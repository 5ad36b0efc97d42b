// Configuration and playlists, read when they change, on a thread of their own.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mailbox.h"

namespace station {

// A share that hangs holds up this thread and nobody else. What is being written is waited for, whatever the
// files are read for; and a change of one file has that one read alone.
class FileReader {
  public:
    struct Options {
        std::filesystem::path configuration;  // empty: none, defaults hold
        // What the command line puts in the place of what the file says.
        std::function<void(Configuration&)> override;
        // Reads a playlist's bytes: readTextFile(), or what a test puts in its place.
        std::function<std::string(const std::filesystem::path&, std::size_t limit, std::string& problem)>
            read;
    };
    using Deliver = std::function<void(LoadedFiles&&)>;

    // How long a reading that somebody asked for waits for files that are being written.
    static constexpr std::chrono::milliseconds kReloadWait{2000};
    // A playlist that is there and cannot be read is tried again so often, though nothing changes.
    static constexpr std::chrono::milliseconds kReadsAgain{10000};

    // Begins to read. `deliver` is called on the reader's thread, with what changed after first().
    FileReader(Options options, Deliver deliver);
    ~FileReader();  // waits for the thread
    FileReader(const FileReader&) = delete;

    // For poll(): readable once the first reading is done.
    int firstDone() const;
    // What the first reading found; before it is done, what it found so far, with the copies of playlists
    // that it did not get to, and all of it is delivered later. No configuration: the file has mistakes, or
    // is not read yet. To be called once.
    LoadedFiles first();
    // When the configuration was read, or refused; from then on playlists are what first() waits for.
    std::optional<std::chrono::steady_clock::time_point> configurationRead() const;

    // From here on the state directory is this process's alone, and copies of playlists are written into it.
    void keepCopies();
    // Reads all files that rest, soon. `asker`, if any, goes with what is delivered.
    void readAll(std::function<void(const ReadResult&)> asker);
    std::size_t askers() const;  // that wait
    // What is being read since when; nothing while the thread waits for changes.
    struct Busy {
        std::filesystem::path file;
        std::chrono::steady_clock::time_point since;
    };
    std::optional<Busy> busy() const;
    // Has the thread end; false when it does not within the time.
    bool end(std::chrono::milliseconds time);

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
