#include "alarmSelection.h"

#include <algorithm>

#include "common/counted.h"

namespace station {

namespace {

bool hasLabels(const Channel& channel, const Labels& labels) {
    return std::ranges::all_of(labels, [&channel](const auto& label) {
        const auto own = channel.labels.find(label.first);
        return own != channel.labels.end() && own->second == label.second;
    });
}

}  // namespace

std::vector<Alarm> chosenAlarms(const Selection& which, const std::vector<Alarm>& raised,
                                const ChannelMap& channels) {
    const std::set<int64_t> ids(which.ids.begin(), which.ids.end());
    const std::set<Group> groups(which.groups.begin(), which.groups.end());
    const auto labelled = [&](const Alarm& alarm) {
        const auto channel = alarm.about.group() ? channels.find(*alarm.about.group()) : channels.end();
        return channel != channels.end() && hasLabels(channel->second, which.labels);
    };
    std::vector<Alarm> chosen;
    for (const Alarm& alarm : raised) {
        if (!which.alarm.empty() && alarmTypes()[alarm.type].name != which.alarm) {
            continue;
        }
        const auto group = alarm.about.group();
        if (!ids.empty()           ? ids.contains(alarm.id)
            : !groups.empty()      ? group && groups.contains(*group)
            : which.incident != 0  ? alarm.incident == which.incident
            : which.labels.empty() ? false
                                   : labelled(alarm)) {
            chosen.push_back(alarm);
        }
    }
    return chosen;
}

std::set<Group> chosenGroups(const Selection& which, const std::vector<Alarm>& raised,
                             const ChannelMap& channels) {
    std::set<Group> groups;
    for (const Group& group : which.groups) {
        if (channels.contains(group)) {
            groups.insert(group);
        }
    }
    if (!which.labels.empty()) {
        for (const auto& [group, channel] : channels) {
            if (hasLabels(channel, which.labels)) {
                groups.insert(group);
            }
        }
    }
    if (!which.ids.empty() || which.incident != 0) {
        for (const Alarm& alarm : chosenAlarms(which, raised, channels)) {
            if (const auto group = alarm.about.group()) {
                groups.insert(*group);
            }
        }
    }
    return groups;
}

std::string chosenText(const Selection& which, std::size_t channels) {
    if (which.incident != 0) {
        return "incident " + std::to_string(which.incident);
    }
    std::string text;
    for (const auto& [name, value] : which.labels) {
        text.append(text.empty() ? "" : " and ").append(name).append("=").append(value);
    }
    return text.empty() ? counted(channels, "channel") : text;
}

}  // namespace station
