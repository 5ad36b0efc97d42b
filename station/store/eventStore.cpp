#include "store/eventStore.h"

#include <sys/prctl.h>

#include <algorithm>
#include <random>

#include "common/counted.h"
#include "store/eventStoreParts.h"

namespace station {

namespace {

using namespace std::chrono_literals;

constexpr auto kClosingTime = 800ms;  // for what is queued at the end
constexpr auto kStartWait = 5s;       // of whoever makes the store, for a slow disk

}  // namespace

int64_t idByTime(WallTime time) {
    constexpr int64_t kNeverEarlier = 1'767'225'600'000;  // 2026-01-01
    constexpr int64_t kSpread = int64_t{1} << 32;
    const int64_t milliseconds = time.time_since_epoch().count();
    if (milliseconds >= kNeverEarlier) {
        return milliseconds;
    }
    std::random_device random;
    return kNeverEarlier + std::uniform_int_distribution<int64_t>(0, kSpread)(random);
}

EventStore::Implementation::Implementation(const std::filesystem::path& directory, Limits atFirst,
                                           ClockFunction time)
    : limits(atFirst), file_(directory / "events.db"), clock_(std::move(time)), place_(file_) {
    writer_ = std::thread([this] { run(); });
    queries_ = std::thread([this] { runQueries(); });
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, kStartWait, [this] { return firstDone_; })) {
        firstMissed_ = true;
        initial.lastId = idByTime(clock_().wall);
        initial.problem = file_.string() + " is not opened yet: the disk is slow, or hangs";
    }
}

// The connection that writes is closed last: only that one takes the log up into the file.
EventStore::Implementation::~Implementation() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        patience_.endAt(Clock::now() + kClosingTime);
    }
    questions.close();
    stopReading_ = true;
    stopCheck_ = true;
    queries_.join();
    {
        const std::lock_guard lock(readerMutex_);
        reader_.reset();
    }
    {
        const std::lock_guard lock(mutex_);
        closing_ = true;
    }
    changed_.notify_all();
    writer_.join();
    stopCheck();
}

// Waiting entries, in and out.

void EventStore::Implementation::push(Waiting&& waiting) {
    {
        const std::lock_guard lock(mutex_);
        if (const auto* event = std::get_if<Event>(&waiting.entry)) {
            lastId_ = std::max(lastId_, event->id);
        }
        known_.apply(waiting.entry);
        queue_.push_back(std::move(waiting));
        trim();
    }
    changed_.notify_one();
}

// Windows stay: nobody would set them again.
void EventStore::Implementation::trim() {
    while (queue_.size() > kStoreQueue) {
        auto oldest = std::ranges::find_if(queue_, [](const Waiting& one) { return !one.isWindow(); });
        if (oldest - queue_.begin() > static_cast<std::ptrdiff_t>(kWindowQueue)) {
            oldest = queue_.begin();
        }
        if (isDurable(oldest->entry)) {
            lost_ = true;
            observed_.clear();  // what reports would need of that time is gone
            observedAt_.reset();
        }
        queue_.erase(oldest);
        ++dropped;
    }
    waitingCount = queue_.size();
}

std::deque<WaitingEntry> EventStore::Implementation::nextBatch(Clock::time_point until) {
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, until, [this] {
        return closing_ || !damage_.empty() || (!queue_.empty() && Clock::now() >= retryAt_);
    });
    std::deque<Waiting> batch;
    observedDue_.clear();
    if (Clock::now() < retryAt_ && !closing_) {
        return batch;
    }
    while (!queue_.empty() && batch.size() < kBatch) {
        batch.push_back(std::move(queue_.front()));
        queue_.pop_front();
    }
    if (queue_.empty() && Clock::now() >= noteObservedAt_) {
        observedDue_.assign(observed_.begin(), observed_.end());
    }
    return batch;
}

void EventStore::Implementation::putBack(std::deque<Waiting>&& batch) {
    const std::lock_guard lock(mutex_);
    queue_.insert(queue_.begin(), std::move_iterator(batch.begin()), std::move_iterator(batch.end()));
    trim();
}

std::optional<StoredState> EventStore::Implementation::takeLate() {
    const std::lock_guard lock(mutex_);
    return std::exchange(late_, std::nullopt);
}

void EventStore::Implementation::readLate(StoredState&& state) {
    log(LogLevel::kNotice, file_.string() + " can be read: " + counted(state.active.size(), "alarm") +
                               " and " + counted(state.maintenance.size(), "maintenance window") +
                               " are taken up");
    const std::lock_guard lock(mutex_);
    late_ = std::move(state);
}

// The store's thread.

void EventStore::Implementation::run() {
    prctl(PR_SET_NAME, "event-store");
    openAtStart();
    while (!finished()) {
        const auto soon = Clock::now() + kRetryWait;
        std::deque<Waiting> batch = nextBatch(failing ? soon : std::min(retentionAt_, soon));
        try {
            putAsideIfDamaged();
            leaveIfRemoved();
            if (!database_ && (Clock::now() >= retryAt_ || closeBy_ != Clock::time_point::max())) {
                open();
            }
            if (database_) {
                write(batch);
                makeUp();
                noteTimes();
                retain();
            }
        } catch (const DatabaseError& error) {
            failed(error);
            tellWaiting(batch, error.what());
        }
        putBack(std::move(batch));
        bytes = databaseBytes(file_);
    }
    finish();
}

// Who waits for the disk is not kept waiting for one that fails.
void EventStore::Implementation::tellWaiting(std::deque<Waiting>& batch, const std::string& problem) {
    std::vector<Waiting> removals;
    const auto dropRemovals = [&removals](std::deque<Waiting>& waiting) {
        for (Waiting& one : waiting) {
            if (one.stored) {
                removals.push_back({RemoveMaintenance{0}, std::exchange(one.stored, {})});
            }
        }
    };
    dropRemovals(batch);
    {
        const std::lock_guard lock(mutex_);
        dropRemovals(queue_);
    }
    for (Waiting& one : removals) {
        one.tell(problem);
    }
}

bool EventStore::Implementation::finished() {
    const std::lock_guard lock(mutex_);
    if (!closing_) {
        return false;
    }
    if (closeBy_ == Clock::time_point::max()) {
        closeBy_ = Clock::now() + kClosingTime;
        return queue_.empty();  // one more attempt, also when the last one failed
    }
    return queue_.empty() || failing || Clock::now() >= closeBy_;
}

// Queries.

void EventStore::Implementation::runQueries() {
    prctl(PR_SET_NAME, "event-queries");
    while (!questions.closed()) {
        if (const auto question = questions.popUntil(Clock::now() + 1h)) {
            question->answer(read(*question));
        }
    }
}

// What is wrong, or nothing.
std::string EventStore::Implementation::read(const EventQuestion& question) {
    if (opening_) {
        return "The events cannot be read: the disk is slow, and " + file_.string() + " is not opened yet.";
    }
    const std::lock_guard lock(readerMutex_);
    try {
        if (!reader_) {
            reader_.emplace(file_, stopReading_, patience_);
        }
        question.read(*reader_);
        return {};
    } catch (const DatabaseError& error) {
        if (error.kind() == DatabaseError::Kind::kStopped) {
            return "The search took too long; restrict it by channel, kind or time.";
        }
        reader_.reset();
        if (error.kind() == DatabaseError::Kind::kDamaged) {
            foundDamage(error.what());
        }
        return "The events cannot be read: " + std::string(error.what());
    }
}

void EventStore::Implementation::foundDamage(const std::string& problem) {
    {
        const std::lock_guard lock(mutex_);
        damage_ = problem;
    }
    changed_.notify_one();
}

// A large file takes seconds to read, so it is checked beside the work.
void EventStore::Implementation::startCheck() {
    checker_ = std::thread([this] {
        prctl(PR_SET_NAME, "event-check");
        try {
            if (const auto damage = EventReader(file_, stopCheck_, patience_).damage()) {
                foundDamage(*damage);
            }
        } catch (const DatabaseError& error) {
            if (error.kind() == DatabaseError::Kind::kDamaged) {
                foundDamage(error.what());
            }
        }
    });
}

void EventStore::Implementation::stopCheck() {
    stopCheck_ = true;
    if (checker_.joinable()) {
        checker_.join();
    }
}

EventStore::EventStore(const std::filesystem::path& stateDirectory, Limits limits, ClockFunction clock)
    : implementation_(std::make_unique<Implementation>(stateDirectory, limits, std::move(clock))) {}

EventStore::~EventStore() = default;

const StoredState& EventStore::initial() const {
    return implementation_->initial;
}

std::optional<StoredState> EventStore::late() {
    return implementation_->takeLate();
}

int64_t EventStore::reservedTo() const {
    return implementation_->reservedTo;
}

int64_t EventStore::givenTo() const {
    return implementation_->givenTo;
}

void EventStore::record(Event event, Stored stored) {
    implementation_->push({std::move(event), std::move(stored)});
}

void EventStore::setLimits(Limits limits) {
    {
        const std::lock_guard lock(implementation_->limitsMutex);
        implementation_->limits = limits;
    }
    implementation_->retainNow = true;
}

bool EventStore::query(const EventFilter& filter, QueryAnswer answer) {
    const auto events = std::make_shared<std::vector<Event>>();
    return implementation_->questions.push(
        {[filter, events](EventReader& reader) { *events = reader.query(filter); },
         [events, answer = std::move(answer)](const std::string& problem) {
             answer(std::move(*events), problem);
         }});
}

bool EventStore::report(const ReportQuestion& question, ReportAnswer answer) {
    const auto rows = std::make_shared<ReportRows>();
    return implementation_->questions.push(
        {[question, rows](EventReader& reader) { *rows = reader.reportRows(question); },
         [rows, answer = std::move(answer)](const std::string& problem) {
             answer(std::move(*rows), problem);
         }});
}

void EventStore::observed(const Now& now) {
    implementation_->observe(now);
}

void EventStore::watched(std::vector<Group> groups) {
    implementation_->watch(std::move(groups));
}

void EventStore::noteMeter(bool known) {
    implementation_->meterKnown = known ? 1 : 0;
}

void EventStore::putMaintenance(const Maintenance& maintenance, Stored stored) {
    implementation_->push({maintenance, std::move(stored)});
}

void EventStore::removeMaintenance(int64_t id, Stored stored) {
    implementation_->push({RemoveMaintenance{id, implementation_->wallNow()}, std::move(stored)});
}

void EventStore::putShelving(const Shelving& shelving, Stored stored) {
    implementation_->push({shelving, std::move(stored)});
}

void EventStore::removeShelving(int64_t id, Stored stored) {
    implementation_->push({RemoveShelving{id}, std::move(stored)});
}

void EventStore::putIncident(IncidentChange change) {
    implementation_->push({std::move(change), {}});
}

void EventStore::removeIncident(int64_t id) {
    implementation_->push({RemoveIncident{id}, {}});
}

void EventStore::putPassed(const PassedAlarm& alarm) {
    implementation_->push({alarm, {}});
}

void EventStore::removePassed(int64_t id) {
    implementation_->push({RemovePassed{id}, {}});
}

EventStore::Statistics EventStore::statistics() const {
    const Implementation& store = *implementation_;
    return {store.written, store.dropped, store.waitingCount, store.bytes, store.failing};
}

}  // namespace station
