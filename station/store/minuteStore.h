// Keeps the minutes of all channels on the disk, in history.db, on a thread of its own.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "common/clock.h"
#include "common/log.h"
#include "store/lossSum.h"
#include "store/minuteDatabase.h"

namespace station {

struct ChannelMinutes {
    Group group;
    Minutes minutes;  // oldest first
};

// What it is given is written when ten minutes of the clock are complete, and at the end: a power cut costs
// up to ten minutes of the plots. A disk that hangs or is full holds up nobody; beyond kWaiting the oldest
// minutes that wait for it are dropped. A file that is damaged is put aside as history.db.damaged-TIME, one
// that a newer version wrote as .newer-TIME, and a new one is begun; one that is removed or replaced in use
// likewise.
class MinuteStore {
  public:
    struct Limits {
        uint32_t days;       // 0: nothing is kept, and nothing opened
        uint64_t megabytes;  // of 10^6 bytes; beyond, the oldest are deleted
        bool operator==(const Limits&) const = default;
    };
    static constexpr std::size_t kWaiting = 6;                 // tens of minutes that wait for the disk
    static constexpr std::size_t kQueries = 16;                // that wait; beyond, one is refused
    static constexpr std::chrono::seconds kRetry{10};          // after a failure
    static constexpr std::chrono::seconds kLooks{1};           // whether the file is still there
    static constexpr std::chrono::milliseconds kClosing{500};  // for what is left at the end
    static constexpr std::size_t kRestoredAtOnce = 2'000;      // rows
    static constexpr std::chrono::seconds kLossTime{5};        // losses that take longer are given up

    // `wake` is called on the store's thread when takeRestored() has something.
    MinuteStore(const std::filesystem::path& stateDirectory, Limits limits, std::function<Now()> clock,
                std::function<void()> wake);
    ~MinuteStore();  // writes what it has
    MinuteStore(const MinuteStore&) = delete;

    // Any thread; none waits.
    void setLimits(Limits limits);
    void take(std::vector<ChannelMinutes>&& minutes);
    // Wants what there is of these channels since then, in parts, oldest first. What could not be read when
    // it was asked for is not read later.
    void restore(const std::vector<Group>& groups, WallTime since);
    // A part of it. No further part is read before this one is taken.
    std::vector<ChannelMinutes> takeRestored();

    // What there is of a channel, oldest first; an empty problem, or what went wrong. Called on the store's
    // thread.
    using Answer = std::function<void(Minutes&&, const std::string& problem)>;
    // False when too many wait; then there is no answer.
    bool query(const Group& group, WallTime since, WallTime until, Answer answer);

    // Sums of what channels lost, likewise; other queries wait meanwhile.
    bool queryLosses(LossQuestion&& question, LossAnswer answer);

    struct Statistics {
        uint64_t bytes = 0;    // of the file and its log
        uint64_t dropped = 0;  // minutes of channels
        std::string problem;   // empty: it works, or is not wanted
    };
    Statistics statistics() const;

  private:
    struct Query {
        std::function<void()> run;  // throws a DatabaseError
        std::function<void(const std::string& problem)> refuse;
    };
    struct Restoring {
        std::set<Group> groups;
        int64_t next;  // row
    };
    // By row, then group.
    using Waiting = std::map<int64_t, std::map<Group, Minutes>>;

    void run();
    bool closing() const;
    void sort(std::vector<ChannelMinutes>&& minutes);
    void open();
    void work(std::deque<Query>& queries);
    void write(bool all);
    void prune();
    void restorePart();
    bool enqueue(Query&& query);
    // Rows of a time that there may be something of, the last one included.
    std::pair<int64_t, int64_t> rowsOf(WallTime since, WallTime until);
    Minutes read(const Group& group, WallTime since, WallTime until);
    void sumLosses(const LossQuestion& question, const LossAnswer& answer);
    bool failed(const DatabaseError& error);

    const std::filesystem::path file_;
    const std::function<Now()> clock_;
    const std::function<void()> wake_;
    Patience patience_;

    mutable std::mutex mutex_;  // guards all down to closing_; no lock is taken while it is held
    std::condition_variable changed_;
    Limits limits_;
    std::vector<ChannelMinutes> given_;
    std::set<Group> wanted_;  // to be restored
    WallTime wantedSince_{};
    std::vector<ChannelMinutes> restored_;
    std::deque<Query> queries_;
    Statistics statistics_;
    bool closing_ = false;

    // The store's thread.
    Waiting waiting_;
    std::optional<Restoring> restoring_;
    std::optional<MinuteDatabase> database_;
    DatabasePlace place_;
    bool read_ = false;  // the file was open once
    SteadyTime retryAt_{};
    LogOnChange trouble_;
    std::thread thread_;
};

}  // namespace station
