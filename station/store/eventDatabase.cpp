#include "store/eventDatabase.h"

#include <algorithm>
#include <array>
#include <limits>

namespace station {

namespace {

// Kinds, severities and groups are stored by their names, so that the file can be read by hand and outlives
// any reordering of the enumerations. An index's entries end with the row's id, so each of them also gives
// its rows newest first. `active` says which alarms are raised and not cleared, so that a start does not have
// to look through all events.
constexpr std::array<const char*, 3> kSchema = {
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
};

constexpr std::string_view kColumns =
    "id, time, kind, channel_group, channel, alarm, alarm_id, severity, text, by_whom, value, peak, "
    "duration_ms, silenced";

// What retention may delete. The newest event stays, since the next id follows from it.
constexpr std::string_view kMayGo =
    "id < (SELECT max(id) FROM events) AND id NOT IN (SELECT alarm_id FROM active) AND "
    "id NOT IN (SELECT acknowledged FROM active WHERE acknowledged IS NOT NULL)";

int64_t milliseconds(WallTime time) {
    return time.time_since_epoch().count();
}

WallTime wallTime(int64_t milliseconds) {
    return WallTime(std::chrono::milliseconds(milliseconds));
}

std::optional<std::string> groupText(const std::optional<Group>& group) {
    return group ? std::optional(group->text()) : std::nullopt;
}

std::optional<double> optionalReal(const Statement& row, int column) {
    return row.isNull(column) ? std::nullopt : std::optional(row.real(column));
}

// A row of kColumns from that column on; nothing when its kind is unknown.
std::optional<Event> readEvent(const Statement& row, int first = 0) {
    const std::optional<EventKind> kind = parseEventKind(row.text(first + 2));
    if (!kind) {
        return std::nullopt;
    }
    Event event;
    event.id = row.integer(first);
    event.time = wallTime(row.integer(first + 1));
    event.kind = *kind;
    event.group = Group::parse(row.text(first + 3));
    event.channel = row.text(first + 4);
    event.alarm = row.text(first + 5);
    event.alarmId = row.integer(first + 6);
    event.severity = parseSeverity(row.text(first + 7));
    event.text = row.text(first + 8);
    event.by = row.text(first + 9);
    event.value = optionalReal(row, first + 10);
    event.peak = optionalReal(row, first + 11);
    if (!row.isNull(first + 12)) {
        event.duration = std::chrono::milliseconds(row.integer(first + 12));
    }
    event.silenced = row.integer(first + 13) != 0;
    return event;
}

}  // namespace

void Carried::take(const StoreEntry& entry) {
    if (const auto* event = std::get_if<Event>(&entry)) {
        const auto alarm = active.find(event->alarmId);
        if (event->kind == EventKind::kRaised) {
            active[event->id] = {*event, std::nullopt};
        } else if (event->kind == EventKind::kCleared && alarm != active.end()) {
            active.erase(alarm);
        } else if (event->kind == EventKind::kAcknowledged && alarm != active.end()) {
            alarm->second.acknowledged = *event;
        }
    } else if (const auto* window = std::get_if<Maintenance>(&entry)) {
        maintenance[window->id] = *window;
    } else {
        maintenance.erase(std::get<RemoveMaintenance>(entry).id);
    }
}

bool isDurable(const StoreEntry& entry) {
    const auto* event = std::get_if<Event>(&entry);
    return event == nullptr || event->kind == EventKind::kRaised || event->kind == EventKind::kCleared ||
           event->kind == EventKind::kAcknowledged || event->kind == EventKind::kHappened;
}

EventDatabase::EventDatabase(const std::filesystem::path& file, const Patience& patience)
    : file_(file), database_(file, Database::Mode::kReadWrite, patience) {
    migrate(database_, kSchema);
    stat(file.c_str(), &identity_);
    insertEvent_ = database_.prepare("INSERT OR REPLACE INTO events (" + std::string(kColumns) +
                                     ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
    raise_ = database_.prepare("INSERT OR REPLACE INTO active (alarm_id, acknowledged) VALUES (?, NULL)");
    clear_ = database_.prepare("DELETE FROM active WHERE alarm_id = ?");
    acknowledge_ = database_.prepare("UPDATE active SET acknowledged = ? WHERE alarm_id = ?");
    putMaintenance_ = database_.prepare(
        "INSERT OR REPLACE INTO maintenance (id, from_time, until_time, channel_group, remark, by_whom) "
        "VALUES (?, ?, ?, ?, ?, ?)");
    removeMaintenance_ = database_.prepare("DELETE FROM maintenance WHERE id = ?");
    const std::string inSteps = "DELETE FROM events WHERE id IN (SELECT id FROM events WHERE ";
    deleteOld_ = database_.prepare(inSteps + "id <= (SELECT max(id) FROM ages WHERE ran <= ?) AND " +
                                   std::string(kMayGo) + " ORDER BY id LIMIT ?)");
    setNumber_ = database_.prepare("INSERT OR REPLACE INTO numbers (name, value) VALUES (?, ?)");
    deleteExcess_ = database_.prepare(inSteps + std::string(kMayGo) + " ORDER BY id LIMIT ?)");
}

bool EventDatabase::inPlace() const {
    struct stat status {};
    return stat(file_.c_str(), &status) == 0 && status.st_ino == identity_.st_ino &&
           status.st_dev == identity_.st_dev;
}

int64_t EventDatabase::lastId() {
    return std::max(database_.integer("SELECT max(id) FROM events"), number("reserved"));
}

int64_t EventDatabase::number(const char* name) {
    return database_.integer("SELECT value FROM numbers WHERE name = '" + std::string(name) + "'");
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
    const std::string active = "SELECT " + std::string(kColumns) + " FROM events WHERE id IN ";
    Statement raised = database_.prepare(active + "(SELECT alarm_id FROM active)");
    while (raised.step()) {
        if (std::optional<Event> event = readEvent(raised)) {
            carried.active[event->id].raised = std::move(*event);
        }
    }
    Statement acknowledged = database_.prepare(active + "(SELECT acknowledged FROM active)");
    while (acknowledged.step()) {
        if (std::optional<Event> event = readEvent(acknowledged)) {
            carried.take(*event);
        }
    }
    Statement windows = database_.prepare(
        "SELECT id, from_time, until_time, channel_group, remark, by_whom FROM maintenance");
    while (windows.step()) {
        carried.maintenance[windows.integer(0)] = {
            windows.integer(0),
            wallTime(windows.integer(1)),
            wallTime(windows.integer(2)),
            Group::parse(windows.text(3)),
            windows.text(4),
            windows.text(5),
        };
    }
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
        .bind(2, milliseconds(event.time))
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
        .bind(14, static_cast<int64_t>(event.silenced));
    insertEvent_.run();
}

void EventDatabase::keepActive(const Event& event) {
    if (event.kind == EventKind::kRaised) {
        raise_.bind(1, event.id).run();
    } else if (event.kind == EventKind::kCleared) {
        clear_.bind(1, event.alarmId).run();
    } else if (event.kind == EventKind::kAcknowledged) {
        acknowledge_.bind(1, event.id).bind(2, event.alarmId).run();
    }
}

void EventDatabase::insert(const StoreEntry& entry) {
    if (const auto* event = std::get_if<Event>(&entry)) {
        insertEvent(*event);
        keepActive(*event);
    } else if (const auto* window = std::get_if<Maintenance>(&entry)) {
        putMaintenance_.bind(1, window->id)
            .bind(2, milliseconds(window->from))
            .bind(3, milliseconds(window->until))
            .bind(4, groupText(window->group))
            .bind(5, window->remark)
            .bind(6, window->by)
            .run();
    } else {
        removeMaintenance_.bind(1, std::get<RemoveMaintenance>(entry).id).run();
    }
}

void EventDatabase::write(std::span<const StoreEntry* const> entries) {
    beginSynchronous(std::ranges::any_of(entries, [](const StoreEntry* entry) { return isDurable(*entry); }));
    Transaction transaction(database_);
    uint64_t events = 0;
    for (const StoreEntry* entry : entries) {
        insert(*entry);
        events += std::holds_alternative<Event>(*entry) ? 1 : 0;
    }
    transaction.commit();
    if (rows_) {
        *rows_ += events;
    }
}

void EventDatabase::carryOver(const Carried& carried) {
    beginSynchronous(true);
    Transaction transaction(database_);
    database_.execute("DELETE FROM active; DELETE FROM maintenance;");
    for (const auto& [id, alarm] : carried.active) {
        insert(alarm.raised);
        if (alarm.acknowledged) {
            insert(*alarm.acknowledged);
        }
    }
    for (const auto& [id, window] : carried.maintenance) {
        insert(window);
    }
    transaction.commit();
    rows_.reset();
}

bool EventDatabase::retain(std::chrono::milliseconds ran, uint64_t rows) {
    if (!rows_) {
        rows_ = static_cast<uint64_t>(database_.integer("SELECT count(*) FROM events"));
    }
    beginSynchronous(false);
    Transaction transaction(database_);
    deleteOld_.bind(1, static_cast<int64_t>(ran.count())).bind(2, kRetentionStep).run();
    int64_t deleted = database_.changes();
    Statement forget =
        database_.prepare("DELETE FROM ages WHERE id < (SELECT max(id) FROM ages WHERE ran <= ?)");
    forget.bind(1, static_cast<int64_t>(ran.count())).run();
    const uint64_t kept = *rows_ - std::min(*rows_, static_cast<uint64_t>(deleted));
    if (kept > rows && deleted < kRetentionStep) {
        const auto excess =
            static_cast<int64_t>(std::min(kept - rows, static_cast<uint64_t>(kRetentionStep - deleted)));
        deleteExcess_.bind(1, excess).run();
        deleted += database_.changes();
    }
    transaction.commit();
    *rows_ -= std::min(*rows_, static_cast<uint64_t>(deleted));
    return deleted == kRetentionStep;
}

EventReader::EventReader(const std::filesystem::path& file, const std::atomic<bool>& stop,
                         const Patience& patience)
    : stop_(stop), database_(file, Database::Mode::kReadOnly, patience) {
    constexpr int kInstructions = 10'000;  // between two looks: well below a millisecond
    sqlite3_progress_handler(database_.handle(), kInstructions, &EventReader::progress, this);
}

int EventReader::progress(void* reader) {
    const auto* const self = static_cast<const EventReader*>(reader);
    return self->stop_ || std::chrono::steady_clock::now() > self->deadline_ ? 1 : 0;
}

Statement& EventReader::prepared(const std::string& sql) {
    const auto found = statements_.find(sql);
    return found != statements_.end() ? found->second
                                      : statements_.emplace(sql, database_.prepare(sql)).first->second;
}

std::string eventQuery(const EventFilter& filter) {
    // SQLite knows nothing of how the values are spread and takes any of the indexes; a group is the
    // narrowest.
    std::string_view index = "NOT INDEXED";
    if (filter.group) {
        index = "INDEXED BY events_by_group";
    } else if (filter.kind && filter.severity) {
        index = "INDEXED BY events_by_kind_severity";
    } else if (filter.kind) {
        index = "INDEXED BY events_by_kind";
    } else if (filter.severity) {
        index = "INDEXED BY events_by_severity";
    }
    std::string sql = "SELECT " + std::string(kColumns) + " FROM events " + std::string(index) +
                      " WHERE id BETWEEN ?1 AND ?2";
    sql += filter.group ? " AND channel_group = ?3" : "";
    sql += filter.kind ? " AND kind = ?4" : "";
    sql += filter.severity ? " AND severity = ?5" : "";
    sql += filter.since ? " AND time >= ?6" : "";
    sql += filter.until ? " AND time < ?7" : "";
    sql += filter.text ? " AND (instr(lower(channel), lower(?9)) > 0 OR instr(channel_group, ?9) > 0)" : "";
    return sql + " ORDER BY id DESC LIMIT ?8";
}

std::vector<Event> EventReader::query(const EventFilter& filter) {
    constexpr int64_t kLast = std::numeric_limits<int64_t>::max();
    deadline_ = std::chrono::steady_clock::now() + kQueryTime;
    int64_t lowest = 0;
    int64_t highest = filter.before ? *filter.before - 1 : kLast;
    if (filter.since || filter.until) {
        // Ids follow time except where the wall clock stepped, so the bounds have to be looked up, not
        // searched.
        Statement& bounds = prepared(
            "SELECT min(id), max(id) FROM events INDEXED BY events_by_time WHERE time >= ?1 AND time < ?2");
        bounds.bind(1, filter.since ? milliseconds(*filter.since) : 0)
            .bind(2, filter.until ? milliseconds(*filter.until) : kLast);
        if (!bounds.step() || bounds.isNull(0)) {
            bounds.reset();
            return {};
        }
        lowest = bounds.integer(0);
        highest = std::min(highest, bounds.integer(1));
        bounds.reset();
    }
    Statement& rows = prepared(eventQuery(filter));
    rows.bind(1, lowest).bind(2, highest);
    if (filter.group) {
        rows.bind(3, filter.group->text());
    }
    if (filter.kind) {
        rows.bind(4, eventKindName(*filter.kind));
    }
    if (filter.severity) {
        rows.bind(5, severityName(*filter.severity));
    }
    if (filter.since) {
        rows.bind(6, milliseconds(*filter.since));
    }
    if (filter.until) {
        rows.bind(7, milliseconds(*filter.until));
    }
    if (filter.text) {
        rows.bind(9, *filter.text);
    }
    rows.bind(8, static_cast<int64_t>(std::clamp<std::size_t>(filter.limit, 1, 1000)));
    std::vector<Event> events;
    while (rows.step()) {
        if (std::optional<Event> event = readEvent(rows)) {
            events.push_back(std::move(*event));
        }
    }
    rows.reset();
    return events;
}

std::optional<std::string> EventReader::damage() {
    deadline_ = SteadyTime::max();
    Statement check = database_.prepare("PRAGMA quick_check(1)");
    if (!check.step() || check.text(0) == "ok") {
        return std::nullopt;
    }
    return check.text(0);
}

}  // namespace station
