// The run-time channels on the disk, on a thread of their own.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "configuration/channelSet.h"

namespace station {

// Reads them once, as soon as that can be done, and writes them when they change. A disk that hangs holds up
// this thread and nobody else. What could not be read is never written over.
class ChannelSaver {
  public:
    static constexpr std::chrono::milliseconds kLoadsAgain{2000};
    static constexpr std::chrono::milliseconds kSavesAgain{10000};
    // Who waits for a slow disk at a time; beyond, `done` is told so at once.
    static constexpr std::size_t kAskers = 256;

    // Begins to read. `loaded` is called on the saver's thread, with what is read after load().
    ChannelSaver(const std::filesystem::path& stateDirectory, std::function<void(LoadedRuntime&&)> loaded);
    ~ChannelSaver();  // waits for the thread
    ChannelSaver(const ChannelSaver&) = delete;

    // What was read; without channels when that did not work, or not within the time. To be called once.
    LoadedRuntime load(std::chrono::milliseconds time);
    // Of several that wait only the latest is written, and all are told: the problem, or an empty text. One
    // that could not be written is tried again. Before load() found what is there none is taken, and `done`
    // is told so at once. Any thread; `done` is called on the saver's.
    void save(RuntimeChannels channels, std::function<void(const std::string& problem)> done);
    // Nobody is told any more, once this returns.
    void mute();
    // Writes what is still to be saved and has the thread end; false when it does not within the time.
    bool end(std::chrono::milliseconds time);

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
