// Counts what the checks found: once for all of them.
#pragma once

#include <optional>
#include <utility>
#include <vector>

#include "checks/checkTable.h"
#include "meter/report.h"

namespace meter {

// Times are arrivals in ns since the begin of the analysis.
class CheckBook {
  public:
    // PIDs with counts of their own a check; what further ones do is in the check's count alone.
    static constexpr std::size_t kPidsLimit = 1024;
    // What is no PID's: nobody knows the PID of a packet without sync byte.
    static constexpr uint16_t kNoPid = 0xFFFF;

    // The condition came true at `at`.
    void hit(Check check, uint16_t pid, Nanoseconds at) {
        holdFor(check, pid, at, at);
    }
    // The condition came true at `from` and held until `to`, which is now or was.
    void holdFor(Check check, uint16_t pid, Nanoseconds from, Nanoseconds to);
    // An absence or a loss: came true at `from`, holds from there on until end().
    void begin(Check check, uint16_t pid, Nanoseconds from, Nanoseconds now);
    // REQUIRES: a begin() that was not ended.
    void end(Check check, Nanoseconds now);
    // Time went on: what holds does so until `now`.
    void advance(Nanoseconds now);
    // What the analysis was is over: nothing holds any more.
    void endAll(Nanoseconds now);

    uint64_t count(Check check) const {
        return entry(check).count;
    }
    void fill(std::vector<CheckReport>& reports) const;

  private:
    // Seconds are told apart within the latest 64; older ones count no more.
    static constexpr int64_t kSecondsTold = 64;

    struct Entry {
        uint64_t count = 0;
        uint64_t seconds = 0;
        std::optional<Nanoseconds> first;
        std::optional<Nanoseconds> last;
        uint32_t active = 0;
        int64_t newestSecond = -1;
        uint64_t recent = 0;  // bit i: the second newestSecond - i is counted
        std::vector<std::pair<uint16_t, uint64_t>> pids;
    };
    Entry& entry(Check check) {
        return entries_[static_cast<std::size_t>(check)];
    }
    const Entry& entry(Check check) const {
        return entries_[static_cast<std::size_t>(check)];
    }
    static void countPid(Entry& entry, uint16_t pid);
    static void countSeconds(Entry& entry, Nanoseconds from, Nanoseconds to);

    std::array<Entry, kCheckCount> entries_;
    uint32_t active_ = 0;  // of all checks
};

}  // namespace meter
