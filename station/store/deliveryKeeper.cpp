#include "store/deliveryKeeper.h"

#include <sys/prctl.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace station {

namespace {
using Clock = std::chrono::steady_clock;
}

DeliveryKeeper::DeliveryKeeper(std::filesystem::path file, std::function<void()> wake)
    : file_(std::move(file)), wake_(std::move(wake)), place_(file_), thread_([this] { run(); }) {}

DeliveryKeeper::~DeliveryKeeper() {
    patience_.endAt(Clock::now() + kClosing);
    {
        const std::lock_guard lock(mutex_);
        closing_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

// Any thread.

std::optional<StoredReceivers> DeliveryKeeper::takeLoaded() {
    const std::lock_guard lock(mutex_);
    return std::exchange(loaded_, std::nullopt);
}

DeliveryKeeper::Ticket DeliveryKeeper::save(ReceiverChanges&& changes) {
    {
        const std::lock_guard lock(mutex_);
        ++given_;
        if (jobs_.size() >= kJobs) {
            jobs_.clear();
            incomplete_ = true;
        }
        if (incomplete_) {
            return given_;
        }
        jobs_.push_back({given_, std::move(changes), {}});
    }
    changed_.notify_all();
    return given_;
}

bool DeliveryKeeper::pending(Ticket ticket) const {
    const std::lock_guard lock(mutex_);
    return ready_ && !incomplete_ && written_ < ticket;
}

bool DeliveryKeeper::wantsAll() const {
    const std::lock_guard lock(mutex_);
    return ready_ && incomplete_ && !loaded_;
}

DeliveryKeeper::Ticket DeliveryKeeper::replace(StoredReceivers&& all) {
    Ticket ticket = 0;
    {
        const std::lock_guard lock(mutex_);
        jobs_.clear();
        ticket = ++given_;
        jobs_.push_back({ticket, {}, std::move(all)});
        incomplete_ = false;
    }
    changed_.notify_all();
    return ticket;
}

void DeliveryKeeper::wantAll() {
    const std::lock_guard lock(mutex_);
    incomplete_ = true;
}

// The keeper's thread.

void DeliveryKeeper::run() {
    prctl(PR_SET_NAME, "delivery-store");
    for (bool closing = false; !closing;) {
        std::deque<Job> jobs;
        {
            std::unique_lock lock(mutex_);
            const auto wanted = [this] { return closing_ || !jobs_.empty(); };
            // Without a file there is nothing to do before the next attempt.
            if (!database_) {
                changed_.wait_until(lock, retryAt_, [this] { return closing_; });
            } else {
                changed_.wait_for(lock, kLooks, wanted);
            }
            closing = closing_;
            jobs.swap(jobs_);
        }
        try {
            leaveIfRemoved(jobs);
            if (!database_) {
                open();
                wake_();
            }
            write(jobs);
        } catch (const DatabaseError& error) {
            failed(error);
            wake_();
        }
    }
}

void DeliveryKeeper::open() {
    std::error_code ignored;  // what is wrong shows when the file is opened
    std::filesystem::create_directories(file_.parent_path(), ignored);
    if (const std::string aside = read_ ? place_.clear() : ""; !aside.empty()) {
        log(LogLevel::kError, file_.string() + " is another file than the one in use: put aside as " + aside);
    }
    database_.emplace(file_, patience_);
    place_.opened();
    std::optional<StoredReceivers> stored;
    if (!read_) {
        stored = database_->load();
        read_ = true;
    }
    const std::lock_guard lock(mutex_);
    ready_ = true;
    incomplete_ = true;
    if (stored) {
        loaded_ = std::move(stored);
    }
}

void DeliveryKeeper::leaveIfRemoved(std::deque<Job>& jobs) {
    if (!database_ || place_.inPlace()) {
        return;
    }
    log(LogLevel::kError, file_.string() +
                              " was removed or replaced while it was in use: what is owed and was told goes "
                              "into a new file");
    database_.reset();
    jobs.clear();
    const std::lock_guard lock(mutex_);
    jobs_.clear();
    incomplete_ = true;
}

void DeliveryKeeper::write(std::deque<Job>& jobs) {
    // Many in one transaction: each is a wait for the disk.
    while (!jobs.empty()) {
        Job& first = jobs.front();
        Ticket last = first.ticket;
        if (first.all) {
            database_->replace(*first.all);
            jobs.pop_front();
            problem_.resolved(file_.string() + " can be written again");
        } else {
            ReceiverChanges changes;
            while (!jobs.empty() && !jobs.front().all) {
                last = jobs.front().ticket;
                std::ranges::move(jobs.front().changes, std::back_inserter(changes));
                jobs.pop_front();
            }
            database_->apply(changes);
        }
        {
            const std::lock_guard lock(mutex_);
            written_ = last;
        }
        wake_();
    }
}

void DeliveryKeeper::failed(const DatabaseError& error) {
    database_.reset();
    retryAt_ = Clock::now() + kRetry;
    {
        const std::lock_guard lock(mutex_);
        ready_ = false;
        incomplete_ = true;
        jobs_.clear();
    }
    const bool damaged = error.kind() == DatabaseError::Kind::kDamaged;
    if (damaged || error.kind() == DatabaseError::Kind::kNewer) {
        const std::string aside = putAside(file_, damaged ? "damaged" : "newer");
        if (!aside.empty()) {
            retryAt_ = {};
            log(LogLevel::kError, file_.string() + " cannot be used (" + error.what() + "): put aside as " +
                                      aside + ", a new file is begun");
            return;
        }
    }
    problem_.say(LogLevel::kError,
                 file_.string() + " cannot be written (" + error.what() +
                     "): notifications are delivered, and would not outlive a restart of the station; see to "
                     "space and permissions of that directory");
}

}  // namespace station
