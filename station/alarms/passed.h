// Alarms that came and went while nobody looked: marked until somebody did.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "alarms/alarm.h"

namespace station {

// An alarm that cleared before anybody acknowledged it; one that came and went several times is one, the
// latest.
struct PassedAlarm {
    int64_t id = 0;  // Alarm::id
    std::size_t type = 0;
    Subject about = Source::kProbe;
    Severity severity = Severity::kWarning;
    WallTime raised;
    WallTime cleared;
    uint64_t times = 1;
    std::string text{};
    int64_t incident = 0;  // that it was of, the latest time; 0: by itself

    bool operator==(const PassedAlarm&) const = default;
};

// What passed. No I/O, no clock of its own, one thread.
class PassedAlarms {
  public:
    static constexpr std::size_t kLimit = 1'000;  // beyond, the oldest are marked no more

    // Counts it with those of the same alarm. Ids that are no more: of the one before, or of the oldest.
    std::vector<int64_t> put(PassedAlarm& alarm);
    bool take(const PassedAlarm& alarm);
    // These alarms turned out to be of an incident. Those of them that passed.
    std::vector<PassedAlarm> join(const std::set<int64_t>& alarms, int64_t incident);
    std::vector<PassedAlarm> all() const;  // newest first
    std::size_t size() const {
        return passed_.size();
    }
    // Grows with each change.
    uint64_t version() const {
        return version_;
    }

  private:
    std::map<std::pair<Subject, std::size_t>, PassedAlarm> passed_;
    uint64_t version_ = 0;
};

}  // namespace station
