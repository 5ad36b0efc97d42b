#include "store/eventStore.h"

#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <utility>

#include "common/boundedQueue.h"
#include "common/counted.h"
#include "common/log.h"
#include "store/eventDatabase.h"

namespace station {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kBatch = 500;       // entries of one transaction
constexpr auto kRetryWait = 1s;           // after a failure
constexpr auto kRetentionInterval = 60s;  // between two looks for what is too old
constexpr auto kRetentionBreath = 20ms;   // between two steps, so that the disk has time for others
constexpr auto kClosingTime = 800ms;      // for what is queued at the end
constexpr auto kStartPatience = 1s;       // with another program that has the file
constexpr auto kStartWait = 5s;           // of whoever makes the store, for a slow disk
constexpr std::chrono::hours kDay{24};
constexpr auto kAgeInterval = 1h;  // between two notes of how long the station ran

struct Waiting {
    StoreEntry entry;
    EventStore::Stored stored;

    void tell(const std::string& problem) {
        if (stored) {
            std::exchange(stored, {})(problem);
        }
    }
    bool isWindow() const {
        return !std::holds_alternative<Event>(entry);
    }
};

struct Question {
    EventFilter filter;
    EventStore::QueryAnswer answer;
};

// The active alarms. What nobody could ever clear is taken out: a type that this version does not have, and
// all but the newest where a channel has one several times.
std::vector<Alarm> takeAlarms(std::map<int64_t, ActiveEvents>& active) {
    std::map<std::pair<std::size_t, std::optional<Group>>, Alarm> alarms;
    for (const auto& [id, events] : active) {
        const Event& raised = events.raised;
        const std::optional<std::size_t> type = findAlarmType(raised.alarm);
        if (!type) {
            continue;
        }
        const double value = raised.value.value_or(0);
        Alarm alarm{.id = id,
                    .type = *type,
                    .group = raised.group,
                    .severity = raised.severity.value_or(Severity::kWarning),
                    .raised = raised.time,
                    .value = value,
                    .peak = value,
                    .acknowledged = {}};
        alarm.setText(raised.text);
        if (const auto& said = events.acknowledged) {
            alarm.acknowledged = Acknowledgement{said->time, said->by, said->text};
        }
        alarms.insert_or_assign({*type, raised.group}, alarm);
    }
    std::map<int64_t, ActiveEvents> taken;
    std::vector<Alarm> all;
    for (const auto& [key, alarm] : alarms) {
        taken.insert(active.extract(alarm.id));
        all.push_back(alarm);
    }
    active = std::move(taken);
    return all;
}

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

struct EventStore::Implementation {
    Implementation(const std::filesystem::path& directory, Limits atFirst, ClockFunction time);
    ~Implementation();

    void push(Waiting&& waiting);

    StoredState initial;
    std::optional<StoredState> takeLate();

    // Any thread.
    std::atomic<int64_t> reservedTo{0};
    std::atomic<bool> retainNow{false};
    std::mutex limitsMutex;
    Limits limits;  // under limitsMutex
    BoundedQueue<Question> questions{kQueryQueue};
    std::atomic<uint64_t> written{0};
    std::atomic<uint64_t> dropped{0};
    std::atomic<uint64_t> waitingCount{0};
    std::atomic<uint64_t> bytes{0};
    std::atomic<bool> failing{false};

  private:
    void run();
    bool finished();
    std::deque<Waiting> take(Clock::time_point until);
    void putBack(std::deque<Waiting>&& batch);
    void tellWaiting(std::deque<Waiting>& batch, const std::string& problem);
    void trim();

    void open();
    void openAtStart();
    StoredState readFirst();
    StoredState takeUp(Carried&& stored);
    void readLate(StoredState&& state);
    void keepReserved();
    void finish();
    std::chrono::milliseconds ranSoFar() const;
    void works();
    void putAsideIfDamaged();
    void leaveIfRemoved();
    void write(std::deque<Waiting>& batch);
    void retain();
    void failed(const DatabaseError& error);
    void setAside(const std::string& problem, std::string_view why);
    std::string startAnew(const std::string& problem, std::string_view why);

    void runQueries();
    std::string read(const EventFilter& filter, std::vector<Event>& events);
    void startCheck();
    void stopCheck();
    void foundDamage(const std::string& problem);

    const std::filesystem::path file_;
    const ClockFunction clock_;
    Patience patience_;

    std::mutex mutex_;  // guards all down to closing_; no lock is taken while it is held
    std::condition_variable changed_;
    std::deque<Waiting> queue_;
    std::string damage_;  // found while reading; empty for none
    std::optional<StoredState> late_;
    int64_t lastId_ = 0;  // the highest that was recorded
    bool closing_ = false;
    bool ending_ = false;       // nobody may wait for the file for long any more
    bool firstDone_ = false;    // `initial` is what was read
    bool firstMissed_ = false;  // the constructor did not wait for it

    std::atomic<bool> opening_{true};  // for the first time

    // The store's thread.
    std::optional<EventDatabase> database_;
    bool read_ = false;  // what the file had is taken up
    Carried carried_;
    std::chrono::milliseconds ranBefore_{0};  // until the file was opened
    SteadyTime ranSince_{};
    SteadyTime ageAt_{};  // of the next note
    LogOnChange problem_;
    Clock::time_point retryAt_{};
    Clock::time_point retentionAt_{};
    std::size_t writtenSinceRetention_ = 0;
    Clock::time_point closeBy_ = Clock::time_point::max();

    std::mutex readerMutex_;  // guards reader_; held while a query runs; nests outside mutex_
    std::atomic<bool> stopReading_{false};
    std::optional<EventReader> reader_;
    std::atomic<bool> stopCheck_{false};
    std::thread checker_, queries_, writer_;
};

EventStore::Implementation::Implementation(const std::filesystem::path& directory, Limits atFirst,
                                           ClockFunction time)
    : limits(atFirst), file_(directory / "events.db"), clock_(std::move(time)) {
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
        queue_.erase(oldest);
        ++dropped;
    }
    waitingCount = queue_.size();
}

std::deque<Waiting> EventStore::Implementation::take(Clock::time_point until) {
    std::unique_lock lock(mutex_);
    changed_.wait_until(lock, until, [this] {
        return closing_ || !damage_.empty() || (!queue_.empty() && Clock::now() >= retryAt_);
    });
    std::deque<Waiting> batch;
    if (Clock::now() < retryAt_ && !closing_) {
        return batch;
    }
    while (!queue_.empty() && batch.size() < kBatch) {
        batch.push_back(std::move(queue_.front()));
        queue_.pop_front();
    }
    return batch;
}

void EventStore::Implementation::putBack(std::deque<Waiting>&& batch) {
    const std::lock_guard lock(mutex_);
    queue_.insert(queue_.begin(), std::move_iterator(batch.begin()), std::move_iterator(batch.end()));
    trim();
}

// The file.

void EventStore::Implementation::openAtStart() {
    const auto waitUntil = [this](Clock::time_point until) {
        const std::lock_guard lock(mutex_);
        if (!ending_) {
            patience_.endAt(until);
        }
    };
    waitUntil(Clock::now() + kStartPatience);
    std::error_code ignored;  // what is wrong shows when the file is opened
    std::filesystem::create_directories(file_.parent_path(), ignored);
    StoredState state;
    try {
        state = readFirst();
        startCheck();
    } catch (const DatabaseError& error) {
        database_.reset();
        state = {};
        state.lastId = idByTime(clock_().wall);
        failed(error);
        state.problem = file_.string() + " cannot be opened: " + error.what();
    }
    waitUntil(Clock::time_point::max());
    bytes = databaseBytes(file_);
    opening_ = false;
    std::unique_lock lock(mutex_);
    if (!firstMissed_) {
        initial = std::move(state);
        firstDone_ = true;
        changed_.notify_all();
        return;
    }
    lock.unlock();
    if (state.loaded) {
        readLate(std::move(state));
    }
}

// What the file has; nothing, and a new file, when it cannot be used.
StoredState EventStore::Implementation::readFirst() {
    StoredState state;
    ranSince_ = clock_().steady;
    try {
        database_.emplace(file_, patience_);
        state = takeUp(database_->load());
        state.lastId = database_->lastId();
    } catch (const DatabaseError& error) {
        const bool damaged = error.kind() == DatabaseError::Kind::kDamaged;
        if (!damaged && error.kind() != DatabaseError::Kind::kNewer) {
            throw;
        }
        carried_ = {};
        state = {};
        state.lastId = idByTime(clock_().wall);
        state.problem = startAnew(error.what(), damaged ? "damaged" : "newer");
    }
    state.loaded = read_ = true;
    ranBefore_ = database_->ran();
    {
        const std::lock_guard lock(mutex_);
        lastId_ = std::max(lastId_, state.lastId);
    }
    try {
        keepReserved();
    } catch (const DatabaseError&) {
        // A full disk can still be read. Ids go by the time until it can be written.
    }
    return state;
}

StoredState EventStore::Implementation::takeUp(Carried&& stored) {
    StoredState state;
    const std::size_t alarms = stored.active.size();
    const std::size_t windows = stored.maintenance.size();
    state.active = takeAlarms(stored.active);
    const WallTime now = clock_().wall;
    std::erase_if(stored.maintenance, [now](const auto& window) { return window.second.until <= now; });
    for (const auto& [id, window] : stored.maintenance) {
        state.maintenance.push_back(window);
    }
    carried_ = std::move(stored);
    if (carried_.active.size() != alarms || carried_.maintenance.size() != windows) {
        database_->carryOver(carried_);
    }
    return state;
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

// After a failure: whatever the file has, the alarms and windows known here are the ones that count. What it
// has is not known before it was read once.
void EventStore::Implementation::open() {
    std::error_code ignored;  // what is wrong shows when the file is opened
    std::filesystem::create_directories(file_.parent_path(), ignored);
    if (!read_) {
        StoredState state;
        {
            const std::lock_guard lock(readerMutex_);  // it may be put aside
            reader_.reset();
            state = readFirst();
        }
        readLate(std::move(state));
        startCheck();
        works();
        return;
    }
    try {
        database_.emplace(file_, patience_);
        database_->carryOver(carried_);
        keepReserved();
        works();
    } catch (const DatabaseError& error) {
        database_.reset();
        const bool damaged = error.kind() == DatabaseError::Kind::kDamaged;
        if (!damaged && error.kind() != DatabaseError::Kind::kNewer) {
            throw;
        }
        setAside(error.what(), damaged ? "damaged" : "newer");
    }
}

// Reserves ids well before they are used up.
void EventStore::Implementation::keepReserved() {
    int64_t given = 0;
    {
        const std::lock_guard lock(mutex_);
        given = lastId_;
    }
    if (given + kIdBlock / 2 > reservedTo || database_->lastId() < reservedTo) {
        database_->reserve(given + kIdBlock);
        reservedTo = given + kIdBlock;
    }
}

// All is written: the next start goes on from here.
void EventStore::Implementation::finish() {
    std::size_t left = 0;
    {
        const std::lock_guard lock(mutex_);
        left = queue_.size();
    }
    if (left > 0) {
        log(LogLevel::kError,
            file_.string() +
                " could not be written until the end; events and windows lost: " + std::to_string(left));
    }
    if (!database_) {
        return;
    }
    try {
        database_->noteRan(ranSoFar());
        const std::lock_guard lock(mutex_);
        if (queue_.empty()) {
            database_->reserve(lastId_);
        }
    } catch (const DatabaseError&) {
        // Then ids have a gap, and events stay an hour longer.
    }
    database_.reset();
}

std::chrono::milliseconds EventStore::Implementation::ranSoFar() const {
    return ranBefore_ + std::chrono::floor<std::chrono::milliseconds>(clock_().steady - ranSince_);
}

// Puts the file aside and makes a new one; says so. REQUIRES: no query and no check runs on the file.
std::string EventStore::Implementation::startAnew(const std::string& problem, std::string_view why) {
    database_.reset();
    const std::string aside = putAside(file_, why);
    if (aside.empty()) {
        throw DatabaseError(DatabaseError::Kind::kOther,
                            "it is unusable (" + problem + ") and cannot be renamed");
    }
    std::string text = file_.string() + " cannot be used (" + problem + "): put aside as " + aside +
                       ", events go into a new file";
    log(LogLevel::kError, text);
    database_.emplace(file_, patience_);
    database_->carryOver(carried_);
    database_->noteRan(ranSoFar());
    keepReserved();
    works();
    return text;
}

void EventStore::Implementation::works() {
    failing = false;
    problem_.over(file_.string() + " can be written again; what waited is stored");
}

void EventStore::Implementation::setAside(const std::string& problem, std::string_view why) {
    stopCheck();
    const std::lock_guard lock(readerMutex_);
    reader_.reset();
    {
        const std::lock_guard found(mutex_);
        damage_.clear();  // whoever else found it meant the same file
    }
    startAnew(problem, why);
}

// The store's thread.

void EventStore::Implementation::run() {
    prctl(PR_SET_NAME, "event-store");
    openAtStart();
    while (!finished()) {
        const auto soon = Clock::now() + kRetryWait;
        std::deque<Waiting> batch = take(failing ? soon : std::min(retentionAt_, soon));
        try {
            putAsideIfDamaged();
            leaveIfRemoved();
            if (!database_ && (Clock::now() >= retryAt_ || closeBy_ != Clock::time_point::max())) {
                open();
            }
            if (database_) {
                write(batch);
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
    std::vector<Waiting> told;
    const auto take = [&told](std::deque<Waiting>& waiting) {
        for (Waiting& one : waiting) {
            if (one.stored) {
                told.push_back({RemoveMaintenance{0}, std::exchange(one.stored, {})});
            }
        }
    };
    take(batch);
    {
        const std::lock_guard lock(mutex_);
        take(queue_);
    }
    for (Waiting& one : told) {
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

void EventStore::Implementation::putAsideIfDamaged() {
    std::string damage;
    {
        const std::lock_guard lock(mutex_);
        damage = std::exchange(damage_, {});
    }
    if (!damage.empty()) {
        setAside(damage, "damaged");
    }
}

void EventStore::Implementation::leaveIfRemoved() {
    if (!database_ || database_->inPlace()) {
        return;
    }
    log(LogLevel::kError, file_.string() +
                              " was removed or replaced while it was in use: events go on in a new "
                              "file, which has of the earlier ones what is raised");
    stopCheck();
    const std::lock_guard lock(readerMutex_);
    reader_.reset();
    database_.reset();
    // What it wrote beside the file belongs to the one that is gone.
    std::error_code ignored;
    for (const char* companion : {"-wal", "-shm"}) {
        std::filesystem::remove(file_.string() + companion, ignored);
    }
}

// Writes the batch and empties it; leaves it alone when that fails.
void EventStore::Implementation::write(std::deque<Waiting>& batch) {
    if (batch.empty()) {
        return;
    }
    std::vector<const StoreEntry*> entries;
    entries.reserve(batch.size());
    for (const Waiting& waiting : batch) {
        entries.push_back(&waiting.entry);
    }
    database_->write(entries);
    for (Waiting& waiting : batch) {
        carried_.take(waiting.entry);
        if (!waiting.isWindow()) {
            ++written;
            ++writtenSinceRetention_;
        }
        waiting.tell({});
    }
    batch.clear();
    keepReserved();
}

void EventStore::Implementation::retain() {
    const SteadyTime now = clock_().steady;
    if (now >= ageAt_) {
        ageAt_ = now + kAgeInterval;
        database_->noteRan(ranSoFar());
    }
    if (!retainNow.exchange(false) && Clock::now() < retentionAt_ && writtenSinceRetention_ < kBatch) {
        return;
    }
    Limits kept{};
    {
        const std::lock_guard lock(limitsMutex);
        kept = limits;
    }
    writtenSinceRetention_ = 0;
    const bool more = database_->retain(ranSoFar() - kept.keepDays * kDay, kept.keepRows);
    retentionAt_ = Clock::now() + (more ? Clock::duration(kRetentionBreath) : kRetentionInterval);
}

void EventStore::Implementation::failed(const DatabaseError& error) {
    failing = true;
    retryAt_ = Clock::now() + kRetryWait;
    database_.reset();  // opening it anew shows whether it can be written again
    if (error.kind() == DatabaseError::Kind::kDamaged) {
        foundDamage(error.what());
        return;
    }
    problem_.say(LogLevel::kError, file_.string() + " cannot be written (" + error.what() + "): the newest " +
                                       std::to_string(kStoreQueue) +
                                       " events are kept in memory and written once it can; see to space and "
                                       "permissions of that directory");
}

// Queries.

void EventStore::Implementation::runQueries() {
    prctl(PR_SET_NAME, "event-queries");
    while (!questions.closed()) {
        if (const auto question = questions.popUntil(Clock::now() + 1h)) {
            std::vector<Event> events;
            const std::string problem = read(question->filter, events);
            question->answer(std::move(events), problem);
        }
    }
}

// The events, or what is wrong.
std::string EventStore::Implementation::read(const EventFilter& filter, std::vector<Event>& events) {
    if (opening_) {
        return "The events cannot be read: the disk is slow, and " + file_.string() + " is not opened yet.";
    }
    const std::lock_guard lock(readerMutex_);
    try {
        if (!reader_) {
            reader_.emplace(file_, stopReading_, patience_);
        }
        events = reader_->query(filter);
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
    return implementation_->questions.push({filter, std::move(answer)});
}

void EventStore::putMaintenance(const Maintenance& maintenance, Stored stored) {
    implementation_->push({maintenance, std::move(stored)});
}

void EventStore::removeMaintenance(int64_t id, Stored stored) {
    implementation_->push({RemoveMaintenance{id}, std::move(stored)});
}

EventStore::Statistics EventStore::statistics() const {
    const Implementation& store = *implementation_;
    return {store.written, store.dropped, store.waitingCount, store.bytes, store.failing};
}

}  // namespace station
