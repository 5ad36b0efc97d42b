// One station's connection: what it sends.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "framing.h"
#include "meter.pb.h"

namespace meterd {

// The connection is to end: what came makes no sense, or the station wants no such meter; what() is a line
// for the log.
struct StationLost : std::runtime_error {
    StationLost(const std::string& what, bool refusal) : std::runtime_error(what), refused(refusal) {}
    bool refused;  // it will say the same in a second
};

// Takes bytes as they come and hands over what they say. Does no input or output. Whatever comes, it holds no
// more than a message (16 MiB) and what metering::kGroupsLimit groups become; further ones are left out. One
// thread.
class StationSession {
  public:
    struct Handlers {
        // The station is there and speaks this version; its own, for people. Before all groups.
        std::function<void(const std::string& version)> connected;
        std::function<void(const metering::Groups&)> groups;
    };
    // `version`: of this program, for people.
    StationSession(std::string version, Handlers handlers)
        : version_(std::move(version)), handlers_(std::move(handlers)) {}

    // Throws StationLost; nothing more is to be given to it then.
    void received(std::string_view bytes);
    // The station said who it is, and speaks this version.
    bool agreed() const {
        return agreed_;
    }

  private:
    void take(std::string_view message);
    void takeHello(std::string_view bytes);
    void takeGroups(std::string_view bytes);
    void takeRefused(std::string_view bytes);

    static constexpr std::size_t kHeadBytes = std::size_t{64} * 1024;  // all but a list's groups
    static constexpr std::size_t kGroupBytes = 1024;

    const std::string version_;
    const Handlers handlers_;
    metering::Unframer unframer_;
    bool agreed_ = false;
};

}  // namespace meterd
