// Events on the disk (SQLite).
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "alarms/incidents.h"
#include "alarms/passed.h"
#include "alarms/shelf.h"
#include "common/clock.h"
#include "configuration/configuration.h"
#include "store/event.h"
#include "store/report.h"

namespace station {

// What was on the disk when it could be read first.
struct StoredState {
    bool loaded = false;                   // false: it could not be read yet, late() will tell
    int64_t lastId = 0;                    // no id up to here may be given again
    std::vector<Alarm> active;             // raised, not cleared
    std::vector<Maintenance> maintenance;  // not ended
    std::vector<Shelving> shelved;         // likewise
    std::vector<Incident> incidents;       // of `active`, `passed` and `shelved`, or of none any more
    std::vector<PassedAlarm> passed;
    bool meterKnown = false;  // a meter was there once
    std::string problem;      // a damaged file was put aside, or the disk cannot be written: one line
};

// Keeps events in `events.db` of the state directory. Threads of its own do all disk work, one writes and one
// answers queries; the calls below only queue, never wait, and may come from any thread. When the disk is
// full, one line is logged, the newest kStoreQueue events are kept in memory and written once it works again.
// A file that cannot be read at the start is read before anything is written to it, whenever that is.
// A damaged file, found when it is opened, by reading all of it after the start, or while it is used, is put
// aside as events.db.damaged-TIME, and the active alarms and maintenance windows go into the new one; so is
// another file that takes its place while it is used, as events.db.replaced-TIME. An event that is dropped is
// not listed any more, but what it said of alarms and windows is in the file as soon as it can be written.
class EventStore {
  public:
    static constexpr std::size_t kStoreQueue =
        20'000;  // events waiting for the disk; beyond, the oldest are dropped
    static constexpr std::size_t kWindowQueue = 2'000;  // beside them, windows and shelvings, begun and ended
    static constexpr std::size_t kQueryQueue = 64;      // queries waiting; beyond, a query fails at once
    static constexpr int64_t kIdBlock = 1'000'000;      // ids reserved ahead

    struct Limits {
        uint32_t keepDays;  // days for which a station ran with them
        uint64_t keepRows;
    };

    // Has its thread open, make, migrate or put aside the file; what takes longer than 5 s comes by late().
    EventStore(const std::filesystem::path& stateDirectory, Limits limits, ClockFunction clock);
    // Writes what is queued, as far as the disk lets it within a second, and ends the thread.
    ~EventStore();
    EventStore(const EventStore&) = delete;

    // As read at the start, if that was not too slow. Called once, by the thread that constructed it.
    const StoredState& initial() const;

    // What the file had, once it could be read, if it could not at the start. Any thread; told once.
    std::optional<StoredState> late();

    // Ids up to this one are reserved on the disk: whatever happens, none of them is given after a restart.
    // Any thread. One beyond has to be above idByTime().
    int64_t reservedTo() const;
    // No id up to here may be given: another file, with ids that nobody knows, was in the place of the own
    // one. 0 for none. Any thread.
    int64_t givenTo() const;

    // Called once on the store's thread: with an empty text when it is on the disk (synchronous FULL), with
    // what is wrong after the first attempt that failed - it is tried again all the same. Not for an event
    // that is dropped.
    using Stored = std::function<void(const std::string& problem)>;
    void record(Event event, Stored stored = {});
    void setLimits(Limits limits);  // looks at once for what they let go

    // Newest first. The answer comes on the thread for queries: the events, or a sentence that says why not.
    // False when too many queries wait; then the answer never comes.
    using QueryAnswer = std::function<void(std::vector<Event>&& events, const std::string& problem)>;
    bool query(const EventFilter& filter, QueryAnswer answer);

    // What a report is made of; as query().
    using ReportAnswer = std::function<void(ReportRows&& rows, const std::string& problem)>;
    bool report(const ReportQuestion& question, ReportAnswer answer);

    // For reports. A snapshot was judged at that time: what it says of alarms is recorded. Once a second;
    // time without is not known, nor what a wall clock that is set skips. A crash costs up to 15 s of it.
    void observed(const Now& now);
    // All groups that are watched from here on; once before the first observed(), then when they change.
    void watched(std::vector<Group> groups);

    // Whether a meter is known, which the next start is told. At once.
    void noteMeter(bool known);

    // Maintenance windows, by id; on the disk like raises, and kept when events are dropped.
    void putMaintenance(const Maintenance& maintenance, Stored stored = {});
    void removeMaintenance(int64_t id, Stored stored = {});

    // What is shelved, incidents, and what passed unseen, by id; likewise. An id that is not there is removed
    // in vain.
    void putShelving(const Shelving& shelving, Stored stored = {});
    void removeShelving(int64_t id, Stored stored = {});
    void putIncident(IncidentChange change);
    void removeIncident(int64_t id);
    void putPassed(const PassedAlarm& alarm);
    void removePassed(int64_t id);

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

// An id above all that were given where the disk cannot tell: events come more slowly than a thousand a
// second in the long run. By chance, where the clock was never set.
int64_t idByTime(WallTime time);

}  // namespace station
