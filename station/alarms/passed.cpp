#include "alarms/passed.h"

#include <algorithm>

namespace station {

std::vector<int64_t> PassedAlarms::put(PassedAlarm& alarm) {
    std::vector<int64_t> gone;
    ++version_;
    const auto [entry, added] = passed_.try_emplace({alarm.about, alarm.type}, alarm);
    if (!added) {
        gone.push_back(entry->second.id);
        alarm.times += entry->second.times;
        entry->second = alarm;
    } else if (passed_.size() > kLimit) {
        const auto oldest = std::ranges::min_element(
            passed_, {}, [](const auto& one) { return std::pair(one.second.cleared, one.second.id); });
        gone.push_back(oldest->second.id);
        passed_.erase(oldest);
    }
    return gone;
}

bool PassedAlarms::take(const PassedAlarm& alarm) {
    const auto found = passed_.find({alarm.about, alarm.type});
    if (found == passed_.end() || found->second.id != alarm.id) {
        return false;
    }
    passed_.erase(found);
    ++version_;
    return true;
}

std::vector<PassedAlarm> PassedAlarms::join(const std::set<int64_t>& alarms, int64_t incident) {
    std::vector<PassedAlarm> joined;
    for (auto& [key, alarm] : passed_) {
        if (alarms.contains(alarm.id)) {
            alarm.incident = incident;
            joined.push_back(alarm);
            ++version_;
        }
    }
    return joined;
}

std::vector<PassedAlarm> PassedAlarms::all() const {
    std::vector<PassedAlarm> all;
    for (const auto& [key, alarm] : passed_) {
        all.push_back(alarm);
    }
    std::ranges::stable_sort(all, std::ranges::greater(), &PassedAlarm::cleared);
    return all;
}

}  // namespace station
