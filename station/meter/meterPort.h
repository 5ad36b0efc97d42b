// Where the meter connects.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "channels/configuration.h"
#include "meter/meterBook.h"

namespace station {

// A channel as the meter is told it.
struct MeteredChannel {
    uint32_t group = 0;                // host byte order, likewise below
    std::optional<uint32_t> source{};  // only its datagrams are the channel's
    std::optional<uint16_t> port{};
    bool join = false;  // by the meter, with its source; else whoever joins lets its datagrams in
    MeasureRules rules{};

    bool operator==(const MeteredChannel&) const = default;
};

// Takes away what is beyond metering::kGroupsLimit, and returns how many that are. Those that the meter is to
// join stay before others, since nobody else can join them for their source.
std::size_t chooseMetered(std::vector<MeteredChannel>& channels);

// Listens on a Unix socket and serves one meter at a time, on a thread of its own: tells it what to watch and
// has its reports kept in a book. A second meter is refused, unless the first was silent for kHung. What it
// cannot listen on is tried again every second, as is a socket that somebody removed.
class MeterPort {
  public:
    static constexpr std::chrono::seconds kHelloTime{5};  // for a meter to say who it is
    static constexpr std::chrono::seconds kHung{10};

    // Without a path there is no meter. `book` has to outlive it.
    MeterPort(std::filesystem::path path, std::string version, MeterBook& book);
    ~MeterPort();  // ends the thread, within 100 ms, and removes the socket
    MeterPort(const MeterPort&) = delete;

    // What is to be watched; the meter is told when it differs from the last. At most metering::kGroupsLimit
    // (chooseMetered), the rest is left out. Returns the groups that the meter is told to join. One thread;
    // at once.
    std::set<uint32_t> watch(std::vector<MeteredChannel> channels);

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
