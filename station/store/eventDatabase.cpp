#include "store/eventDatabase.h"

#include <algorithm>
#include <array>

#include "store/eventRows.h"
#include "store/storedTime.h"

namespace station {

namespace {

// Kinds, severities and groups are stored by their names, so that the file can be read by hand and outlives
// any reordering of the enumerations. An index's entries end with the row's id, so each of them also gives
// its rows newest first. `active` says which alarms are raised and not cleared, so that a start does not have
// to look through all events.
constexpr std::array<const char*, 7> kEventSchema = {
    R"(CREATE TABLE events (
         id INTEGER PRIMARY KEY, time INTEGER NOT NULL, kind TEXT NOT NULL, channel_group TEXT,
         channel TEXT NOT NULL, alarm TEXT NOT NULL, alarm_id INTEGER NOT NULL, severity TEXT,
         text TEXT NOT NULL, by_whom TEXT NOT NULL, value REAL, peak REAL, duration_ms INTEGER,
         silenced INTEGER NOT NULL);
       CREATE INDEX events_by_time ON events (time);
       CREATE INDEX events_by_group ON events (channel_group);
       CREATE INDEX events_by_kind ON events (kind);
       CREATE INDEX events_by_severity ON events (severity);)",
    R"(CREATE INDEX events_by_kind_severity ON events (kind, severity);
       CREATE TABLE active (alarm_id INTEGER PRIMARY KEY, acknowledged INTEGER);
       INSERT INTO active SELECT id, NULL FROM events WHERE kind = 'raised' AND id NOT IN
         (SELECT alarm_id FROM events WHERE kind = 'cleared');
       UPDATE active SET acknowledged = (SELECT max(id) FROM events
         WHERE kind = 'acknowledged' AND events.alarm_id = active.alarm_id);
       CREATE TABLE maintenance (
         id INTEGER PRIMARY KEY, from_time INTEGER NOT NULL, until_time INTEGER NOT NULL,
         channel_group TEXT, remark TEXT NOT NULL, by_whom TEXT NOT NULL);)",
    // `ages` has for some ids how long stations had run (ms) when the event was there already. What is there
    // from before is taken for new.
    R"(CREATE TABLE numbers (name TEXT PRIMARY KEY, value INTEGER NOT NULL) WITHOUT ROWID;
       CREATE TABLE ages (id INTEGER PRIMARY KEY, ran INTEGER NOT NULL);
       INSERT INTO ages SELECT max(id), 0 FROM events HAVING max(id) IS NOT NULL;)",
    "ALTER TABLE events ADD COLUMN source TEXT;",
    // For reports: when snapshots came, which groups were watched when (until is null while one is), and
    // windows that held and ended.
    R"(CREATE TABLE observed (began INTEGER PRIMARY KEY, until INTEGER NOT NULL);
       CREATE TABLE watched (id INTEGER PRIMARY KEY, channel_group TEXT NOT NULL, began INTEGER NOT NULL,
         until INTEGER);
       CREATE TABLE past_maintenance (id INTEGER PRIMARY KEY, from_time INTEGER NOT NULL,
         until_time INTEGER NOT NULL, channel_group TEXT);)",
    // A window's groups are separated by spaces. What is shelved, incidents with alarms that are raised or
    // passed, or by which something is shelved, and what passed unseen.
    R"(ALTER TABLE events ADD COLUMN until INTEGER;
       ALTER TABLE maintenance ADD COLUMN about TEXT NOT NULL DEFAULT '';
       ALTER TABLE active ADD COLUMN incident INTEGER;
       CREATE TABLE shelved (id INTEGER PRIMARY KEY, alarm TEXT NOT NULL, channel_group TEXT,
         since INTEGER NOT NULL, until_time INTEGER NOT NULL, by_whom TEXT NOT NULL, remark TEXT NOT NULL);
       CREATE TABLE incidents (id INTEGER PRIMARY KEY, began INTEGER NOT NULL, last INTEGER NOT NULL,
         kind TEXT NOT NULL, name TEXT NOT NULL, value TEXT NOT NULL, alarms INTEGER NOT NULL,
         channels INTEGER NOT NULL, covered INTEGER NOT NULL, first_alarm TEXT NOT NULL, first_group TEXT,
         first_text TEXT NOT NULL);
       CREATE TABLE passed (id INTEGER PRIMARY KEY, alarm TEXT NOT NULL, channel_group TEXT,
         severity TEXT NOT NULL, raised INTEGER NOT NULL, cleared INTEGER NOT NULL, times INTEGER NOT NULL,
         text TEXT NOT NULL);)",
    R"(ALTER TABLE shelved ADD COLUMN incident INTEGER NOT NULL DEFAULT 0;
       ALTER TABLE passed ADD COLUMN incident INTEGER NOT NULL DEFAULT 0;
       ALTER TABLE incidents ADD COLUMN over INTEGER;)",
};

// What retention may delete. The newest event stays, since the next id follows from it.
constexpr std::string_view kMayGo =
    "id < (SELECT max(id) FROM events) AND id NOT IN (SELECT alarm_id FROM active) AND "
    "id NOT IN (SELECT acknowledged FROM active WHERE acknowledged IS NOT NULL)";

std::optional<std::string> groupText(const std::optional<Group>& group) {
    return group ? std::optional(group->text()) : std::nullopt;
}

}  // namespace

void Carried::apply(const StoreEntry& entry) {
    if (const auto* event = std::get_if<Event>(&entry)) {
        const auto alarm = active.find(event->alarmId);
        if (event->kind == EventKind::kRaised) {
            active[event->id] = {*event, std::nullopt};
        } else if (event->kind == EventKind::kCleared && alarm != active.end()) {
            active.erase(alarm);
        } else if (event->kind == EventKind::kAcknowledged && alarm != active.end()) {
            alarm->second.acknowledged = *event;
        } else if (event->kind == EventKind::kUnacknowledged && alarm != active.end()) {
            alarm->second.acknowledged.reset();
        }
    } else if (const auto* window = std::get_if<Maintenance>(&entry)) {
        maintenance[window->id] = *window;
    } else if (const auto* ended = std::get_if<RemoveMaintenance>(&entry)) {
        maintenance.erase(ended->id);
    } else {
        applyState(entry);
    }
}

bool isDurable(const StoreEntry& entry) {
    const auto* event = std::get_if<Event>(&entry);
    return event == nullptr || event->kind == EventKind::kRaised || event->kind == EventKind::kCleared ||
           event->kind == EventKind::kAcknowledged || event->kind == EventKind::kUnacknowledged ||
           event->kind == EventKind::kHappened;
}

EventDatabase::EventDatabase(const std::filesystem::path& file, const Patience& patience)
    : database_(file, Database::Mode::kReadWrite, patience) {
    migrate(database_, kEventSchema);
    insertEvent_ = database_.prepare("INSERT OR REPLACE INTO events (" + std::string(kEventColumns) +
                                     ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    raise_ = database_.prepare("INSERT OR REPLACE INTO active (alarm_id, acknowledged) VALUES (?, NULL)");
    clear_ = database_.prepare("DELETE FROM active WHERE alarm_id = ?");
    acknowledge_ = database_.prepare("UPDATE active SET acknowledged = ? WHERE alarm_id = ?");
    putMaintenance_ = database_.prepare(
        "INSERT OR REPLACE INTO maintenance (id, from_time, until_time, channel_group, remark, by_whom, "
        "about) VALUES (?, ?, ?, ?, ?, ?, ?)");
    removeMaintenance_ = database_.prepare("DELETE FROM maintenance WHERE id = ?");
    prepareState();
    const std::string inSteps = "DELETE FROM events WHERE id IN (SELECT id FROM events WHERE ";
    deleteOld_ = database_.prepare(inSteps + "id <= (SELECT max(id) FROM ages WHERE ran <= ?) AND " +
                                   std::string(kMayGo) + " ORDER BY id LIMIT ?) RETURNING id, time, kind");
    deleteCues_ = database_.prepare(
        "DELETE FROM events WHERE id IN (SELECT id FROM events INDEXED BY events_by_kind WHERE kind = 'cue' "
        "AND "
        "id < (SELECT max(id) FROM events) ORDER BY id LIMIT ?) RETURNING id");
    setNumber_ = database_.prepare("INSERT OR REPLACE INTO numbers (name, value) VALUES (?, ?)");
    deleteExcess_ =
        database_.prepare(inSteps + std::string(kMayGo) + " ORDER BY id LIMIT ?) RETURNING id, time, kind");
    keepPast_ = database_.prepare(
        "INSERT OR REPLACE INTO past_maintenance SELECT id, from_time, min(until_time, ?2), channel_group "
        "FROM maintenance WHERE id = ?1 AND from_time < ?2");
}

int64_t EventDatabase::lastId() {
    return std::max(database_.integer("SELECT max(id) FROM events"), number("reserved"));
}

int64_t EventDatabase::number(const char* name) {
    return database_.integer("SELECT value FROM numbers WHERE name = '" + std::string(name) + "'");
}

bool EventDatabase::meterKnown() {
    return number("meter") != 0;
}

void EventDatabase::noteMeter(bool known) {
    beginSynchronous(false);
    setNumber_.bind(1, std::string_view("meter")).bind(2, static_cast<int64_t>(known)).run();
}

void EventDatabase::reserve(int64_t id) {
    beginSynchronous(true);
    setNumber_.bind(1, std::string_view("reserved")).bind(2, id).run();
}

std::chrono::milliseconds EventDatabase::ran() {
    return std::chrono::milliseconds(number("ran"));
}

void EventDatabase::noteRan(std::chrono::milliseconds ran) {
    beginSynchronous(false);
    Transaction transaction(database_);
    setNumber_.bind(1, std::string_view("ran")).bind(2, static_cast<int64_t>(ran.count())).run();
    Statement note = database_.prepare(
        "INSERT INTO ages SELECT max(id), ? FROM events WHERE id > (SELECT coalesce(max(id), 0) FROM ages) "
        "HAVING max(id) IS NOT NULL");
    note.bind(1, static_cast<int64_t>(ran.count())).run();
    transaction.commit();
}

Carried EventDatabase::load() {
    Carried carried;
    const std::string active = "SELECT " + std::string(kEventColumns) + " FROM events WHERE id IN ";
    Statement raised = database_.prepare(active + "(SELECT alarm_id FROM active)");
    while (raised.step()) {
        if (std::optional<Event> event = readEvent(raised)) {
            carried.active[event->id].raised = std::move(*event);
        }
    }
    Statement acknowledged = database_.prepare(active + "(SELECT acknowledged FROM active)");
    while (acknowledged.step()) {
        if (std::optional<Event> event = readEvent(acknowledged)) {
            carried.apply(*event);
        }
    }
    Statement windows = database_.prepare(
        "SELECT id, from_time, until_time, channel_group, remark, by_whom, about FROM maintenance");
    while (windows.step()) {
        Maintenance& window = carried.maintenance[windows.integer(0)];
        window.id = windows.integer(0);
        window.from = wallTime(windows.integer(1));
        window.until = wallTime(windows.integer(2));
        readGroups(windows.text(3), window);
        window.remark = windows.text(4);
        window.by = windows.text(5);
        window.about = windows.text(6);
    }
    loadState(carried);
    return carried;
}

void EventDatabase::beginSynchronous(bool full) {
    if (full_ != full) {  // cannot be set within a transaction
        database_.execute(full ? "PRAGMA synchronous = FULL" : "PRAGMA synchronous = NORMAL");
        full_ = full;
    }
}

void EventDatabase::insertEvent(const Event& event) {
    insertEvent_.bind(1, event.id)
        .bind(2, storedTime(event.time))
        .bind(3, eventKindName(event.kind))
        .bind(4, groupText(event.group))
        .bind(5, event.channel)
        .bind(6, event.alarm)
        .bind(7, event.alarmId)
        .bind(8, event.severity ? std::optional(severityName(*event.severity)) : std::nullopt)
        .bind(9, event.text)
        .bind(10, event.by)
        .bind(11, event.value)
        .bind(12, event.peak)
        .bind(13, event.duration ? std::optional<int64_t>(event.duration->count()) : std::nullopt)
        .bind(14, static_cast<int64_t>(event.silenced))
        .bind(15, event.source ? std::optional(std::string(sourceName(*event.source))) : std::nullopt)
        .bind(16, event.until ? std::optional(storedTime(*event.until)) : std::nullopt);
    insertEvent_.run();
}

void EventDatabase::keepActive(const Event& event) {
    if (event.kind == EventKind::kRaised) {
        raise_.bind(1, event.id).run();
    } else if (event.kind == EventKind::kCleared) {
        clear_.bind(1, event.alarmId).run();
    } else if (event.kind == EventKind::kAcknowledged) {
        acknowledge_.bind(1, event.id).bind(2, event.alarmId).run();
    } else if (event.kind == EventKind::kUnacknowledged) {
        acknowledge_.bind(1, std::optional<int64_t>()).bind(2, event.alarmId).run();
    }
}

void EventDatabase::insertWindow(const Maintenance& window) {
    putMaintenance_.bind(1, window.id)
        .bind(2, storedTime(window.from))
        .bind(3, storedTime(window.until))
        .bind(4, groupsText(window))
        .bind(5, window.remark)
        .bind(6, window.by)
        .bind(7, window.about)
        .run();
}

void EventDatabase::insert(const StoreEntry& entry) {
    if (const auto* event = std::get_if<Event>(&entry)) {
        insertEvent(*event);
        keepActive(*event);
    } else if (const auto* window = std::get_if<Maintenance>(&entry)) {
        insertWindow(*window);
    } else if (const auto* removed = std::get_if<RemoveMaintenance>(&entry)) {
        keepPast_.bind(1, removed->id).bind(2, storedTime(removed->ended)).run();
        removeMaintenance_.bind(1, removed->id).run();
    } else {
        insertState(entry);
    }
}

void EventDatabase::write(std::span<const StoreEntry* const> entries) {
    beginSynchronous(std::ranges::any_of(entries, [](const StoreEntry* entry) { return isDurable(*entry); }));
    Transaction transaction(database_);
    uint64_t events = 0;
    uint64_t cues = 0;
    for (const StoreEntry* entry : entries) {
        insert(*entry);
        const auto* const event = std::get_if<Event>(entry);
        events += event != nullptr ? 1 : 0;
        cues += event != nullptr && event->kind == EventKind::kCue ? 1 : 0;
    }
    transaction.commit();
    if (rows_) {
        *rows_ += events;
        cues_ += cues;
    }
}

void EventDatabase::carryOver(const Carried& carried) {
    beginSynchronous(true);
    Transaction transaction(database_);
    database_.execute(
        "INSERT OR REPLACE INTO past_maintenance SELECT id, from_time, until_time, channel_group "
        "FROM maintenance; DELETE FROM active; DELETE FROM maintenance;");
    for (const auto& [id, alarm] : carried.active) {
        insert(alarm.raised);
        if (alarm.acknowledged) {
            insert(*alarm.acknowledged);
        }
    }
    for (const auto& [id, window] : carried.maintenance) {
        insert(window);
    }
    carryState(carried);
    database_.execute("DELETE FROM past_maintenance WHERE id IN (SELECT id FROM maintenance)");
    transaction.commit();
    rows_.reset();
}

// Of the time before the newest of them nothing can be told any more.
int64_t EventDatabase::deleteEvents(Statement& statement) {
    int64_t deleted = 0;
    int64_t newest = 0;
    int64_t time = 0;
    for (; statement.step(); ++deleted) {
        cues_ -= cues_ > 0 && statement.text(2) == eventKindName(EventKind::kCue) ? 1 : 0;
        if (statement.integer(0) > newest) {
            newest = statement.integer(0);
            time = statement.integer(1);
        }
    }
    statement.reset();
    if (deleted > 0) {
        setNumber_.bind(1, std::string_view("forgotten")).bind(2, time).run();
    }
    return deleted;
}

// What they said is of no alarm and of no report, so nothing is forgotten with them.
int64_t EventDatabase::deleteCues(uint64_t rows, int64_t limit) {
    const uint64_t most = rows / kCueShare;
    if (cues_ <= most || limit <= 0) {
        return 0;
    }
    deleteCues_.bind(1, std::min(static_cast<int64_t>(cues_ - most), limit));
    int64_t deleted = 0;
    while (deleteCues_.step()) {
        ++deleted;
    }
    deleteCues_.reset();
    cues_ -= static_cast<uint64_t>(deleted);
    return deleted;
}

bool EventDatabase::retain(std::chrono::milliseconds ran, uint64_t rows) {
    if (!rows_) {
        rows_ = static_cast<uint64_t>(database_.integer("SELECT count(*) FROM events"));
        cues_ = static_cast<uint64_t>(
            database_.integer("SELECT count(*) FROM events INDEXED BY events_by_kind WHERE kind = 'cue'"));
    }
    beginSynchronous(false);
    Transaction transaction(database_);
    deleteOld_.bind(1, static_cast<int64_t>(ran.count())).bind(2, kRetentionStep);
    int64_t deleted = deleteEvents(deleteOld_);
    Statement forget =
        database_.prepare("DELETE FROM ages WHERE id < (SELECT max(id) FROM ages WHERE ran <= ?)");
    forget.bind(1, static_cast<int64_t>(ran.count())).run();
    deleted += deleteCues(rows, kRetentionStep - deleted);
    const uint64_t kept = *rows_ - std::min(*rows_, static_cast<uint64_t>(deleted));
    if (kept > rows && deleted < kRetentionStep) {
        const auto excess =
            static_cast<int64_t>(std::min(kept - rows, static_cast<uint64_t>(kRetentionStep - deleted)));
        deleteExcess_.bind(1, excess);
        deleted += deleteEvents(deleteExcess_);
    }
    transaction.commit();
    *rows_ -= std::min(*rows_, static_cast<uint64_t>(deleted));
    return deleted == kRetentionStep;
}

}  // namespace station
