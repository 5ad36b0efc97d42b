// What streams call the services of channels, on the disk, so that channels keep these names over a restart.
#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "channels/channel.h"
#include "common/log.h"

namespace station {

using StreamNames = std::map<Group, std::string>;

// A line each: group, a space, name. What is no such line is passed over; at most kChannelsLimit are taken.
std::string streamNamesText(const StreamNames& names);
StreamNames parseStreamNames(std::string_view text);

// Reads the file `stream-names` once and writes it when names change, on a thread of its own: a disk that
// hangs holds up nobody else. What cannot be read is no loss, since streams tell their names again.
class StreamNameKeeper {
  public:
    static constexpr std::size_t kBytes = 4 * 1024 * 1024;  // of the file
    // A stream whose name changes all the time has the file written so often.
    static constexpr std::chrono::seconds kEvery{10};

    // Begins to read.
    explicit StreamNameKeeper(const std::filesystem::path& stateDirectory);
    ~StreamNameKeeper();  // writes what is still to be written, and waits for that
    StreamNameKeeper(const StreamNameKeeper&) = delete;

    // What was read, once; nothing as long as that takes longer than this.
    std::optional<StreamNames> takeRead(std::chrono::milliseconds time);
    // At once; of several that wait the last one is written.
    void save(const StreamNames& names);

  private:
    void run();
    void write(const std::string& text);

    const std::filesystem::path file_;
    std::string written_;  // the thread's alone, likewise the next
    LogOnChange trouble_;
    std::mutex mutex_;  // guards what follows
    std::condition_variable news_;
    std::optional<StreamNames> read_;
    std::optional<std::string> toWrite_;
    bool ending_ = false;
    std::thread thread_;
};

}  // namespace station
