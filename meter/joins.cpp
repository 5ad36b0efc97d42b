#include "joins.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace meterd {

namespace {

// Each holds as many as net.ipv4.igmp_max_memberships allows, which is 20 unless somebody raised it.
constexpr std::size_t kSocketsLimit = 512;

sockaddr_storage addressOf(uint32_t address) {
    sockaddr_storage storage{};
    auto& internet = reinterpret_cast<sockaddr_in&>(storage);
    internet.sin_family = AF_INET;
    internet.sin_addr.s_addr = htonl(address);
    return storage;
}

// Zero, or errno.
int change(int descriptor, int interface, const Membership& membership, bool join) {
    int status = 0;
    if (membership.source) {
        group_source_req request{};
        request.gsr_interface = static_cast<uint32_t>(interface);
        request.gsr_group = addressOf(membership.group);
        request.gsr_source = addressOf(*membership.source);
        status = setsockopt(descriptor, IPPROTO_IP, join ? MCAST_JOIN_SOURCE_GROUP : MCAST_LEAVE_SOURCE_GROUP,
                            &request, sizeof request);
    } else {
        group_req request{};
        request.gr_interface = static_cast<uint32_t>(interface);
        request.gr_group = addressOf(membership.group);
        status = setsockopt(descriptor, IPPROTO_IP, join ? MCAST_JOIN_GROUP : MCAST_LEAVE_GROUP, &request,
                            sizeof request);
    }
    return status == 0 ? 0 : errno;
}

}  // namespace

Joins::~Joins() {
    leaveAll();
}

std::vector<JoinedGroup> Joins::apply(int interface, const std::vector<Membership>& wanted) {
    if (interface != interface_) {
        leaveAll();
        interface_ = interface;
    }
    std::vector<Membership> sorted = wanted;
    std::ranges::sort(sorted);
    for (auto entry = joined_.begin(); entry != joined_.end();) {
        if (std::ranges::binary_search(sorted, entry->first)) {
            ++entry;
        } else {
            leave(entry->first, entry->second);
            entry = joined_.erase(entry);
        }
    }
    std::vector<JoinedGroup> joined;
    failures_ = 0;
    problem_.clear();
    for (const Membership& membership : sorted) {
        if (joined_.contains(membership)) {
            continue;
        }
        const int64_t begin =
            std::chrono::steady_clock::now().time_since_epoch() / std::chrono::nanoseconds(1);
        if (interface_ == 0) {
            problem_ = "there is no such interface";
            ++failures_;
        } else if (join(membership)) {
            joined.push_back({membership.group, begin});
        } else {
            ++failures_;
        }
    }
    return joined;
}

bool Joins::join(const Membership& membership) {
    for (std::size_t i = 0; i <= sockets_.size() && i < kSocketsLimit; ++i) {
        if (i == sockets_.size()) {
            const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
            if (descriptor < 0) {
                problem_ = std::string("no socket: ") + std::strerror(errno);
                return false;
            }
            sockets_.push_back({descriptor, 0, false});
        }
        Socket& socket = sockets_[i];
        if (socket.full) {
            continue;
        }
        const int error = change(socket.descriptor, interface_, membership, true);
        if (error == 0) {
            ++socket.members;
            joined_.emplace(membership, i);
            return true;
        }
        if (error != ENOBUFS || socket.members == 0) {
            problem_ = std::strerror(error);
            return false;
        }
        socket.full = true;
    }
    problem_ = "more memberships than " + std::to_string(kSocketsLimit) +
               " sockets hold; sysctl net.ipv4.igmp_max_memberships raises it";
    return false;
}

void Joins::leave(const Membership& membership, std::size_t socket) {
    change(sockets_[socket].descriptor, interface_, membership, false);
    --sockets_[socket].members;
    sockets_[socket].full = false;
}

void Joins::leaveAll() {
    for (const Socket& socket : sockets_) {
        close(socket.descriptor);
    }
    sockets_.clear();
    joined_.clear();
}

}  // namespace meterd
