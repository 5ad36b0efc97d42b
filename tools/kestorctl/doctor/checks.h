// Judges what was seen of this machine: one finding or more a subject. Nothing here reads anything but what a
// root is given for.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "facts.h"
#include "finding.h"
#include "machine/machine.h"

namespace doctor {

// What the station says of itself and the probe.
struct StationLook {
    enum class Reach : uint8_t { kNobody, kForbidden, kSilent, kAnswers };

    Reach reach = Reach::kNobody;
    std::string socket{};   // where it was looked for
    std::string silence{};  // of kSilent: what went wrong
    // Of kAnswers:
    std::string version{};
    bool connected = false;  // results come from the probe
    std::string problem{};   // what is wrong between probe and station
    int64_t watched = 0, withSignal = 0;
    std::size_t notes = 0;
    bool passive = false;
    std::vector<station::Ipv4Address> groups{};  // that are to be watched
    std::optional<bool> captured{};              // somebody captures for the probe
    // Of the meter; nothing where the station waits for none.
    struct Meter {
        bool connected = false, silent = false;
        std::string problem{};  // of its connection, its capture or its joins
        int64_t groups = 0, reported = 0;
    };
    std::optional<Meter> meter{};
    // Of kestor-picture, likewise.
    struct Pictures {
        bool connected = false, silent = false;
        bool meter = false;  // it gets packets
        std::string problem{};
        int64_t held = 0;                 // pictures, one a channel
        int64_t taken = 0, failed = 0;    // turns with and without one
        std::optional<double> seconds{};  // between two pictures of a channel
        std::size_t leftOut = 0;          // channels, since they killed decoders
    };
    std::optional<Pictures> pictures{};

    bool answers() const {
        return reach == Reach::kAnswers;
    }
};

// Who captures on which interface.
struct Captures {
    std::set<int> on{};
    bool others = false;  // the meter may be among those, since its sockets could not be seen
};

// Who asks.
struct Caller {
    uid_t id = 0;
    std::string name{};
    std::set<gid_t> groups{};
};

// As far as the kernel tells.
struct Clock {
    bool known = false;
    bool synchronised = false;
};

// Of the file system that the station writes to.
struct Disk {
    std::string directory{};  // the state directory, or what there is of the way to it
    bool known = false;
    bool readOnly = false;
    uint64_t freeBytes = 0;
    uint64_t freeFiles = 0;  // 0 with filesCounted false says nothing
    bool filesCounted = false;
};

Finding checkServices(const fs::path& root, const Processes& processes, const StationLook& station);
// That the station and the meter, where it runs, have found each other.
Findings checkMeter(const Processes& processes, const StationLook& station);
// Likewise for kestor-picture, where it is installed or runs, and that pictures come.
Findings checkPictures(const fs::path& root, const Processes& processes, const StationLook& station);
Findings checkInterface(std::span<const station::NetworkInterface> interfaces, const Captures& captures,
                        const Processes& processes, const StationLook& station);
// `capture` may be null; `groups` and `routes` go together. Groups that nobody named are examples: only where
// they would be joined is told.
Finding checkRoutes(std::span<const station::NetworkInterface> interfaces,
                    const station::NetworkInterface* capture, std::span<const station::Ipv4Address> groups,
                    std::span<const station::GroupRoute> routes, const StationLook& station);
Finding checkMemberships(std::span<const station::NetworkInterface> interfaces,
                         const station::NetworkInterface* capture, const station::Memberships& memberships,
                         const StationLook& station);
Findings checkLimits(const fs::path& root, std::size_t groups);
Finding checkPipe(const fs::path& root);
Finding checkPort(const fs::path& root, const Processes& processes);
Finding checkSocket(const StationLook& station);
Finding checkUser(const fs::path& root, const Caller& caller);
Findings checkResults(const StationLook& station);
Finding checkClock(const Clock& clock);
// `state` as readStateDirectory() has it.
Findings checkDisk(const fs::path& root, const std::optional<fs::path>& state, const Disk& disk);
// `packages` as readPackages() has them.
Finding checkVersions(const std::string& own, const std::map<std::string, std::string>& packages,
                      const StationLook& station, const Processes& processes);

}  // namespace doctor
