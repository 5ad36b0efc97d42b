// Looks at this machine about once a second, on a thread of its own.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "common/clock.h"
#include "machine/captureAdvice.h"
#include "machine/machine.h"

namespace station {

// A group that is joined neither on the interface that the probe captures on, nor on one that stands on it.
struct AstrayGroup {
    Ipv4Address group = 0;
    std::vector<std::string> joinedOn{};  // other interfaces; empty where it is joined nowhere
    std::string route{};                  // the interface that its route leads to; empty without a route
    int routeError = 0;                   // errno of the kernel's answer where there is no route
    bool routeFits = false;               // joined anew it would be where it should

    bool operator==(const AstrayGroup&) const = default;
};

// One look.
struct MachineReading {
    Now time{};
    std::string problem{};  // why the kernel cannot be asked, or empty; then nothing is known
    std::optional<NetworkInterface>
        capture{};           // the interface that the probe captures on; nothing without one
    CaptureAdvice advice{};  // what keeps a probe that is started from capturing
    bool captured = false;   // somebody captures there, beside those that are known to be others
    bool membershipsKnown = false;
    std::vector<AstrayGroup> astray{};  // of the watched groups, in their order
    // Of the watched groups that are joined there, those that are joined on interfaces beside it as well.
    std::size_t doubled = 0;
    std::set<std::string> doubledOn{};
    // Of the groups that were watched before, those that are joined all the same, and where.
    std::size_t left = 0;
    std::set<std::string> leftOn{};
    std::optional<Softnet> softnet{};
    std::optional<uint32_t> membershipLimit{};
};

// Where a reading comes from; tests pass their own.
struct MachineSources {
    std::filesystem::path proc = "/proc";
    std::function<std::vector<NetworkInterface>()> interfaces = readInterfaces;
    std::function<std::vector<GroupRoute>(std::span<const Ipv4Address>)> routes = readRoutes;
};

// Makes one reading after the other. Routes are asked for groups that are astray alone. One thread.
class MachineLooker {
  public:
    // With more groups astray than that, their routes are asked for again only after kRoutesAge.
    static constexpr std::size_t kManyAstray = 200;
    static constexpr std::chrono::seconds kRoutesAge{5};
    // Groups that are not watched any more and still joined: until then the probe may just be leaving them.
    // More of them than the bound are not looked at.
    static constexpr std::chrono::seconds kLeaveTakes{10};
    static constexpr std::size_t kLeftGroups = 10'000;

    explicit MachineLooker(MachineSources sources = {}) : sources_(std::move(sources)) {}

    // `watched` in any order; `others` are inodes of packet sockets that are not the probe's. Throws nothing:
    // what fails stands in the reading.
    MachineReading look(const std::vector<Ipv4Address>& watched, const Now& now,
                        const std::set<uint64_t>& others = {});

  private:
    static void findDoubled(const std::vector<Ipv4Address>& watched, const Memberships& memberships,
                            const std::set<std::string>& right, MachineReading& reading);
    void findAstray(const std::vector<Ipv4Address>& watched, const std::vector<NetworkInterface>& interfaces,
                    MachineReading& reading);
    void findLeft(const std::vector<Ipv4Address>& watched, const Memberships& memberships,
                  MachineReading& reading);

    MachineSources sources_;
    // The last routes, of these groups and of that time.
    std::vector<Ipv4Address> routedGroups_;
    std::vector<GroupRoute> routes_;
    SteadyTime routesTime_;
    std::set<Ipv4Address> watchedBefore_;
    std::map<Ipv4Address, SteadyTime> left_;  // joined, watched no more, since when
};

// A thread with a MachineLooker. The kernel answers when nobody is changing an interface, which may take
// seconds; nothing else waits for it.
class MachineReader {
  public:
    static constexpr std::chrono::milliseconds kPause{1000};  // between two readings

    explicit MachineReader(MachineSources sources = {});
    ~MachineReader();  // ends the thread, at once unless the kernel keeps it waiting
    MachineReader(const MachineReader&) = delete;

    // All of these: any thread.
    // From the next reading on. At once.
    void watch(std::vector<Ipv4Address> groups);
    // Packet sockets, by inode, that are not the probe's: what they capture is not captured for it.
    void setOthers(std::set<uint64_t> sockets);
    // The last reading, once; nothing when it was taken before. At once.
    std::optional<MachineReading> takeNewest();
    // The same with a reading that is made now; nothing when it takes longer than that.
    std::optional<MachineReading> lookNow(std::chrono::milliseconds atMost);

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
