// The tables of events.db and what is asked of them. Failures are DatabaseErrors.
#pragma once

#include <atomic>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "alarms/incidents.h"
#include "alarms/passed.h"
#include "alarms/shelf.h"
#include "store/event.h"
#include "store/report.h"
#include "store/sqlite.h"

namespace station {

struct RemoveMaintenance {
    int64_t id;
    WallTime ended{};  // reports leave its time out up to here; the epoch: it never held
};
struct RemoveShelving {
    int64_t id;
};
struct RemoveIncident {
    int64_t id;
};
struct RemovePassed {
    int64_t id;
};
using StoreEntry = std::variant<Event, Maintenance, RemoveMaintenance, Shelving, RemoveShelving,
                                IncidentChange, RemoveIncident, PassedAlarm, RemovePassed>;

// An alarm that is raised and not cleared, by its events.
struct ActiveEvents {
    Event raised;
    std::optional<Event> acknowledged;  // the latest
    int64_t incident = 0;               // Alarm::incident
};

// What outlives a file that had to be put aside, by the ids of alarms, windows and so on.
struct Carried {
    std::map<int64_t, ActiveEvents> active;
    std::map<int64_t, Maintenance> maintenance;
    std::map<int64_t, Shelving> shelved;
    std::map<int64_t, Incident> incidents;
    std::map<int64_t, PassedAlarm> passed;

    void apply(const StoreEntry& entry);       // one behind those taken before
    void applyState(const StoreEntry& entry);  // of what is shelved, of incidents, of what passed
};

// Whether losing the entry would lose an alarm, what was said about one, or a window.
bool isDurable(const StoreEntry& entry);

// The writing side; one thread.
class EventDatabase {
  public:
    static constexpr int64_t kRetentionStep = 600;  // rows deleted in one transaction: some milliseconds
    static constexpr uint64_t kCueShare = 4;        // one in so many rows may be a cue

    // Opens or makes the file and brings its schema to the newest version.
    EventDatabase(const std::filesystem::path& file, const Patience& patience);

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
    // `rows`, and none that belongs to an active alarm; of cues those beyond kCueShare. True when there may
    // be more.
    bool retain(std::chrono::milliseconds ran, uint64_t rows);

    // Whether a meter was there once.
    bool meterKnown();
    void noteMeter(bool known);

    // In these times snapshots came. A span whose begin is there already grows.
    void noteObserved(std::span<const Span> spans);
    // These groups are watched from `now` on, and no others.
    void noteWatched(std::span<const Group> groups, WallTime now);

    // Newest of each that are kept, for reports; beyond, the oldest are deleted.
    static constexpr int64_t kObservedRows = 100'000;
    static constexpr int64_t kWatchedRows = 100'000;
    static constexpr int64_t kPastWindows = 100'000;

  private:
    int64_t deleteEvents(Statement& statement);
    int64_t deleteCues(uint64_t rows, int64_t limit);
    void insert(const StoreEntry& entry);
    void insertEvent(const Event& event);
    void keepActive(const Event& event);
    void insertWindow(const Maintenance& window);
    // Of what is shelved, of incidents, of what passed.
    void prepareState();
    void insertState(const StoreEntry& entry);
    void loadState(Carried& carried);
    void carryState(const Carried& carried);
    void insertShelving(const Shelving& shelving);
    void insertIncident(const Incident& incident);
    void insertPassed(const PassedAlarm& alarm);
    void beginSynchronous(bool full);
    int64_t number(const char* name);
    void noteForgotten(Statement& rows, const char* name);

    Database database_;
    Statement insertEvent_, raise_, clear_, acknowledge_, putMaintenance_, removeMaintenance_;
    Statement putShelving_, removeShelving_, putIncident_, removeIncident_, joinIncident_;
    Statement putPassed_, removePassed_;
    Statement deleteOld_, deleteExcess_, deleteCues_, setNumber_, keepPast_;
    std::optional<uint64_t> rows_;  // counted when first needed
    uint64_t cues_ = 0;             // of them, with them
    std::optional<bool> full_;      // synchronous as it was set last
};

// The reading side; one thread, beside the writing one.
class EventReader {
  public:
    // `stop` ends what is under way; it has to outlive the reader.
    EventReader(const std::filesystem::path& file, const std::atomic<bool>& stop, const Patience& patience);

    // Newest first. One that takes longer than kQueryTime is given up (kStopped).
    std::vector<Event> query(const EventFilter& filter);
    // What a report is made of. Given up (kStopped) when there are more than kReportAlarms alarms, or when it
    // takes longer than kQueryTime.
    ReportRows reportRows(const ReportQuestion& question);
    // Reads the whole file: what is wrong with it, or nothing.
    std::optional<std::string> damage();

    static constexpr std::chrono::seconds kQueryTime{5};
    static constexpr std::size_t kReportAlarms = 200'000;  // some 15 MB

  private:
    static int progress(void* reader);
    Statement& prepared(const std::string& sql);
    void readAlarms(const ReportQuestion& question, ReportRows& rows);

    const std::atomic<bool>& stop_;
    SteadyTime deadline_ = SteadyTime::max();
    Database database_;
    std::map<std::string, Statement> statements_;  // one a combination of filters
};

// The query's text, for a filter whose times were turned into bounds of ids.
std::string eventQuery(const EventFilter& filter);

}  // namespace station
