// What the meter and the station say to kestor-picture, as it comes.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "framing.h"
#include "picture.pb.h"
#include "turns.h"

namespace pictured {

// The connection is to end: what came makes no sense, or the other side wants none; what() is a line for the
// log.
struct PeerLost : std::runtime_error {
    PeerLost(const std::string& what, bool refusal) : std::runtime_error(what), refused(refusal) {}
    bool refused;  // it will say the same in a second
};

// Takes bytes as they come and hands over what they say, once the other side has said who it is. Does no
// input or output. One thread.
class Session {
  public:
    virtual ~Session() = default;
    Session(Session&&) = default;

    // Throws PeerLost; nothing more is to be given to it then.
    void received(std::string_view bytes);
    // The other side said who it is, and speaks this version.
    bool agreed() const {
        return agreed_;
    }
    // Its version, for people.
    const std::string& version() const {
        return version_;
    }

  protected:
    // `name`: "the meter", for people. `messageBytes`: of its longest message.
    Session(std::string name, std::size_t messageBytes)
        : name_(std::move(name)), messageBytes_(messageBytes) {}
    // A member of a message, by its number; not before the hello. Throws metering::Unreadable or PeerLost.
    virtual void take(int number, std::string_view content) = 0;

  private:
    void takeHello(std::string_view content);
    void takeRefused(std::string_view content);

    const std::string name_;
    const std::size_t messageBytes_;
    metering::Unframer unframer_;
    bool agreed_ = false;
    std::string version_;
};

// Holds no more than a framed message (16 MiB).
class MeterSession : public Session {
  public:
    // What it hands over keeps the limits of pictureLimits.h, and has content where its outcome says so.
    explicit MeterSession(std::function<void(picturing::Coded&&)> coded);

  private:
    void take(int number, std::string_view content) override;

    const std::function<void(picturing::Coded&&)> coded_;
};

struct ChannelList {
    uint64_t revision = 0;
    double cores = 0;  // 0 to kCoresLimit
    std::vector<WantedChannel> channels;
};

// Holds no more than a framed message and a list of picturing::kChannelsLimit channels; further ones are left
// out.
class StationSession : public Session {
  public:
    static constexpr double kCoresLimit = 64;

    explicit StationSession(std::function<void(ChannelList&&)> channels);

  private:
    void take(int number, std::string_view content) override;

    const std::function<void(ChannelList&&)> channels_;
};

// The first message of each side, framed: {ToMeter or ToStation with its hello}.
template <typename Message>
std::string helloOf(const std::string& version) {
    Message message;
    picturing::Hello& hello = *message.mutable_hello();
    hello.set_major(picturing::kMajor);
    hello.set_minor(picturing::kMinor);
    hello.set_version(version);
    return metering::framed(message);
}

}  // namespace pictured
