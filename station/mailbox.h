// What the owner thread is sent.
#pragma once

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <functional>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "configuration/channelSet.h"
#include "probe/controller.h"
#include "probe/pipeReader.h"
#include "state/commands.h"

namespace station {

// What came of reading the files.
struct ReadResult {
    bool configurationRefused = false;  // the file has mistakes, and the last good configuration holds
    // Mistakes of a configuration that was refused, playlists that cannot be read: as long as that is so.
    std::vector<std::string> refusals;
    std::vector<std::string> notes;  // what was odd, what is waited for
};

// Configuration and playlists as read from their files: always all of them, whichever of them was read anew.
struct LoadedFiles {
    // The last good one; not set when there is none yet.
    std::shared_ptr<const Configuration> configuration;
    // Of that configuration; a playlist that cannot be read is there as it was last good.
    std::vector<std::pair<PlaylistSource, Playlist>> playlists;
    ReadResult result;
    std::vector<std::string> refused;  // those of the refusals that this reading made
    // Who asked for it, told once it is in effect; not more than FileKeeper::kAskers at a time.
    std::vector<std::function<void()>> askers;
};

// Letters of several kinds, each with a bound of its own, so that none crowds out another. Any number of
// threads send and never wait; one takes.
class Mailbox {
  public:
    static constexpr std::size_t kSnapshots = 3;   // beyond, the oldest is dropped
    static constexpr std::size_t kReports = 256;   // likewise
    static constexpr std::size_t kCommands = 256;  // beyond, a command is refused
    // Of these, such as only read: whoever may read cannot keep those away who change something.
    static constexpr std::size_t kReadings = 64;

    struct Batch {
        std::deque<RawSnapshot> snapshots;
        std::deque<Controller::Report> reports;
        std::deque<Command> commands;
        std::optional<LoadedFiles> files;
        std::optional<LoadedRuntime> runtime;
        bool meter = false;    // MeterMail has something, or turns of pictures ended
        bool minutes = false;  // MinuteStore has some that were restored
        bool stop = false;
    };

    void send(RawSnapshot&& snapshot) {
        const std::lock_guard lock(mutex_);
        pushDroppingOldest(batch_.snapshots, std::move(snapshot), kSnapshots, droppedSnapshots_);
        ready_.notify_one();
    }
    void send(const Controller::Report& report) {
        const std::lock_guard lock(mutex_);
        uint64_t dropped = 0;
        pushDroppingOldest(batch_.reports, Controller::Report(report), kReports, dropped);
        ready_.notify_one();
    }
    bool send(Command&& command) {
        const std::lock_guard lock(mutex_);
        const bool reads = std::holds_alternative<QueryHistory>(command.action) ||
                           std::holds_alternative<QueryOverview>(command.action);
        if (batch_.commands.size() >= kCommands || (reads && readings_ >= kReadings) || batch_.stop) {
            ++refusedCommands_;
            return false;
        }
        readings_ += reads ? 1 : 0;
        batch_.commands.push_back(std::move(command));
        ready_.notify_one();
        return true;
    }
    // Takes the place of files that were not taken yet, but for who asked for those and what they refused. A
    // good configuration is not lost to a bad one behind it: the files have the last good one.
    void send(LoadedFiles&& files) {
        const std::lock_guard lock(mutex_);
        if (batch_.files) {
            std::ranges::move(batch_.files->askers, std::back_inserter(files.askers));
            std::ranges::move(batch_.files->refused, std::back_inserter(files.refused));
        }
        batch_.files = std::move(files);
        ready_.notify_one();
    }
    void send(LoadedRuntime&& runtime) {
        const std::lock_guard lock(mutex_);
        batch_.runtime = std::move(runtime);
        ready_.notify_one();
    }
    // The meter's mail has something, or turns of pictures ended.
    void sendMeter() {
        const std::lock_guard lock(mutex_);
        batch_.meter = true;
        ready_.notify_one();
    }
    void sendMinutes() {
        const std::lock_guard lock(mutex_);
        batch_.minutes = true;
        ready_.notify_one();
    }
    void stop() {
        const std::lock_guard lock(mutex_);
        batch_.stop = true;
        ready_.notify_one();
    }

    // All that came, as soon as there is something; nothing at the deadline.
    Batch drainUntil(SteadyTime deadline) {
        std::unique_lock lock(mutex_);
        ready_.wait_until(lock, deadline, [this] {
            return batch_.stop || batch_.meter || batch_.minutes || batch_.files || batch_.runtime ||
                   !batch_.snapshots.empty() || !batch_.reports.empty() || !batch_.commands.empty();
        });
        readings_ = 0;
        return std::exchange(batch_, {});
    }

    uint64_t droppedSnapshots() const {
        const std::lock_guard lock(mutex_);
        return droppedSnapshots_;
    }
    uint64_t refusedCommands() const {
        const std::lock_guard lock(mutex_);
        return refusedCommands_;
    }

  private:
    template <typename T>
    static void pushDroppingOldest(std::deque<T>& queue, std::type_identity_t<T>&& letter, std::size_t bound,
                                   uint64_t& dropped) {
        if (queue.size() >= bound) {
            queue.pop_front();
            ++dropped;
        }
        queue.push_back(std::move(letter));
    }

    mutable std::mutex mutex_;  // guards everything below; no lock is taken while it is held
    std::condition_variable ready_;
    Batch batch_;
    std::size_t readings_ = 0;  // of its commands
    uint64_t droppedSnapshots_ = 0;
    uint64_t refusedCommands_ = 0;
};

}  // namespace station
