#include "machine/machine.h"

#include <arpa/inet.h>
#include <linux/if_ether.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <fstream>

#include "basics/address.h"
#include "machine/netlink.h"

namespace station {

namespace {

constexpr Ipv4Address kAllHosts = 0xE0000001;  // every interface is a member of it (RFC 1112, 4)
constexpr std::size_t kWordsOfSoftnet = 3;

std::vector<std::string_view> words(std::string_view line) {
    constexpr std::string_view kBlanks = " \t";
    std::vector<std::string_view> found;
    for (;;) {
        line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
        if (line.empty()) {
            return found;
        }
        const std::size_t end = std::min(line.find_first_of(kBlanks), line.size());
        found.push_back(line.substr(0, end));
        line.remove_prefix(end);
    }
}

template <typename T>
std::optional<T> number(std::string_view text, int base) {
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(value) : std::nullopt;
}

// Calls `take` with the words of each line; false when the file cannot be read.
template <typename Visit>
bool readLines(const std::filesystem::path& path, Visit visit) {
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        visit(line, words(line));
    }
    return file.eof();
}

}  // namespace

std::string addressText(Ipv4Address address) {
    return basics::dotted(address);
}

std::set<int> readCaptured(const std::filesystem::path& proc, const std::set<uint64_t>& known) {
    std::set<int> indexes;
    readLines(proc / "self/net/packet", [&](const std::string& /*line*/, const auto& columns) {
        // sk RefCnt Type Proto Iface R Rmem User Inode
        if (columns.size() >= 9 && number<uint32_t>(columns[3], 16) == uint32_t{ETH_P_ALL} &&
            !known.contains(number<uint64_t>(columns[8], 10).value_or(0))) {
            if (const auto index = number<int>(columns[4], 10)) {
                indexes.insert(*index == 0 ? -1 : *index);
            }
        }
    });
    return indexes;
}

bool Memberships::joined(const std::string& interface, Ipv4Address group) const {
    if (group == kAllHosts) {
        return true;
    }
    const auto found = on.find(interface);
    return found != on.end() && found->second.contains(group);
}

std::vector<std::string> Memberships::where(Ipv4Address group) const {
    std::vector<std::string> names;
    for (const auto& [name, groups] : on) {
        if (groups.contains(group)) {
            names.push_back(name);
        }
    }
    return names;
}

Memberships readMemberships(const std::filesystem::path& proc) {
    Memberships memberships;
    std::set<Ipv4Address>* groups = nullptr;
    memberships.known = readLines(proc / "self/net/igmp", [&](const std::string& line, const auto& columns) {
        if (columns.size() >= 2 && line.front() != '\t' && number<int>(columns[0], 10)) {
            groups = &memberships.on[std::string(columns[1].substr(0, columns[1].find(':')))];
            return;
        }
        // A group's line is indented: its address as the machine has it in memory, users, timer, reporter.
        if (columns.size() >= 4 && line.front() == '\t' && groups != nullptr) {
            const auto stored = number<uint32_t>(columns[0], 16);
            if (stored && ntohl(*stored) != kAllHosts) {
                groups->insert(groups->end(), ntohl(*stored));
            }
        }
    });
    return memberships;
}

std::vector<GroupRoute> readRoutes(std::span<const Ipv4Address> groups) {
    struct {
        rtmsg message;
        rtattr destinationHeader;
        uint32_t destination;
        rtattr userHeader;
        uint32_t user;
    } request{};
    request.message.rtm_family = AF_INET;
    request.message.rtm_dst_len = 32;
    request.destinationHeader = {sizeof(rtattr) + sizeof(uint32_t), RTA_DST};
    // A join looks for the route in root's name, whoever asks for it.
    request.userHeader = {sizeof(rtattr) + sizeof(uint32_t), RTA_UID};
    static_assert(sizeof request == sizeof(rtmsg) + 2 * (sizeof(rtattr) + sizeof(uint32_t)));

    NetlinkSocket kernel;
    std::vector<GroupRoute> routes;
    routes.reserve(groups.size());
    for (const Ipv4Address group : groups) {
        request.destination = htonl(group);
        GroupRoute route;
        route.error = kernel.ask(RTM_GETROUTE, 0, std::as_bytes(std::span(&request, 1)),
                                 [&](uint16_t type, std::span<const std::byte> body) {
                                     if (type == RTM_NEWROUTE && body.size() > sizeof(rtmsg)) {
                                         const NetlinkAttributes attributes(body.subspan(sizeof(rtmsg)));
                                         route.interface = attributes.value<int>(RTA_OIF);
                                     }
                                 });
        routes.push_back(route);
    }
    return routes;
}

std::optional<Softnet> readSoftnet(const std::filesystem::path& proc) {
    Softnet sums;
    const bool read =
        readLines(proc / "self/net/softnet_stat", [&](const std::string& /*line*/, const auto& columns) {
            if (columns.size() < kWordsOfSoftnet) {
                return;
            }
            const uint32_t dropped = number<uint32_t>(columns[1], 16).value_or(0);
            sums.processed += number<uint32_t>(columns[0], 16).value_or(0);
            sums.dropped += dropped;
            sums.timeSqueeze += number<uint32_t>(columns[2], 16).value_or(0);
            sums.droppedByCpu.push_back(dropped);
        });
    return read ? std::optional(std::move(sums)) : std::nullopt;
}

std::optional<uint32_t> readMembershipLimit(const std::filesystem::path& proc) {
    std::optional<uint32_t> limit;
    readLines(proc / "sys/net/ipv4/igmp_max_memberships",
              [&](const std::string& /*line*/, const auto& columns) {
                  if (!columns.empty()) {
                      limit = number<uint32_t>(columns[0], 10);
                  }
              });
    return limit;
}

}  // namespace station
