// The event store's inside: a queue, the file, and the threads between them.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "common/boundedQueue.h"
#include "common/log.h"
#include "store/eventDatabase.h"
#include "store/eventStore.h"

namespace station {

struct WaitingEntry {
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

struct EventQuestion {
    std::function<void(EventReader&)> read;
    std::function<void(const std::string& problem)> answer;
};

struct EventStore::Implementation {
    static constexpr std::size_t kBatch = 500;            // entries of one transaction
    static constexpr std::chrono::seconds kRetryWait{1};  // after a failure
    static constexpr std::size_t kObservedSpans =
        1000;  // waiting for the disk; beyond, the oldest is unknown
    static constexpr std::chrono::seconds kObservedInterval{15};  // between two notes of it
    static constexpr std::chrono::seconds kObservedGap{3};  // without snapshots: beyond, the time is unknown
    static constexpr std::chrono::seconds kClockStep{1};    // beyond, the wall clock was set

    using Clock = std::chrono::steady_clock;
    using Waiting = WaitingEntry;

    Implementation(const std::filesystem::path& directory, Limits atFirst, ClockFunction time);
    ~Implementation();

    void push(Waiting&& waiting);
    void observe(const Now& now);
    void watch(std::vector<Group>&& groups);
    WallTime wallNow() const {
        return clock_().wall;
    }

    StoredState initial;
    std::optional<StoredState> takeLate();

    // Any thread.
    std::atomic<int64_t> reservedTo{0};
    std::atomic<int64_t> givenTo{0};
    std::atomic<bool> retainNow{false};
    std::mutex limitsMutex;
    Limits limits;  // under limitsMutex
    BoundedQueue<EventQuestion> questions{kQueryQueue};
    std::atomic<uint64_t> written{0};
    std::atomic<uint64_t> dropped{0};
    std::atomic<uint64_t> waitingCount{0};
    std::atomic<uint64_t> bytes{0};
    std::atomic<bool> failing{false};
    std::atomic<int> meterKnown{-1};  // as it was told last; -1: never

  private:
    void run();
    bool finished();
    std::deque<Waiting> nextBatch(Clock::time_point until);
    void putBack(std::deque<Waiting>&& batch);
    void tellWaiting(std::deque<Waiting>& batch, const std::string& problem);
    void trim();

    void open();
    void connect();
    void clearPlace();
    void openAtStart();
    StoredState readFirst();
    StoredState restore(Carried&& stored);
    void readLate(StoredState&& state);
    void keepReserved();
    void finish();
    std::chrono::milliseconds ranSoFar() const;
    void works();
    void putAsideIfDamaged();
    void leaveIfRemoved();
    void write(std::deque<Waiting>& batch);
    void carryOver();
    void makeUp();
    void retain();
    void failed(const DatabaseError& error);
    void setAside(const std::string& problem, std::string_view why);
    std::string startAnew(const std::string& problem, std::string_view why);

    void runQueries();
    std::string read(const EventQuestion& question);
    void noteTimes();
    void forgetTimes();
    void startCheck();
    void stopCheck();
    void foundDamage(const std::string& problem);

    const std::filesystem::path file_;
    const ClockFunction clock_;
    Patience patience_;

    std::mutex mutex_;  // guards all down to closing_; no lock is taken while it is held
    std::condition_variable changed_;
    std::deque<Waiting> queue_;
    Carried known_;       // by all that was recorded, whether it is written or not
    bool lost_ = false;   // the file may lack some of that: an event that said so was dropped
    std::string damage_;  // found while reading; empty for none
    std::optional<StoredState> late_;
    std::deque<Span> observed_;             // newest kObservedSpans that may not be on the disk yet
    std::optional<Now> observedAt_;         // the last of them was extended then; nothing: it is ended
    std::vector<Span> observedDue_;         // to be written behind the events that were taken
    std::vector<Group> watched_;            // by what the station said last
    std::optional<WallTime> watchedSince_;  // and when, while the file may not have it
    bool toldWatched_ = false;
    int64_t lastId_ = 0;  // the highest that was recorded
    bool closing_ = false;
    bool ending_ = false;       // nobody may wait for the file for long any more
    bool firstDone_ = false;    // `initial` is what was read
    bool firstMissed_ = false;  // the constructor did not wait for it

    std::atomic<bool> opening_{true};  // for the first time

    // The store's thread.
    std::optional<EventDatabase> database_;
    bool read_ = false;    // what the file had is taken up
    int meterNoted_ = -1;  // likewise, as the file has it
    DatabasePlace place_;
    std::chrono::milliseconds ranBefore_{0};  // until the file was opened
    SteadyTime ranSince_{};
    SteadyTime ageAt_{};  // of the next note
    LogOnChange problem_;
    Clock::time_point retryAt_{};
    Clock::time_point retentionAt_{};
    Clock::time_point noteObservedAt_{};
    std::size_t writtenSinceRetention_ = 0;
    Clock::time_point closeBy_ = Clock::time_point::max();

    std::mutex readerMutex_;  // guards reader_; held while a query runs; nests outside mutex_
    std::atomic<bool> stopReading_{false};
    std::optional<EventReader> reader_;
    std::atomic<bool> stopCheck_{false};
    std::thread checker_, queries_, writer_;
};

}  // namespace station
