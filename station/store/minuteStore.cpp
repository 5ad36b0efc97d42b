#include "store/minuteStore.h"

#include <sys/prctl.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <unordered_map>

namespace station {

namespace {

using Clock = std::chrono::steady_clock;

// Bounds what is given while nobody takes it from the queue: the store's thread hangs in the disk.
constexpr std::size_t kGiven = 600'000;  // minutes of channels: an hour of 10,000
constexpr int kPruneSteps = 20;          // a look
constexpr int64_t kSecondsPerDay = 86'400;
constexpr uint64_t kMegabyte = 1'000'000;

int64_t secondsOf(WallTime time) {
    return std::chrono::floor<std::chrono::seconds>(time.time_since_epoch()).count();
}

std::size_t countMinutes(const std::vector<ChannelMinutes>& all) {
    std::size_t count = 0;
    for (const ChannelMinutes& one : all) {
        count += one.minutes.size();
    }
    return count;
}

}  // namespace

MinuteStore::MinuteStore(const std::filesystem::path& stateDirectory, Limits limits,
                         std::function<Now()> clock, std::function<void()> wake)
    : file_(stateDirectory / "history.db"),
      clock_(std::move(clock)),
      wake_(std::move(wake)),
      limits_(limits),
      place_(file_),
      thread_([this] { run(); }) {}

MinuteStore::~MinuteStore() {
    patience_.endAt(Clock::now() + kClosing);
    {
        const std::lock_guard lock(mutex_);
        closing_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

// Any thread.

void MinuteStore::setLimits(Limits limits) {
    const std::lock_guard lock(mutex_);
    limits_ = limits;
}

void MinuteStore::take(std::vector<ChannelMinutes>&& minutes) {
    {
        const std::lock_guard lock(mutex_);
        if (limits_.days == 0) {
            return;
        }
        if (countMinutes(given_) + countMinutes(minutes) > kGiven) {
            statistics_.dropped += countMinutes(given_);
            given_.clear();
        }
        std::ranges::move(minutes, std::back_inserter(given_));
    }
    changed_.notify_all();
}

void MinuteStore::restore(const std::vector<Group>& groups, WallTime since) {
    {
        const std::lock_guard lock(mutex_);
        if (limits_.days == 0 || groups.empty()) {
            return;
        }
        wantedSince_ = wanted_.empty() ? since : std::min(wantedSince_, since);
        wanted_.insert(groups.begin(), groups.end());
    }
    changed_.notify_all();
}

std::vector<ChannelMinutes> MinuteStore::takeRestored() {
    std::vector<ChannelMinutes> part;
    {
        const std::lock_guard lock(mutex_);
        part.swap(restored_);
    }
    changed_.notify_all();
    return part;
}

bool MinuteStore::enqueue(Query&& query) {
    {
        const std::lock_guard lock(mutex_);
        if (queries_.size() >= kQueries || closing_) {
            return false;
        }
        queries_.push_back(std::move(query));
    }
    changed_.notify_all();
    return true;
}

bool MinuteStore::query(const Group& group, WallTime since, WallTime until, Answer answer) {
    return enqueue(
        {.run = [this, group, since, until, answer] { answer(read(group, since, until), ""); },
         .refuse = [answer = std::move(answer)](const std::string& problem) { answer({}, problem); }});
}

bool MinuteStore::queryLosses(LossQuestion&& question, LossAnswer answer) {
    const auto shared = std::make_shared<const LossQuestion>(std::move(question));
    return enqueue(
        {.run = [this, shared, answer] { sumLosses(*shared, answer); },
         .refuse = [answer = std::move(answer)](const std::string& problem) { answer({}, problem); }});
}

MinuteStore::Statistics MinuteStore::statistics() const {
    const std::lock_guard lock(mutex_);
    return statistics_;
}

// The store's thread.

void MinuteStore::run() {
    prctl(PR_SET_NAME, "history-store");
    for (bool last = false; !last;) {
        std::deque<Query> queries;
        std::vector<ChannelMinutes> given;
        {
            std::unique_lock lock(mutex_);
            changed_.wait_for(lock, kLooks, [this] {
                // Without a file, or while a part waits to be taken, there is nothing to restore.
                return closing_ || !given_.empty() || !queries_.empty() ||
                       (restoring_ ? database_ && restored_.empty() : !wanted_.empty());
            });
            last = closing_;
            queries.swap(queries_);
            given.swap(given_);
            if (!wanted_.empty() && !restoring_) {
                restoring_ = {std::exchange(wanted_, {}), MinuteDatabase::rowOf(secondsOf(wantedSince_))};
            }
        }
        sort(std::move(given));
        const auto attempt = [&] {
            try {
                work(queries);
                write(last);
                return true;
            } catch (const DatabaseError& error) {
                return !failed(error);
            }
        };
        if (!attempt()) {
            attempt();  // with a new file
        }
        for (const Query& query : queries) {
            query.refuse("history.db cannot be read: " + statistics().problem);
        }
    }
}

void MinuteStore::sort(std::vector<ChannelMinutes>&& minutes) {
    for (ChannelMinutes& one : minutes) {
        for (const past::MinuteRecord& minute : one.minutes) {
            waiting_[MinuteDatabase::rowOf(minute.wall)][one.group].push_back(minute);
        }
    }
    while (waiting_.size() > kWaiting) {
        uint64_t dropped = 0;
        for (const auto& [group, oldest] : waiting_.begin()->second) {
            dropped += oldest.size();
        }
        waiting_.erase(waiting_.begin());
        const std::lock_guard lock(mutex_);
        statistics_.dropped += dropped;
    }
}

// Answers queries, and takes those out that it answered.
void MinuteStore::work(std::deque<Query>& queries) {
    Limits limits;
    {
        const std::lock_guard lock(mutex_);
        limits = limits_;
    }
    if (limits.days == 0) {
        database_.reset();
        waiting_.clear();
        restoring_.reset();
        for (; !queries.empty(); queries.pop_front()) {
            queries.front().refuse("");  // nothing is kept
        }
        return;
    }
    if (database_ && !place_.inPlace()) {
        log(LogLevel::kError,
            file_.string() + " was removed or replaced while it was in use: a new one is begun");
        database_.reset();
    }
    if (!database_) {
        if (Clock::now() < retryAt_ && !closing()) {
            return;
        }
        open();
    }
    for (; !queries.empty(); queries.pop_front()) {
        queries.front().run();
    }
    restorePart();
    prune();
}

bool MinuteStore::closing() const {
    const std::lock_guard lock(mutex_);
    return closing_;
}

void MinuteStore::open() {
    std::error_code ignored;  // what is wrong shows when the file is opened
    std::filesystem::create_directories(file_.parent_path(), ignored);
    if (const std::string aside = read_ ? place_.clear() : ""; !aside.empty()) {
        log(LogLevel::kError, file_.string() + " is another file than the one in use: put aside as " + aside);
    }
    database_.emplace(file_, patience_);
    place_.opened();
    read_ = true;
    trouble_.resolved(file_.string() + " can be written again");
    const uint64_t bytes = databaseBytes(file_);
    const std::lock_guard lock(mutex_);
    statistics_.problem.clear();
    statistics_.bytes = bytes;
}

// What is complete, or all.
void MinuteStore::write(bool all) {
    const int64_t current = MinuteDatabase::rowOf(secondsOf(clock_().wall));
    while (database_ && !waiting_.empty() && (all || waiting_.begin()->first < current)) {
        database_->write(waiting_.begin()->first, waiting_.begin()->second);
        waiting_.erase(waiting_.begin());
        const uint64_t bytes = databaseBytes(file_);
        const std::lock_guard lock(mutex_);
        statistics_.bytes = bytes;
    }
}

// Too old, or too much.
void MinuteStore::prune() {
    Limits limits;
    {
        const std::lock_guard lock(mutex_);
        limits = limits_;
    }
    const int64_t oldest = secondsOf(clock_().wall) - limits.days * kSecondsPerDay;
    for (int step = 0; step < kPruneSteps && database_->deleteSome(MinuteDatabase::rowOf(oldest), false);
         ++step) {
    }
    for (int step = 0; step < kPruneSteps && database_->bytesInUse() > limits.megabytes * kMegabyte; ++step) {
        const auto row = database_->oldestRow();
        if (!row) {
            return;
        }
        database_->deleteSome(*row, true);
    }
}

// The next part of what is wanted, once the last one was taken.
void MinuteStore::restorePart() {
    {
        const std::lock_guard lock(mutex_);
        if (!restoring_ || !restored_.empty()) {
            return;
        }
    }
    const int64_t newest = MinuteDatabase::rowOf(secondsOf(clock_().wall));
    std::vector<ChannelMinutes> part;
    while (part.size() < kRestoredAtOnce && restoring_->next <= newest) {
        const auto waits = waiting_.find(restoring_->next);
        for (const Group& group : restoring_->groups) {
            Minutes minutes;
            database_->read(restoring_->next, group, minutes);
            if (waits != waiting_.end() && waits->second.contains(group)) {
                std::ranges::copy(waits->second.at(group), std::back_inserter(minutes));
            }
            if (!minutes.empty()) {
                part.push_back({group, std::move(minutes)});
            }
        }
        ++restoring_->next;
    }
    if (restoring_->next > newest) {
        restoring_.reset();
    }
    if (part.empty()) {
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        restored_ = std::move(part);
    }
    wake_();
}

std::pair<int64_t, int64_t> MinuteStore::rowsOf(WallTime since, WallTime until) {
    const int64_t to = std::min(secondsOf(until), secondsOf(clock_().wall) + MinuteDatabase::kRowSeconds);
    int64_t oldest = database_->oldestRow().value_or(MinuteDatabase::rowOf(to));
    if (!waiting_.empty()) {
        oldest = std::min(oldest, waiting_.begin()->first);
    }
    return {std::max(MinuteDatabase::rowOf(secondsOf(since)), oldest), MinuteDatabase::rowOf(to)};
}

Minutes MinuteStore::read(const Group& group, WallTime since, WallTime until) {
    Minutes minutes;
    const auto [first, last] = rowsOf(since, until);
    for (int64_t row = first; row <= last; ++row) {
        database_->read(row, group, minutes);
        const auto waits = waiting_.find(row);
        if (waits != waiting_.end() && waits->second.contains(group)) {
            std::ranges::copy(waits->second.at(group), std::back_inserter(minutes));
        }
    }
    std::erase_if(minutes,
                  [from = secondsOf(since), to = secondsOf(until)](const past::MinuteRecord& minute) {
                      return int64_t{minute.wall} < from || int64_t{minute.wall} >= to;
                  });
    std::ranges::stable_sort(minutes, {}, &past::MinuteRecord::wall);
    return minutes;
}

void MinuteStore::sumLosses(const LossQuestion& question, const LossAnswer& answer) {
    const HistoryMetric lost = historyMetric("packetsLost");
    const HistoryMetric received = historyMetric("packetsReceived");
    const SteadyTime deadline = Clock::now() + kLossTime;
    std::unordered_map<uint32_t, const std::pair<const Group, Spans>*> asked;
    for (const auto& one : question.counted) {
        asked.emplace(one.first.hostOrder(), &one);
    }
    LossSums sums;
    const auto add = [&](uint32_t address, const Minutes& minutes) {
        const auto found = asked.find(address);
        if (found == asked.end()) {
            return;
        }
        const auto& [group, counted] = *found->second;
        const auto losses = pointsOf(minutes, lost);
        const auto received_ = pointsOf(minutes, received);
        for (std::size_t i = 0; i < losses.size(); ++i) {
            const WallTime begin = losses[i].time;
            if (std::isfinite(losses[i].mean) && std::isfinite(received_[i].mean) &&
                counted.covers({begin, begin + std::chrono::minutes(1)})) {
                sums[group].add(begin, static_cast<uint64_t>(losses[i].mean),
                                static_cast<uint64_t>(received_[i].mean));
            }
        }
    };
    const auto [first, last] = rowsOf(question.time.from, question.time.until);
    for (int64_t row = first; row <= last; ++row) {
        if (closing() || Clock::now() > deadline) {
            return answer({}, "Its minutes are too many to be read within " +
                                  std::to_string(kLossTime.count()) + " s; ask for a shorter time");
        }
        database_->readAll(row, add);
        if (const auto waits = waiting_.find(row); waits != waiting_.end()) {
            for (const auto& [group, minutes] : waits->second) {
                add(group.hostOrder(), minutes);
            }
        }
    }
    answer(std::move(sums), "");
}

// Whether it was put aside: there is room for a new file.
bool MinuteStore::failed(const DatabaseError& error) {
    database_.reset();
    retryAt_ = Clock::now() + kRetry;
    restoring_.reset();
    const bool damaged = error.kind() == DatabaseError::Kind::kDamaged;
    if (damaged || error.kind() == DatabaseError::Kind::kNewer) {
        const std::string aside = putAside(file_, damaged ? "damaged" : "newer");
        if (!aside.empty()) {
            retryAt_ = {};
            log(LogLevel::kError, file_.string() + " cannot be used (" + error.what() + "): put aside as " +
                                      aside + ", a new file is begun");
            return true;
        }
    }
    {
        const std::lock_guard lock(mutex_);
        statistics_.problem = error.what();
    }
    trouble_.say(LogLevel::kError, file_.string() + " cannot be written (" + error.what() +
                                       "): plots go on in memory and would begin anew with a restart of the "
                                       "station; see to space and permissions of that directory");
    return false;
}

}  // namespace station
