// Keeps delivery.db, on a thread of its own: a disk that hangs must not keep anybody from being told.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

#include "common/clock.h"
#include "common/log.h"
#include "store/deliveryDatabase.h"

namespace station {

// What the file has is what it was given: in the order of the calls, or, after a failure, as a whole once it
// can be written again. A file that could not be read is never written before it was. One that is removed
// while it is used is made anew; another one that takes its place is put aside as delivery.db.replaced-TIME.
class DeliveryKeeper {
  public:
    static constexpr std::chrono::seconds kRetry{10};          // after a failure
    static constexpr std::chrono::seconds kLooks{1};           // whether the file is still there
    static constexpr std::chrono::milliseconds kClosing{500};  // for what is left at the end
    static constexpr std::size_t kJobs = 1'000;  // not yet written; beyond, it is given all anew later

    // `wake` is called on the keeper's thread whenever something here has changed.
    DeliveryKeeper(std::filesystem::path file, std::function<void()> wake);
    ~DeliveryKeeper();
    DeliveryKeeper(const DeliveryKeeper&) = delete;

    // What the file had when it could be read; once, and nothing before. A file that cannot be used is put
    // aside and counts as empty.
    std::optional<StoredReceivers> takeLoaded();

    // Changes that follow those given before. The ticket says when they are written.
    using Ticket = uint64_t;
    Ticket save(ReceiverChanges&& changes);
    // True as long as waiting for it makes sense: it is being written, and the disk did not fail.
    bool pending(Ticket ticket) const;
    // The file lacks something: it has to be given all, by replace().
    bool wantsAll() const;
    Ticket replace(StoredReceivers&& all);
    void wantAll();  // from here on it lacks something

  private:
    struct Job {
        Ticket ticket = 0;
        ReceiverChanges changes;
        std::optional<StoredReceivers> all;  // instead
    };

    void run();
    void open();
    void leaveIfRemoved(std::deque<Job>& jobs);
    void write(std::deque<Job>& jobs);
    void failed(const DatabaseError& error);

    const std::filesystem::path file_;
    const std::function<void()> wake_;
    Patience patience_;

    mutable std::mutex mutex_;  // guards all down to closing_; no lock is taken while it is held
    std::condition_variable changed_;
    std::deque<Job> jobs_;
    Ticket given_ = 0;
    Ticket written_ = 0;
    std::optional<StoredReceivers> loaded_;
    bool ready_ = false;      // open, and read
    bool incomplete_ = true;  // changes were left out: none is taken before all was given
    bool closing_ = false;

    // The keeper's thread.
    std::optional<DeliveryDatabase> database_;
    DatabasePlace place_;
    bool read_ = false;
    SteadyTime retryAt_{};
    LogOnChange problem_;
    std::thread thread_;
};

}  // namespace station
