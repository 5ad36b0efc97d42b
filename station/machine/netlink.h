// Questions to the kernel by rtnetlink (RFC 3549).
#pragma once

#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "basics/descriptor.h"

namespace station {

// The attributes of a message by their types; where one stands twice the last holds. They refer to the
// message.
class NetlinkAttributes {
  public:
    // `bytes` begins at the first attribute.
    explicit NetlinkAttributes(std::span<const std::byte> bytes);

    std::span<const std::byte> find(uint16_t type) const;  // empty when it is not there
    // The attribute's leading bytes as a number or record; all zero where it is absent or shorter.
    template <typename T>
    T value(uint16_t type) const {
        T result{};
        copy(type, std::as_writable_bytes(std::span(&result, 1)));
        return result;
    }
    // As much of a record as the kernel knows; the rest stays zero.
    void copy(uint16_t type, std::span<std::byte> into) const;

  private:
    std::vector<std::pair<uint16_t, std::span<const std::byte>>> attributes_;
};

// One message of an answer: its type and what follows the netlink header.
using NetlinkVisitor = std::function<void(uint16_t type, std::span<const std::byte> body)>;

// A socket for one thread. Everything throws std::system_error when the kernel cannot be asked, also when it
// does not answer within 5 s.
class NetlinkSocket {
  public:
    NetlinkSocket();
    NetlinkSocket(const NetlinkSocket&) = delete;

    // Sends a request of that type with these flags beside NLM_F_REQUEST and calls `take` for each message of
    // the answer. Returns 0, or the errno that the kernel answers with.
    int ask(uint16_t type, uint16_t flags, std::span<const std::byte> body, const NetlinkVisitor& visit);

  private:
    basics::Descriptor socket_;
    uint32_t sequence_ = 0;
    std::vector<std::byte> buffer_;
};

}  // namespace station
