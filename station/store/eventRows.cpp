#include "store/eventRows.h"

#include <algorithm>

#include "store/eventKinds.h"
#include "store/storedTime.h"

namespace station {

namespace {

std::optional<double> optionalReal(const Statement& row, int column) {
    return row.isNull(column) ? std::nullopt : std::optional(row.real(column));
}

}  // namespace

std::optional<Event> readEvent(const Statement& row, int first) {
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
    event.source = parseSource(row.text(first + 14));
    if (!row.isNull(first + 15)) {
        event.until = wallTime(row.integer(first + 15));
    }
    return event;
}

std::optional<std::string> groupsText(const Maintenance& window) {
    if (window.ofAll()) {
        return std::nullopt;
    }
    std::string text = window.group ? window.group->text() : std::string();
    for (const Group& group : window.groups) {
        text += (text.empty() ? "" : " ") + group.text();
    }
    return text;
}

void readGroups(std::string_view text, Maintenance& window) {
    window.group = Group::parse(text);
    while (!window.group && !text.empty()) {
        const std::size_t end = std::min(text.find(' '), text.size());
        if (const auto group = Group::parse(text.substr(0, end))) {
            window.groups.push_back(*group);
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

}  // namespace station
