// Alarms that are shelved: shown, recorded, and told to nobody until a time.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "alarms/alarm.h"

namespace station {

// An alarm of a channel or source that is shelved, whether it is raised or not: one that comes and goes stays
// shelved.
struct Shelving {
    int64_t id = 0;  // of the event that began it
    std::size_t type = 0;
    Subject about = Source::kProbe;
    WallTime since;
    WallTime until;
    std::string by;
    std::string remark;
    int64_t incident = 0;  // that it was shelved by; 0: by something else

    bool operator==(const Shelving&) const = default;
};

// What is shelved. No I/O, no clock of its own, one thread.
class Shelf {
  public:
    static constexpr std::size_t kLimit = 10'000;           // alarms; beyond, none is taken
    static constexpr std::chrono::hours kLongest{24 * 31};  // from the moment that it is shelved

    // False when there is no room. One that is shelved already is replaced.
    bool put(const Shelving& shelving);
    std::optional<Shelving> take(const Subject& about, std::size_t type);
    // Takes those whose time is over, or whose time cannot be: a clock that was set back would shelve them
    // for longer than anybody said.
    std::vector<Shelving> takeEnded(WallTime now);

    // Null when it is not shelved.
    const Shelving* find(const Subject& about, std::size_t type) const;
    std::vector<Shelving> all() const;  // those that end first come first
    std::size_t size() const {
        return shelved_.size();
    }
    // Grows with each change.
    uint64_t version() const {
        return version_;
    }

  private:
    std::map<std::pair<Subject, std::size_t>, Shelving> shelved_;
    uint64_t version_ = 0;
};

}  // namespace station
