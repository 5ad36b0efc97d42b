// What events.db keeps for reports, and how it is read.
#include <algorithm>
#include <optional>
#include <set>

#include "store/eventDatabase.h"
#include "store/eventRows.h"
#include "store/storedTime.h"

namespace station {

void EventDatabase::noteObserved(std::span<const Span> spans) {
    beginSynchronous(false);
    Transaction transaction(database_);
    Statement note = database_.prepare(
        "INSERT INTO observed (began, until) VALUES (?1, ?2) "
        "ON CONFLICT (began) DO UPDATE SET until = max(until, excluded.until)");
    for (const Span& span : spans) {
        note.bind(1, storedTime(span.from)).bind(2, storedTime(span.until)).run();
    }
    Statement bound = database_.prepare(
        "DELETE FROM observed WHERE began <= (SELECT began FROM observed ORDER BY began DESC LIMIT 1 OFFSET "
        "?1)");
    bound.bind(1, kObservedRows).run();
    Statement past = database_.prepare(
        "DELETE FROM past_maintenance WHERE id <= "
        "(SELECT id FROM past_maintenance ORDER BY id DESC LIMIT 1 OFFSET ?1) RETURNING until_time");
    past.bind(1, kPastWindows);
    noteForgotten(past, "maintenance_forgotten");
    transaction.commit();
}

void EventDatabase::noteWatched(std::span<const Group> groups, WallTime now) {
    beginSynchronous(false);
    Transaction transaction(database_);
    std::set<std::string> wanted;
    for (const Group& group : groups) {
        wanted.insert(group.text());
    }
    std::vector<int64_t> cleared;
    Statement open = database_.prepare("SELECT id, channel_group FROM watched WHERE until IS NULL");
    while (open.step()) {
        if (wanted.erase(open.text(1)) == 0) {
            cleared.push_back(open.integer(0));
        }
    }
    open.reset();
    Statement end = database_.prepare("UPDATE watched SET until = ?2 WHERE id = ?1");
    for (const int64_t id : cleared) {
        end.bind(1, id).bind(2, storedTime(now)).run();
    }
    Statement begin = database_.prepare("INSERT INTO watched (channel_group, began) VALUES (?1, ?2)");
    for (const std::string& group : wanted) {
        begin.bind(1, std::string_view(group)).bind(2, storedTime(now)).run();
    }
    // Those that are watched stay, however old.
    Statement bound = database_.prepare(
        "DELETE FROM watched WHERE until IS NOT NULL AND "
        "id <= (SELECT id FROM watched ORDER BY id DESC LIMIT 1 OFFSET ?1) RETURNING until");
    bound.bind(1, kWatchedRows);
    noteForgotten(bound, "watched_forgotten");
    transaction.commit();
}

// `rows` deletes and returns ends of times: of what was before the latest the file knows no more.
void EventDatabase::noteForgotten(Statement& rows, const char* name) {
    const int64_t before = number(name);
    int64_t latest = before;
    while (rows.step()) {
        latest = std::max(latest, rows.integer(0));
    }
    rows.reset();
    if (latest != before) {
        setNumber_.bind(1, std::string_view(name)).bind(2, latest).run();
    }
}

// Alarms that were raised in that time, begin and end looked up by their events. One whose raise is gone
// began as long before its end as it lasted, and so does one whose clock was set back meanwhile.
void EventReader::readAlarms(const ReportQuestion& question, ReportRows& rows) {
    const auto add = [&](Statement& row, bool momentary) {
        const auto type = findAlarmType(row.text(0));
        const auto group = Group::parse(row.text(1));
        if (!type || (question.group && group && group != question.group)) {
            return;
        }
        if (rows.alarms.size() == kReportAlarms) {
            throw DatabaseError(DatabaseError::Kind::kStopped, "too many alarms");
        }
        AlarmTime alarm{.type = *type, .group = group, .momentary = momentary};
        if (!row.isNull(4)) {
            alarm.cleared = wallTime(row.integer(4));
        }
        const bool known = !row.isNull(3) && (!alarm.cleared || wallTime(row.integer(3)) <= *alarm.cleared);
        alarm.raised = known ? wallTime(row.integer(3))
                             : alarm.cleared.value_or(WallTime{}) - std::chrono::milliseconds(row.integer(5));
        if (!row.isNull(6)) {
            alarm.peak = row.real(6);
        }
        alarm.severity = parseSeverity(row.text(7)).value_or(Severity::kWarning);
        rows.alarms.push_back(alarm);
        if (group) {
            rows.names.insert_or_assign(*group, row.text(2));
        }
    };
    Statement& first =
        prepared("SELECT coalesce(min(id), 0) FROM events INDEXED BY events_by_time WHERE time >= ?1");
    first.bind(1, storedTime(question.time.from));
    const int64_t lowest = first.step() ? first.integer(0) : 0;
    first.reset();
    const int64_t until = storedTime(question.time.until);
    const auto run = [&](const std::string& sql, std::optional<int64_t> from, bool momentary) {
        Statement& statement = prepared(sql);
        statement.reset();  // of one that was given up
        statement.bind(1, until);
        if (from) {
            statement.bind(2, *from);
        }
        while (statement.step()) {
            add(statement, momentary);
        }
        statement.reset();
    };
    if (lowest > 0) {
        run("SELECT c.alarm, c.channel_group, c.channel, r.time, c.time, c.duration_ms, c.peak, c.severity "
            "FROM events c "
            "INDEXED BY events_by_kind LEFT JOIN events r ON r.id = c.alarm_id "
            "WHERE c.kind = 'cleared' AND c.id >= ?2 "
            "AND coalesce(min(r.time, c.time), c.time - c.duration_ms) < ?1 ORDER BY c.id",
            lowest, false);
        run("SELECT alarm, channel_group, channel, time, time, 0, value, severity FROM events INDEXED BY "
            "events_by_kind "
            "WHERE kind = 'happened' AND id >= ?2 AND time < ?1 ORDER BY id",
            lowest, true);
    }
    run("SELECT e.alarm, e.channel_group, e.channel, e.time, NULL, 0, e.value, e.severity FROM active "
        "JOIN events e ON e.id = active.alarm_id WHERE e.time < ?1",
        std::nullopt, false);
}

ReportRows EventReader::reportRows(const ReportQuestion& question) {
    deadline_ = std::chrono::steady_clock::now() + kQueryTime;
    const int64_t since = storedTime(question.time.from);
    const int64_t until = storedTime(question.time.until);
    ReportRows rows;
    database_.execute("BEGIN");  // all of one moment
    struct End {
        Database& database;
        ~End() {
            try {
                database.execute("ROLLBACK");
            } catch (const DatabaseError&) {
                // An error ended it already.
            }
        }
    } const end{database_};
    const auto number = [this](const char* name) {
        return wallTime(
            database_.integer("SELECT value FROM numbers WHERE name = '" + std::string(name) + "'"));
    };
    rows.knownSince = std::max(number("forgotten"), number("maintenance_forgotten"));
    rows.watchedKnownSince = number("watched_forgotten");
    const auto bound = [&](const char* sql) {
        Statement statement = database_.prepare(sql);
        statement.bind(1, since).bind(2, until);
        return statement;
    };
    Statement observed = bound("SELECT began, until FROM observed WHERE until > ?1 AND began < ?2");
    while (observed.step()) {
        rows.observed.push_back({wallTime(observed.integer(0)), wallTime(observed.integer(1))});
    }
    Statement watched = bound(
        "SELECT channel_group, began, until FROM watched WHERE (until IS NULL OR until > ?1) AND began < ?2");
    while (watched.step()) {
        const auto group = Group::parse(watched.text(0));
        if (group && (!question.group || group == question.group)) {
            rows.watched[*group].push_back(
                {wallTime(watched.integer(1)),
                 watched.isNull(2) ? WallTime::max() : wallTime(watched.integer(2))});
        }
    }
    Statement windows = bound(
        "SELECT id, from_time, until_time, channel_group FROM maintenance WHERE until_time > ?1 "
        "AND from_time < ?2 UNION ALL SELECT id, from_time, until_time, channel_group FROM past_maintenance "
        "WHERE until_time > ?1 AND from_time < ?2");
    while (windows.step()) {
        Maintenance& window = rows.maintenance.emplace_back();
        window.id = windows.integer(0);
        window.from = wallTime(windows.integer(1));
        window.until = wallTime(windows.integer(2));
        readGroups(windows.text(3), window);
    }
    readAlarms(question, rows);
    return rows;
}

}  // namespace station
