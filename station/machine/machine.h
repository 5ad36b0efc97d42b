// What this machine is to a probe: its network interfaces, which of them the probe captures on, where groups
// are joined, where they would be joined, and what the kernel counts as dropped. Only looks: nothing is
// changed, joined, opened for capture or left behind, and no right is needed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace station {

using Ipv4Address = uint32_t;  // host byte order

// What a name has to contain for the probe to capture there.
inline constexpr std::string_view kCaptureName = "eth0";

// One network interface, in the network namespace of the caller (sysfs may be that of another one).
struct NetworkInterface {
    // RFC 2863, 3.1.14, in the kernel's numbering.
    enum class State : uint8_t { kUnknown, kNotPresent, kDown, kLowerLayerDown, kTesting, kDormant, kUp };
    // Since the interface was made; each may wrap or begin anew with the driver.
    struct Counters {
        uint64_t packets = 0, bytes = 0;  // received
        uint64_t errors = 0;              // damaged frames
        uint64_t dropped = 0;  // for want of memory, or of somebody who wants it: also ordinary frames of
                               // protocols that nobody listens to, while nothing captures on the interface
        uint64_t missed = 0;   // the card's ring was full
        uint64_t fifo = 0;     // the card's own memory was full
    };

    std::string name{};
    std::string alias{};  // an alternative name or description given by the administrator; mostly empty
    std::string kind{};   // "veth", "vlan", "bridge", "bond", ...; empty for a card
    int index = 0;
    int lower = 0;   // index of the interface below it (of a VLAN) or at its other end (of a veth), or 0
    int master = 0;  // index of the bridge, bond, ... that it is a port of, or 0
    bool loopback = false;
    bool multicast = false;         // takes multicast at all
    bool up = false;                // set up by the administrator
    bool running = false;           // up, and its state lets packets pass
    bool carrier = false;           // always false while it is not up
    State state = State::kUnknown;  // virtual cards often stay kUnknown and work
    uint32_t carrierChanges = 0;    // losses and returns since it was made
    uint32_t mtu = 0;
    std::optional<uint64_t> bitsPerSecond{};  // by its link; nothing where there is none or it does not say
    std::vector<Ipv4Address> addresses{};
    Counters received{};
};
// "up", "down", "lower layer down", ...
std::string_view interfaceStateName(NetworkInterface::State state);

// All interfaces in the order of indexes, by rtnetlink and ethtool. A call takes some 0.1 ms, and waits while
// somebody else changes an interface, which may take seconds. Throws std::system_error when the kernel cannot
// be asked (no AF_NETLINK).
std::vector<NetworkInterface> readInterfaces();

// Interfaces on which somebody captures with a packet socket for all protocols, by index; -1 for one that is
// not bound to an interface. Sockets with these inodes are somebody's who is known and not counted. Reads
// PROC/self/net/packet; empty where that cannot be read.
std::set<int> readCaptured(const std::filesystem::path& proc = "/proc", const std::set<uint64_t>& known = {});

// The interface that the probe captures on, or null. That is the first whose name contains "eth0" (eth0,
// veth0, eth0.100, ...) in libpcap's order: those that are up, then running, then connected come first, then
// the loopback last, then those with the lower number at the end of the name, then the lower index. The probe
// looks when it starts and never again, so that of several the ones that somebody captures on go before.
const NetworkInterface* findCaptureInterface(std::span<const NetworkInterface> interfaces,
                                             const std::set<int>& captured = {});

// Names of that interface and of all that stand on it and so receive by it: its bridge or bond, VLANs.
std::set<std::string> interfacesOn(const NetworkInterface& card,
                                   std::span<const NetworkInterface> interfaces);

// Which groups are joined on which interface.
struct Memberships {
    bool known = false;                                 // false: it cannot be read, which tells nothing
    std::map<std::string, std::set<Ipv4Address>> on{};  // by the interface's name; without 224.0.0.1

    // Of 224.0.0.1 always true.
    bool joined(const std::string& interface, Ipv4Address group) const;
    // Names of all interfaces on which it is joined, in the order of names.
    std::vector<std::string> where(Ipv4Address group) const;
};
// Reads PROC/self/net/igmp: memberships of all programs of the network namespace. Names longer than the
// kernel's 15 bytes do not exist, so none is cut. Some 1 ms for 1000 memberships.
Memberships readMemberships(const std::filesystem::path& proc = "/proc");

// Where the kernel would join a group for a program that names no interface, as the probe does.
struct GroupRoute {
    int interface = 0;  // its index; 0 when there is no route
    int error = 0;  // errno of the kernel's answer: ENETUNREACH without a route, EACCES where one prohibits
};
// By rtnetlink (RTM_GETROUTE), so that policy rules count; one answer a group, in their order. Some 10 us a
// group. Throws std::system_error when the kernel cannot be asked.
std::vector<GroupRoute> readRoutes(std::span<const Ipv4Address> groups);

// Sums over all processors of what the kernel did with received packets (PROC/self/net/softnet_stat). Of the
// machine, not of the network namespace or one interface; 32-bit counters that wrap a processor at a time.
struct Softnet {
    uint64_t processed = 0;
    uint64_t dropped = 0;      // a processor's backlog was full (net.core.netdev_max_backlog)
    uint64_t timeSqueeze = 0;  // work was left over when the time for it was up; costs delay, not packets

    std::vector<uint32_t> droppedByCpu{};  // as read: to take differences that survive a wrap
};
std::optional<Softnet> readSoftnet(const std::filesystem::path& proc = "/proc");

// Groups that one socket may join (net.ipv4.igmp_max_memberships), or nothing where it cannot be read: a
// service with ProcSubset=pid does not see it. The probe joins all of its groups by one socket.
std::optional<uint32_t> readMembershipLimit(const std::filesystem::path& proc = "/proc");

std::string addressText(Ipv4Address address);  // dotted quad

}  // namespace station
