// Multicast memberships of the meter's own: groups with a source, and those that nobody else joins.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace meterd {

struct Membership {
    uint32_t group = 0;              // host byte order
    std::optional<uint32_t> source;  // with one: source-specific (RFC 3678)

    auto operator<=>(const Membership&) const = default;
};
struct JoinedGroup {
    uint32_t group = 0;
    int64_t at = 0;  // by the steady clock, in ns: just before the kernel was asked
};

// Sockets are never bound: they hold memberships and receive nothing. One thread uses it.
class Joins {
  public:
    Joins() = default;
    ~Joins();
    Joins(const Joins&) = delete;

    // Leaves what is not wanted, joins what is not joined; what could not be joined is tried again with each
    // call. Another interface (its index; 0: there is none now, and all fail) begins anew. Returns what was
    // joined by this call.
    std::vector<JoinedGroup> apply(int interface, const std::vector<Membership>& wanted);

    std::size_t joined() const {
        return joined_.size();
    }
    std::size_t failures() const {
        return failures_;
    }
    // Why the last one that failed did, for people.
    const std::string& problem() const {
        return problem_;
    }

  private:
    struct Socket {
        int descriptor = -1;
        std::size_t members = 0;
        bool full = false;
    };
    bool join(const Membership& membership);
    void leave(const Membership& membership, std::size_t socket);
    void leaveAll();

    int interface_ = 0;
    std::vector<Socket> sockets_;
    std::map<Membership, std::size_t> joined_;  // to the socket
    std::size_t failures_ = 0;
    std::string problem_;
};

}  // namespace meterd
