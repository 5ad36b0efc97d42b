// The event store's file: opening and taking it up, putting it aside, writing.
#include <algorithm>
#include <map>

#include "store/eventStoreParts.h"

namespace station {

namespace {

using namespace std::chrono_literals;

constexpr auto kRetentionInterval = 60s;  // between two looks for what is too old
constexpr auto kRetentionBreath = 20ms;   // between two steps, so that the disk has time for others
constexpr auto kStartPatience = 1s;       // with another program that has the file
constexpr std::chrono::hours kDay{24};
constexpr auto kAgeInterval = 1h;  // between two notes of how long the station ran

// The active alarms. What nobody could ever clear is taken out: a type that this version does not have, and
// all but the newest where a channel has one several times.
std::vector<Alarm> takeAlarms(std::map<int64_t, ActiveEvents>& active) {
    std::map<std::pair<std::size_t, Subject>, Alarm> alarms;
    for (const auto& [id, events] : active) {
        const Event& raised = events.raised;
        const std::optional<std::size_t> type = findAlarmType(raised.alarm);
        if (!type) {
            continue;
        }
        const double value = raised.value.value_or(0);
        const Subject about = raised.group ? Subject(*raised.group)
                                           : Subject(alarmTypes()[*type].ofSource.value_or(Source::kProbe));
        Alarm alarm{.id = id,
                    .type = *type,
                    .about = about,
                    .severity = raised.severity.value_or(Severity::kWarning),
                    .raised = raised.time,
                    .value = value,
                    .peak = value,
                    .acknowledged = {},
                    .source = raised.source.value_or(Source::kProbe)};
        alarm.setText(raised.text);
        alarm.incident = events.incident;
        if (const auto& acknowledged = events.acknowledged) {
            alarm.acknowledged = Acknowledgement{acknowledged->time, acknowledged->by, acknowledged->text};
        }
        alarms.insert_or_assign({*type, about}, alarm);
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
        connect();
        state = restore(database_->load());
        state.lastId = database_->lastId();
        state.meterKnown = database_->meterKnown();
    } catch (const DatabaseError& error) {
        const bool damaged = error.kind() == DatabaseError::Kind::kDamaged;
        if (!damaged && error.kind() != DatabaseError::Kind::kNewer) {
            throw;
        }
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

StoredState EventStore::Implementation::restore(Carried&& stored) {
    StoredState state;
    const std::size_t alarms = stored.active.size();
    const std::size_t windows = stored.maintenance.size();
    state.active = takeAlarms(stored.active);
    const WallTime now = clock_().wall;
    std::erase_if(stored.maintenance, [now](const auto& window) { return window.second.until <= now; });
    for (const auto& [id, window] : stored.maintenance) {
        state.maintenance.push_back(window);
    }
    for (const auto& [id, shelving] : stored.shelved) {
        state.shelved.push_back(shelving);  // those whose time is over end with an event
    }
    for (const auto& [id, incident] : stored.incidents) {
        state.incidents.push_back(incident);
    }
    for (const auto& [id, alarm] : stored.passed) {
        state.passed.push_back(alarm);
    }
    if (stored.active.size() != alarms || stored.maintenance.size() != windows) {
        database_->carryOver(stored);
    }
    const std::lock_guard lock(mutex_);
    known_.active.merge(stored.active);
    known_.maintenance.merge(stored.maintenance);
    known_.shelved.merge(stored.shelved);
    known_.incidents.merge(stored.incidents);
    known_.passed.merge(stored.passed);
    return state;
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
    clearPlace();
    try {
        connect();
        carryOver();
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

void EventStore::Implementation::connect() {
    database_.emplace(file_, patience_);
    place_.opened();
}

// Before the file is opened again: another one that took its place, by a disk that was mounted late or a
// backup that was moved there, has alarms, windows and numbers that nobody has read.
void EventStore::Implementation::clearPlace() {
    if (place_.inPlace()) {
        return;
    }
    stopCheck();
    forgetTimes();
    std::string aside;
    {
        const std::lock_guard lock(readerMutex_);
        reader_.reset();
        aside = place_.clear();
    }
    if (aside.empty()) {
        return;
    }
    givenTo = idByTime(clock_().wall);
    {
        const std::lock_guard lock(mutex_);
        lastId_ = std::max<int64_t>(lastId_, givenTo);
    }
    log(LogLevel::kError, file_.string() +
                              " is another file than the one in use, by a disk that was mounted late or a "
                              "backup that was moved there: put aside as " +
                              aside + "; to go on with it, stop the station and rename it back");
}

// What is raised and planned, into a file that may lack it.
void EventStore::Implementation::carryOver() {
    Carried all;
    {
        const std::lock_guard lock(mutex_);
        lost_ = false;
        all = known_;
    }
    database_->carryOver(all);
}

// The events that were dropped are gone; what they said of alarms and windows is not.
void EventStore::Implementation::makeUp() {
    {
        const std::lock_guard lock(mutex_);
        if (!lost_ || (queue_.size() > kStoreQueue / 2 && !closing_)) {
            return;
        }
    }
    carryOver();
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
        if (left == 0) {
            observedDue_.assign(observed_.begin(), observed_.end());
        }
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
        noteTimes();
        database_->noteRan(ranSoFar());
        const std::lock_guard lock(mutex_);
        if (queue_.empty()) {
            database_->reserve(lastId_);
        }
    } catch (const DatabaseError&) {
        // Then ids have a gap, events stay an hour longer, and 15 s are unknown to reports.
    }
    stopCheck();  // which has the file open
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
    connect();
    forgetTimes();
    carryOver();
    database_->noteRan(ranSoFar());
    keepReserved();
    works();
    return text;
}

void EventStore::Implementation::works() {
    failing = false;
    problem_.resolved(file_.string() + " can be written again; what waited is stored");
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
    if (!database_ || place_.inPlace()) {
        return;
    }
    log(LogLevel::kError, file_.string() +
                              " was removed or replaced while it was in use: events go on in a new "
                              "file, which has of the earlier ones what is raised");
    database_.reset();
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

}  // namespace station
