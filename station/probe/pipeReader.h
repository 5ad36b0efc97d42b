// The reader of the results pipe.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "common/clock.h"

namespace station {

// The text of one snapshot: what a writer sent between opening and closing the pipe. Whole lines only.
struct RawSnapshot {
    std::string text;
    Now began;  // its first byte, or the writer's coming for an empty one
    Now ended;
};

// Reads the pipe on a thread of its own that does nothing else: while nobody reads, the probe stands still
// with its channel list locked. The pipe always has a reader, also between two snapshots: a writer that
// opened it and finds the reader gone would be ended by a signal.
class PipeReader {
  public:
    static constexpr std::size_t kSnapshotLimit = std::size_t{64} << 20;  // bytes; longer ones are dropped

    // `take` is called on the reader's thread with each whole snapshot and must not wait.
    PipeReader(std::filesystem::path pipe, std::function<void(RawSnapshot&&)> deliver,
               std::size_t snapshotLimit = kSnapshotLimit);
    ~PipeReader();  // ends the thread, within 100 ms
    PipeReader(const PipeReader&) = delete;

    struct Statistics {
        std::string problem;      // why nothing can be read, or empty
        uint64_t cut = 0;         // snapshots without their end: the writer was ended
        uint64_t tooLarge = 0;    // snapshots beyond the limit, whether they have ended or not
        SteadyTime lastTooLarge;  // that more was dropped
        // The longest time that the pipe was seen full before it was read.
        std::chrono::microseconds longestFull{0};
    };
    Statistics statistics() const;  // any thread

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
