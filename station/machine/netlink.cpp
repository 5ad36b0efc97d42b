#include "machine/netlink.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace station {

namespace {

constexpr std::size_t kBuffer = 64 << 10;  // the kernel fills at most 32 KiB at once
constexpr timeval kPatience{5, 0};

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

template <typename T>
T readRecord(std::span<const std::byte> bytes) {
    T record{};
    std::memcpy(&record, bytes.data(), std::min(bytes.size(), sizeof record));
    return record;
}

std::size_t aligned(std::size_t length) {
    return (length + NLMSG_ALIGNTO - 1) / NLMSG_ALIGNTO * NLMSG_ALIGNTO;
}

}  // namespace

NetlinkAttributes::NetlinkAttributes(std::span<const std::byte> bytes) {
    while (bytes.size() >= sizeof(rtattr)) {
        const auto header = readRecord<rtattr>(bytes);
        if (header.rta_len < sizeof header || header.rta_len > bytes.size()) {
            return;
        }
        attributes_.emplace_back(header.rta_type & NLA_TYPE_MASK,
                                 bytes.subspan(sizeof header, header.rta_len - sizeof header));
        bytes = bytes.subspan(std::min(aligned(header.rta_len), bytes.size()));
    }
}

std::span<const std::byte> NetlinkAttributes::find(uint16_t type) const {
    const auto found = std::ranges::find(attributes_.rbegin(), attributes_.rend(), type,
                                         [](const auto& attribute) { return attribute.first; });
    return found == attributes_.rend() ? std::span<const std::byte>{} : found->second;
}

void NetlinkAttributes::copy(uint16_t type, std::span<std::byte> into) const {
    const auto from = find(type);
    std::ranges::copy(from.first(std::min(from.size(), into.size())), into.begin());
}

NetlinkSocket::NetlinkSocket()
    : socket_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)), buffer_(kBuffer) {
    if (!socket_.isOpen()) {
        fail("netlink");
    }
    setsockopt(socket_.number(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
}

int NetlinkSocket::ask(uint16_t type, uint16_t flags, std::span<const std::byte> body,
                       const NetlinkVisitor& visit) {
    nlmsghdr header{};
    header.nlmsg_len = static_cast<uint32_t>(sizeof header + body.size());
    header.nlmsg_type = type;
    header.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    header.nlmsg_seq = ++sequence_;
    std::vector<std::byte> request(header.nlmsg_len);
    std::memcpy(request.data(), &header, sizeof header);
    std::ranges::copy(body, request.begin() + sizeof header);
    if (send(socket_.number(), request.data(), request.size(), 0) < 0) {
        fail("netlink: send");
    }
    const bool dump = (flags & NLM_F_DUMP) == NLM_F_DUMP;
    for (;;) {
        const ssize_t received = recv(socket_.number(), buffer_.data(), buffer_.size(), 0);
        if (received < 0 && errno == EINTR) {
            continue;
        }
        if (received < 0) {
            fail("netlink: receive");
        }
        std::span<const std::byte> left(buffer_.data(), static_cast<std::size_t>(received));
        while (left.size() >= sizeof header) {
            const auto answer = readRecord<nlmsghdr>(left);
            if (answer.nlmsg_len < sizeof answer || answer.nlmsg_len > left.size()) {
                break;
            }
            const auto content = left.subspan(sizeof answer, answer.nlmsg_len - sizeof answer);
            left = left.subspan(std::min(aligned(answer.nlmsg_len), left.size()));
            if (answer.nlmsg_seq != sequence_) {
                continue;  // of a question that was given up
            }
            if (answer.nlmsg_type == NLMSG_ERROR) {
                return -readRecord<nlmsgerr>(content).error;
            }
            if (answer.nlmsg_type == NLMSG_DONE) {
                return -readRecord<int>(content);
            }
            visit(answer.nlmsg_type, content);
            if (!dump) {
                return 0;
            }
        }
    }
}

}  // namespace station
