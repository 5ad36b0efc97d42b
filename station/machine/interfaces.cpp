#include <arpa/inet.h>
#include <linux/ethtool.h>
#include <linux/sockios.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <tuple>

#include "basics/descriptor.h"
#include "machine/machine.h"
#include "machine/netlink.h"

namespace station {

namespace {

using namespace std::string_view_literals;
using State = NetworkInterface::State;

constexpr std::array kStateNames{"unknown"sv, "not present"sv, "down"sv, "lower layer down"sv,
                                 "testing"sv, "dormant"sv,     "up"sv};

// Of <linux/if.h>, which does not go together with <net/if.h>.
constexpr unsigned kFlagUp = 1;
constexpr unsigned kFlagLoopback = 1U << 3;
constexpr unsigned kFlagRunning = 1U << 6;
constexpr unsigned kFlagMulticast = 1U << 12;
constexpr unsigned kFlagLowerUp = 1U << 16;

template <typename T>
std::span<const std::byte> bytesOf(const T& record) {
    return std::as_bytes(std::span(&record, 1));
}

template <typename T>
T leading(std::span<const std::byte> bytes) {
    T record{};
    std::memcpy(&record, bytes.data(), std::min(bytes.size(), sizeof record));
    return record;
}

std::string text(std::span<const std::byte> bytes) {
    std::string result(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return result.substr(0, result.find('\0'));
}

NetworkInterface readLink(std::span<const std::byte> body) {
    const auto link = leading<ifinfomsg>(body);
    const NetlinkAttributes attributes(body.subspan(std::min(body.size(), sizeof link)));
    NetworkInterface result;
    result.name = text(attributes.find(IFLA_IFNAME));
    result.alias = text(attributes.find(IFLA_IFALIAS));
    result.kind = text(NetlinkAttributes(attributes.find(IFLA_LINKINFO)).find(IFLA_INFO_KIND));
    result.index = link.ifi_index;
    result.lower = attributes.value<int>(IFLA_LINK);
    result.master = attributes.value<int>(IFLA_MASTER);
    result.loopback = (link.ifi_flags & kFlagLoopback) != 0;
    result.multicast = (link.ifi_flags & kFlagMulticast) != 0;
    result.up = (link.ifi_flags & kFlagUp) != 0;
    result.running = (link.ifi_flags & kFlagRunning) != 0;
    result.carrier = result.up && (link.ifi_flags & kFlagLowerUp) != 0;
    result.state = static_cast<State>(
        std::min<uint8_t>(attributes.value<uint8_t>(IFLA_OPERSTATE), static_cast<uint8_t>(State::kUp)));
    result.carrierChanges = attributes.value<uint32_t>(IFLA_CARRIER_CHANGES);
    result.mtu = attributes.value<uint32_t>(IFLA_MTU);
    const auto counters = attributes.value<rtnl_link_stats64>(IFLA_STATS64);
    result.received = {.packets = counters.rx_packets,
                       .bytes = counters.rx_bytes,
                       .errors = counters.rx_errors,
                       .dropped = counters.rx_dropped,
                       .missed = counters.rx_missed_errors,
                       .fifo = counters.rx_fifo_errors};
    return result;
}

void readAddresses(NetlinkSocket& kernel, std::vector<NetworkInterface>& interfaces) {
    ifaddrmsg request{};
    request.ifa_family = AF_INET;
    kernel.ask(
        RTM_GETADDR, NLM_F_DUMP, bytesOf(request), [&](uint16_t type, std::span<const std::byte> body) {
            const auto message = leading<ifaddrmsg>(body);
            const auto found =
                std::ranges::find(interfaces, static_cast<int>(message.ifa_index), &NetworkInterface::index);
            if (type != RTM_NEWADDR || message.ifa_family != AF_INET || found == interfaces.end()) {
                return;
            }
            const NetlinkAttributes attributes(body.subspan(std::min(body.size(), sizeof message)));
            const uint16_t own = attributes.find(IFA_LOCAL).empty() ? IFA_ADDRESS : IFA_LOCAL;
            found->addresses.push_back(ntohl(attributes.value<uint32_t>(own)));
        });
}

// The link's speed, which is asked for in two steps: the first one tells how long the answer will be.
std::optional<uint64_t> readSpeed(int socket, const std::string& name) {
    constexpr std::size_t kModes = std::size_t{3} * 127;  // 32-bit words behind the record, at the most
    alignas(ethtool_link_settings) std::array<std::byte, sizeof(ethtool_link_settings) + kModes * 4> memory{};
    const auto ask = [&memory, socket, &name](ethtool_link_settings& link) {
        link.cmd = ETHTOOL_GLINKSETTINGS;
        std::memcpy(memory.data(), &link, sizeof link);
        ifreq request{};
        name.copy(request.ifr_name, IFNAMSIZ - 1);
        request.ifr_data = reinterpret_cast<char*>(memory.data());
        const bool done = ioctl(socket, SIOCETHTOOL, &request) == 0;
        std::memcpy(&link, memory.data(), sizeof link);
        return done;
    };
    ethtool_link_settings link{};
    if (!ask(link) || link.link_mode_masks_nwords >= 0) {
        return std::nullopt;
    }
    link.link_mode_masks_nwords = static_cast<int8_t>(-link.link_mode_masks_nwords);
    if (!ask(link) || link.speed == 0 || link.speed == static_cast<uint32_t>(SPEED_UNKNOWN)) {
        return std::nullopt;
    }
    return uint64_t{link.speed} * 1'000'000;
}

// Lower comes first, as libpcap sorts devices.
auto merit(const NetworkInterface& interface, const std::set<int>& captured) {
    uint64_t number = 0;
    for (const char digit : interface.name.substr(interface.name.find_last_not_of("0123456789") + 1)) {
        number = number * 10 + static_cast<uint64_t>(digit - '0');
    }
    return std::tuple(!captured.contains(interface.index), !interface.running, !interface.up,
                      !interface.carrier, interface.loopback, number, interface.index);
}

// A veth names its other end, which may be one of another network namespace.
bool standsOn(const NetworkInterface& upper, const NetworkInterface& lower) {
    return lower.master == upper.index || (upper.lower == lower.index && upper.kind != "veth");
}

}  // namespace

std::string_view interfaceStateName(State state) {
    return kStateNames.at(static_cast<std::size_t>(state));
}

std::vector<NetworkInterface> readInterfaces() {
    NetlinkSocket kernel;
    std::vector<NetworkInterface> interfaces;
    ifinfomsg request{};
    kernel.ask(RTM_GETLINK, NLM_F_DUMP, bytesOf(request),
               [&](uint16_t type, std::span<const std::byte> body) {
                   if (type == RTM_NEWLINK) {
                       interfaces.push_back(readLink(body));
                   }
               });
    readAddresses(kernel, interfaces);
    const basics::Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (socket.isOpen()) {
        for (NetworkInterface& interface : interfaces) {
            if (interface.carrier && !interface.loopback) {
                interface.bitsPerSecond = readSpeed(socket.number(), interface.name);
            }
        }
    }
    std::ranges::sort(interfaces, {}, &NetworkInterface::index);
    return interfaces;
}

const NetworkInterface* findCaptureInterface(std::span<const NetworkInterface> interfaces,
                                             const std::set<int>& captured) {
    const NetworkInterface* best = nullptr;
    for (const NetworkInterface& interface : interfaces) {
        if (interface.name.find(kCaptureName) != std::string::npos &&
            (best == nullptr || merit(interface, captured) < merit(*best, captured))) {
            best = &interface;
        }
    }
    return best;
}

std::set<std::string> interfacesOn(const NetworkInterface& card,
                                   std::span<const NetworkInterface> interfaces) {
    std::set<std::string> names{card.name};
    std::vector<const NetworkInterface*> found{&card};
    for (std::size_t next = 0; next < found.size(); ++next) {
        for (const NetworkInterface& upper : interfaces) {
            if (standsOn(upper, *found[next]) && names.insert(upper.name).second) {
                found.push_back(&upper);
            }
        }
    }
    return names;
}

}  // namespace station
