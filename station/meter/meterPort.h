// Where the meter connects.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/peerPort.h"
#include "configuration/configuration.h"
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

// Where the meter connects (PeerPort): tells it what to watch and has its reports kept in a book.
class MeterPort {
  public:
    // Without a path there is no meter. `book` has to outlive it.
    MeterPort(const std::filesystem::path& path, const std::string& version, MeterBook& book);

    // What is to be watched; the meter is told when it differs from the last. At most metering::kGroupsLimit
    // (chooseMetered), the rest is left out. Returns the groups that the meter is told to join. One thread;
    // at once.
    std::set<uint32_t> watch(std::vector<MeteredChannel> channels);

  private:
    MeterBook& book_;
    std::optional<std::vector<MeteredChannel>> watched_;
    uint64_t revision_ = 0;
    std::optional<PeerPort> port_;
};

}  // namespace station
