// The newest report of each group, and what is known of the meter that sends them.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "channels/channel.h"
#include "common/clock.h"
#include "meter.pb.h"
#include "meter/meterReport.h"
#include "meter/meterState.h"

namespace station {

// All calls from any thread; at once.
class MeterBook {
  public:
    static constexpr std::size_t kBytes = std::size_t{96} * 1024 * 1024;  // of all; further ones are dropped
    static constexpr std::size_t kThreadsLimit = 64;                      // of a meter
    static constexpr std::chrono::seconds kSilence{3};

    MeterBook() = default;
    MeterBook(const MeterBook&) = delete;

    // For readers.
    // The newest report of a group that is watched; none when no meter is connected, or before its first.
    std::optional<MeterReport> find(const Group& group) const;
    MeterState state(SteadyTime now) const;

    // For the port.
    // What may be reported from here on; what is kept of others is dropped.
    // `joins`: how many of them the meter is to join.
    void watch(std::set<uint32_t> groups, std::size_t leftOut, std::size_t joins = 0);
    void setConfigured(bool configured);
    void setProblem(const std::string& problem);
    void connected(const std::string& version, const Now& now);
    void disconnected(const Now& now);
    // A part of a thread's second, without its reports. False: it cannot be (a thread that cannot be there).
    bool second(const metering::Second& part, std::size_t reports, const Now& now);
    // False when there is no room for it; it is counted then.
    bool report(uint32_t group, MeterReport&& report);
    // One that is larger than a report may be: it is counted.
    void skipped();
    void happened();

  private:
    struct Thread {
        metering::Capture capture;
        std::size_t reported = 0;   // in its last whole second
        std::size_t reporting = 0;  // in the one that is coming
    };
    void drop(uint32_t group);

    mutable std::mutex mutex_;  // guards what follows; no lock is taken while it is held
    MeterState state_;
    SteadyTime lastSecond_;
    std::set<uint32_t> watched_;
    std::map<uint32_t, MeterReport> reports_;
    std::size_t bytes_ = 0;
    uint64_t number_ = 0;
    std::vector<Thread> threads_;
};

}  // namespace station
