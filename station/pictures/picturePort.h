// Where kestor-picture connects.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/peerPort.h"
#include "pictures/pictureBook.h"

namespace station {

// A channel as kestor-picture is told it.
struct PicturedChannel {
    uint32_t group = 0;     // host byte order
    bool urgent = false;    // it has a raised alarm
    bool lookedAt = false;  // somebody sees its picture

    bool operator==(const PicturedChannel&) const = default;
};

// Where kestor-picture connects (PeerPort): tells it the channels and has what it takes kept in a book.
class PicturePort {
  public:
    // Without a path there are no pictures. `book` has to outlive it.
    PicturePort(const std::filesystem::path& path, const std::string& version, PictureBook& book);

    // What it is to take pictures of, and with what share of the machine (processors); it is told when either
    // differs from the last. At most picturing::kChannelsLimit, the rest is left out. One thread; at once.
    void tell(std::vector<PicturedChannel> channels, double cores);

  private:
    PictureBook& book_;
    std::optional<std::pair<std::vector<PicturedChannel>, double>> told_;
    uint64_t revision_ = 0;
    std::optional<PeerPort> port_;
};

}  // namespace station
