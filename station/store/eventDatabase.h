// The tables of events.db and what is asked of them. Failures are DatabaseErrors.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "store/event.h"
#include "store/sqlite.h"

namespace station {

struct RemoveMaintenance {
    int64_t id;
};
using StoreEntry = std::variant<Event, Maintenance, RemoveMaintenance>;

// An alarm that is raised and not cleared, by its events.
struct ActiveEvents {
    Event raised;
    std::optional<Event> acknowledged;  // the latest
};

// What outlives a file that had to be put aside, by alarm and window id.
struct Carried {
    std::map<int64_t, ActiveEvents> active;
    std::map<int64_t, Maintenance> maintenance;

    void take(const StoreEntry& entry);  // an entry that was written
};

// Whether losing the entry would lose an alarm, what was said about one, or a window.
bool isDurable(const StoreEntry& entry);

// The writing side; one thread.
class EventDatabase {
  public:
    static constexpr int64_t kRetentionStep = 600;  // rows deleted in one transaction: some milliseconds

    // Opens or makes the file and brings its schema to the newest version.
    EventDatabase(const std::filesystem::path& file, const Patience& patience);

    // False when the file was removed since it was opened, or another one is in its place: what is written
    // goes nowhere.
    bool inPlace() const;

    int64_t lastId();  // given or reserved so far
    void reserve(int64_t id);
    Carried load();
    // All entries or none; synced to the disk before it returns when one of them is durable.
    void write(std::span<const StoreEntry* const> entries);
    // Makes these the active alarms and windows, whatever the file had.
    void carryOver(const Carried& carried);
    // How long stations ran with this file, by a clock that is never set. note() keeps it, with the newest
    // event's id: so the age of events is known, whatever the time that they bear.
    std::chrono::milliseconds ran();
    void noteRan(std::chrono::milliseconds ran);
    // Deletes up to kRetentionStep events that were there when stations had run for `ran`, or that are beyond
    // `rows`, and none that belongs to an active alarm. True when there may be more.
    bool retain(std::chrono::milliseconds ran, uint64_t rows);

  private:
    void insert(const StoreEntry& entry);
    void insertEvent(const Event& event);
    void keepActive(const Event& event);
    void beginSynchronous(bool full);
    int64_t number(const char* name);

    const std::filesystem::path file_;
    Database database_;
    struct stat identity_ {};
    Statement insertEvent_, raise_, clear_, acknowledge_, putMaintenance_, removeMaintenance_;
    Statement deleteOld_, deleteExcess_, setNumber_;
    std::optional<uint64_t> rows_;  // counted when first needed
    std::optional<bool> full_;      // synchronous as it was set last
};

// The reading side; one thread, beside the writing one.
class EventReader {
  public:
    // `stop` ends what is under way; it has to outlive the reader.
    EventReader(const std::filesystem::path& file, const std::atomic<bool>& stop, const Patience& patience);

    // Newest first. One that takes longer than kQueryTime is given up (kStopped).
    std::vector<Event> query(const EventFilter& filter);
    // Reads the whole file: what is wrong with it, or nothing.
    std::optional<std::string> damage();

    static constexpr std::chrono::seconds kQueryTime{5};

  private:
    static int progress(void* reader);
    Statement& prepared(const std::string& sql);

    const std::atomic<bool>& stop_;
    SteadyTime deadline_ = SteadyTime::max();
    Database database_;
    std::map<std::string, Statement> statements_;  // one a combination of filters
};

// The query's text, for a filter whose times were turned into bounds of ids.
std::string eventQuery(const EventFilter& filter);

}  // namespace station
