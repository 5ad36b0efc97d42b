// Messages on a stream socket: each has its length in front, four bytes, most significant first.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

namespace google::protobuf {
class MessageLite;
}

namespace metering {

inline constexpr uint32_t kMajor = 1;  // sides with different ones do not talk
inline constexpr uint32_t kMinor = 1;
inline constexpr std::size_t kMessageLimit = std::size_t{16} * 1024 * 1024;
inline constexpr std::size_t kReportLimit =
    std::size_t{256} * 1024;  // a GroupReport; the station skips others
inline constexpr std::size_t kHappenedLimit = std::size_t{64} * 1024;
inline constexpr std::size_t kGroupsLimit = 4096;  // that a meter watches; it leaves out what is beyond
inline constexpr const char* kSocketPath = "/run/kestor/meter.sock";

// What libprotobuf says of each message that cannot be read would go to standard error, which may be full, as
// often as somebody sends one: from here on it says nothing. Of the whole program.
void quietParser();

// What came is no message; what() continues "sent ".
struct Unreadable : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The message with its length in front. Throws std::length_error beyond kMessageLimit.
std::string framed(const google::protobuf::MessageLite& message);

// Takes bytes as they come and gives whole messages. Holds at most one message that is not whole, and what
// came behind it with the same call.
class Unframer {
  public:
    void add(std::string_view bytes);
    // The next whole message, valid until the next call of add; none yet. Throws Unreadable for a length
    // beyond kMessageLimit: what follows means nothing then.
    std::optional<std::string_view> next();

  private:
    std::string bytes_;
    std::size_t taken_ = 0;
};

}  // namespace metering
