#include "store/payload.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>

#include "basics/text.h"
#include "common/text.h"

namespace station {

namespace {

using nlohmann::json;

std::string dump(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string_view stateName(const Notification& notification) {
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

}  // namespace

json notificationJson(const Notification& notification) {
    return {
        {"alarmId", notification.alarmId},
        {"state", stateName(notification)},
        {"time", rfc3339(notification.time)},
        {"raised", rfc3339(notification.raisedAt)},
        {"alarm", notification.alarm},
        {"meaning", notification.meaning},
        {"severity", severityName(notification.severity)},
        {"group", notification.group.empty() ? json() : json(notification.group)},
        {"channel", notification.channel},
        {"labels", notification.labels},
        {"text", notification.text},
        {"value", notification.value},
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
    const auto severity = parseSeverity(member(object, "severity"));
    if (id == object.end() || !id->is_number_integer() || !time || !raised || !severity) {
        return std::nullopt;
    }
    Notification notification;
    notification.alarmId = id->get<int64_t>();
    notification.momentary = member(object, "state") == "happened";
    notification.raised = member(object, "state") != "cleared";
    notification.time = *time;
    notification.raisedAt = *raised;
    notification.alarm = member(object, "alarm");
    notification.meaning = member(object, "meaning");
    notification.severity = *severity;
    notification.group = member(object, "group");
    notification.channel = member(object, "channel");
    notification.text = member(object, "text");
    if (const auto labels = object.find("labels"); labels != object.end() && labels->is_object()) {
        for (const auto& [name, value] : labels->items()) {
            notification.labels[name] = value.is_string() ? value.get<std::string>() : std::string();
        }
    }
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
        body["text"] = std::to_string(summed).append(" notifications");
        body["bySeverity"] =
            countBy(notifications, [](const Notification& one) { return severityName(one.severity); });
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
        };
        for (const auto& [name, value] : notification.labels) {
            std::string valid = labelName(name);
            labels.try_emplace(labels.contains(valid) ? "label_" + valid : valid, value);
        }
        std::erase_if(labels, [](const auto& label) { return label.second.empty(); });
        // An end that lies ahead would leave the alert firing, and one before its begin is refused: the wall
        // clock may have been set back between the two, or since.
        const bool over = !notification.raised && !notification.momentary;
        const WallTime ends = over ? std::min(notification.time, now) : now + life;
        const WallTime starts = std::min({notification.raisedAt, ends, now});
        body.push_back({
            {"labels", labels},
            {"annotations", {{"summary", summary(notification)}, {"description", notification.meaning}}},
            {"startsAt", rfc3339(starts)},
            {"endsAt", rfc3339(ends)},
        });
    }
    return dump(body);
}

}  // namespace station
