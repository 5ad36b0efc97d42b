#include "store/payload.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "basics/text.h"
#include "common/counted.h"
#include "common/text.h"

namespace station {

namespace {

using nlohmann::json;

std::string dump(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string_view stateName(const Notification& notification) {
    if (notification.cue) {
        return "cue";
    }
    if (notification.momentary) {
        return "happened";
    }
    return notification.raised ? "raised" : "cleared";
}

// "News HD (239.1.1.1): 12 packets lost within 10 s"
std::string summary(const Notification& notification) {
    std::string who = notification.channel;
    if (who.empty()) {
        who = notification.group.empty() ? "probe" : notification.group;
    } else if (!notification.group.empty() && notification.group != who) {
        who += " (" + notification.group + ")";
    }
    return who + ": " + (notification.text.empty() ? notification.alarm : notification.text);
}

// "site=north: 50 alarms raised, the first of them News HD (239.1.1.1): no packets for 1 s"
std::string summaryOf(std::span<const Notification> notifications) {
    const Notification& first = notifications.front();
    const bool one = first.incident != 0 && std::ranges::all_of(notifications, [&](const Notification& next) {
                         return next.incident == first.incident && stateName(next) == stateName(first);
                     });
    std::string text = one && first.shared ? first.shared->text() + ": " : std::string();
    text += one ? counted(notifications.size(), "alarm") + " " + std::string(stateName(first))
                : counted(notifications.size(), "notification");
    return text + ", the first of them " + summary(first);
}

std::string member(const json& object, const char* name) {
    const auto found = object.find(name);
    return found != object.end() && found->is_string() ? found->get<std::string>() : std::string();
}

// A count for each value that occurs.
template <typename Name>
json countBy(std::span<const Notification> notifications, Name name) {
    std::map<std::string, std::size_t> counts;
    for (const Notification& notification : notifications) {
        ++counts[std::string(name(notification))];
    }
    return counts;
}

json incidentJson(const Notification& notification) {
    if (notification.incident == 0) {
        return {};
    }
    json shared;
    if (const auto& known = notification.shared) {
        shared = {{"kind", sharedKindName(known->kind)}, {"name", known->name}, {"value", known->value}};
    }
    return {{"id", notification.incident}, {"shared", shared}};
}

void parseIncident(const json& object, Notification& notification) {
    const auto found = object.find("incident");
    if (found == object.end() || !found->is_object()) {
        return;
    }
    const auto id = found->find("id");
    notification.incident = id != found->end() && id->is_number_integer() ? id->get<int64_t>() : 0;
    const auto shared = found->find("shared");
    if (shared != found->end() && shared->is_object()) {
        if (const auto kind = parseSharedKind(member(*shared, "kind"))) {
            notification.shared = Shared{*kind, member(*shared, "name"), member(*shared, "value")};
        }
    }
}

}  // namespace

json notificationJson(const Notification& notification) {
    return {
        {"alarmId", notification.alarmId},
        {"state", stateName(notification)},
        {"time", rfc3339(notification.time)},
        {"raised", rfc3339(notification.raisedAt)},
        {"alarm", notification.cue ? json() : json(notification.alarm)},
        {"meaning", notification.meaning},
        {"severity", notification.cue ? json() : json(severityName(notification.severity))},
        {"group", notification.group.empty() ? json() : json(notification.group)},
        {"channel", notification.channel},
        {"labels", notification.labels},
        {"text", notification.text},
        {"value", notification.value},
        {"source", notification.source.empty() ? json() : json(notification.source)},
        {"incident", incidentJson(notification)},
    };
}

std::optional<Notification> parseNotification(std::string_view text) {
    const json object = json::parse(text, nullptr, false);
    if (!object.is_object()) {
        return std::nullopt;
    }
    const auto id = object.find("alarmId");
    const auto time = parseRfc3339(member(object, "time"));
    const auto raised = parseRfc3339(member(object, "raised"));
    const bool cue = member(object, "state") == "cue";
    const auto severity = cue ? std::optional(Severity::kWarning) : parseSeverity(member(object, "severity"));
    if (id == object.end() || !id->is_number_integer() || !time || !raised || !severity) {
        return std::nullopt;
    }
    Notification notification;
    notification.alarmId = id->get<int64_t>();
    notification.cue = cue;
    notification.momentary = cue || member(object, "state") == "happened";
    notification.raised = member(object, "state") != "cleared";
    notification.time = *time;
    notification.raisedAt = *raised;
    notification.alarm = member(object, "alarm");
    notification.meaning = member(object, "meaning");
    notification.severity = *severity;
    notification.group = member(object, "group");
    notification.channel = member(object, "channel");
    notification.text = member(object, "text");
    notification.source = member(object, "source");
    if (const auto labels = object.find("labels"); labels != object.end() && labels->is_object()) {
        for (const auto& [name, value] : labels->items()) {
            notification.labels[name] = value.is_string() ? value.get<std::string>() : std::string();
        }
    }
    parseIncident(object, notification);
    if (const auto value = object.find("value"); value != object.end() && value->is_number()) {
        notification.value = value->get<double>();
    }
    return notification;
}

std::string webhookBody(std::span<const Notification> notifications, std::size_t summed,
                        const std::string& instance, WallTime now) {
    json body = {
        {"version", 1},     {"station", instance}, {"time", rfc3339(now)},
        {"summed", summed}, {"text", ""},          {"notifications", json::array()},
    };
    for (const Notification& notification : notifications) {
        body["notifications"].push_back(notificationJson(notification));
    }
    if (summed > 0) {
        body["text"] = summaryOf(notifications);
        body["bySeverity"] = countBy(notifications, [](const Notification& one) {
            return one.cue ? std::string_view("cue") : severityName(one.severity);
        });
        body["byState"] = countBy(notifications, &stateName);
    } else if (!notifications.empty()) {
        body["text"] = summary(notifications.front());
    }
    return dump(body);
}

std::string labelName(std::string_view name) {
    std::string valid = basics::plainLabelName(name);
    if (valid.empty() || (valid[0] >= '0' && valid[0] <= '9')) {
        valid.insert(valid.begin(), '_');
    }
    return valid.starts_with("__") ? "label" + valid : valid;
}

std::string alertmanagerBody(std::span<const Notification> notifications, const std::string& instance,
                             WallTime now, std::chrono::milliseconds life) {
    json body = json::array();
    for (const Notification& notification : notifications) {
        std::map<std::string, std::string> labels = {
            {"alertname", notification.alarm},
            {"severity", std::string(severityName(notification.severity))},
            {"group", notification.group},
            {"channel", notification.channel},
            {"instance", instance},
            {"incident", notification.incident == 0 ? std::string() : std::to_string(notification.incident)},
        };
        for (const auto& [name, value] : notification.labels) {
            const std::string valid = labelName(name);
            std::string free = labels.contains(valid) ? "label_" + valid : valid;
            for (int number = 2; labels.contains(free); ++number) {
                free = "label_" + valid + "_" + std::to_string(number);
            }
            labels[free] = value;
        }
        std::erase_if(labels, [](const auto& label) { return label.second.empty(); });
        // An end that lies ahead would leave the alert firing, and one before its begin is refused: the wall
        // clock may have been set back between the two, or since.
        const bool over = !notification.raised && !notification.momentary;
        const WallTime ends = over ? std::min(notification.time, now) : now + life;
        const WallTime starts = std::min({notification.raisedAt, ends, now});
        json annotations = {{"summary", summary(notification)}, {"description", notification.meaning}};
        if (notification.shared) {
            annotations["incident"] = notification.shared->text();
        }
        body.push_back({
            {"labels", labels},
            {"annotations", annotations},
            {"startsAt", rfc3339(starts)},
            {"endsAt", rfc3339(ends)},
        });
    }
    return dump(body);
}

}  // namespace station
