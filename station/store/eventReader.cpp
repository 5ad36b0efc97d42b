// The reading side of events.db, but for reports.
#include <algorithm>
#include <limits>

#include "store/eventDatabase.h"
#include "store/eventRows.h"
#include "store/storedTime.h"

namespace station {

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
    std::string sql = "SELECT " + std::string(kEventColumns) + " FROM events " + std::string(index) +
                      " WHERE id BETWEEN ?1 AND ?2";
    sql += filter.group ? " AND channel_group = ?3" : "";
    sql += filter.kind ? " AND kind = ?4" : "";
    sql += filter.severity ? " AND severity = ?5" : "";
    sql += filter.alarm ? " AND alarm = ?10" : "";
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
        bounds.bind(1, filter.since ? storedTime(*filter.since) : 0)
            .bind(2, filter.until ? storedTime(*filter.until) : kLast);
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
    if (filter.alarm) {
        rows.bind(10, alarmTypes()[*filter.alarm].name);
    }
    if (filter.since) {
        rows.bind(6, storedTime(*filter.since));
    }
    if (filter.until) {
        rows.bind(7, storedTime(*filter.until));
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
