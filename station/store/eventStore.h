// Events on the disk (SQLite).
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "channels/configuration.h"
#include "common/clock.h"
#include "store/event.h"

namespace station {

// What was on the disk at the start.
struct StoredState {
    int64_t lastId = 0;         // of any event so far; the seconds since 1970 when the file cannot tell
    std::vector<Alarm> active;  // raised, not cleared
    std::vector<Maintenance> maintenance;  // not ended
    std::string problem;  // a damaged file was put aside, or the disk cannot be written: one line
};

// Keeps events in `events.db` of the state directory. Threads of its own do all disk work, one writes and one
// answers queries; the calls below only queue, never wait, and may come from any thread. When the disk is
// full, one line is logged, the newest kStoreQueue events are kept in memory and written once it works again.
// A damaged file, found when it is opened, by reading all of it after the start, or while it is used, is put
// aside as events.db.damaged-TIME, and the active alarms and maintenance windows go into the new one.
class EventStore {
  public:
    static constexpr std::size_t kStoreQueue =
        20'000;  // events waiting for the disk; beyond, the oldest are dropped
    static constexpr std::size_t kQueryQueue = 64;  // queries waiting; beyond, a query fails at once

    struct Limits {
        uint32_t keepDays;
        uint64_t keepRows;
    };

    // Opens or creates the file, migrates an older schema, puts a damaged file aside, and starts the thread.
    EventStore(const std::filesystem::path& stateDirectory, Limits limits, ClockFunction clock);
    // Writes what is queued, as far as the disk lets it within a second, and ends the thread.
    ~EventStore();
    EventStore(const EventStore&) = delete;

    // As read when it was opened. Called once, by the thread that constructed it.
    const StoredState& initial() const;

    // Stores an event. Raises, clears and acknowledgements are on the disk (synchronous FULL) when `stored`
    // is called, on the store's thread; `stored` may be empty, and is not called for an event that was
    // dropped.
    void record(Event event, std::function<void(int64_t id)> stored = {});
    void setLimits(Limits limits);

    // Newest first. The answer comes on the thread for queries: the events, or a sentence that says why not.
    // False when too many queries wait; then the answer never comes.
    using QueryAnswer = std::function<void(std::vector<Event>&& events, const std::string& problem)>;
    bool query(const EventFilter& filter, QueryAnswer answer);

    // Maintenance windows, by id; the same guarantee as for raises.
    void putMaintenance(const Maintenance& maintenance);
    void removeMaintenance(int64_t id);

    struct Statistics {
        uint64_t written = 0;
        uint64_t dropped = 0;
        uint64_t waiting = 0;
        uint64_t bytes = 0;    // size of the file and its log
        bool failing = false;  // the disk cannot be written
    };
    Statistics statistics() const;  // any thread

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
