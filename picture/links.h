// The sockets: where a meter connects, and to the station.
#pragma once

#include <poll.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "connection.h"
#include "log.h"
#include "sessions.h"

namespace pictured {

// Listens, and serves one meter at a time. A second one is refused, unless the first owes answers for kHung.
// What cannot be listened on is tried again every second, as is a socket that somebody removed. Nothing
// waits. One thread.
class MeterLink {
  public:
    static constexpr std::chrono::seconds kHelloTime{5};  // for a meter to say who it is
    static constexpr std::chrono::seconds kHung{15};
    static constexpr std::size_t kWaitingBytes = std::size_t{64} * 1024;

    struct Handlers {
        std::function<void(picturing::Coded&&)> coded;
        std::function<void()> lost;  // what was asked gets no answer
    };
    MeterLink(std::string path, std::string version, Handlers handlers);
    ~MeterLink();
    MeterLink(const MeterLink&) = delete;

    bool connected() const {
        return meter_ && meter_->session.agreed();
    }
    // False: it cannot be asked at present.
    bool ask(uint32_t group, uint64_t id, bool audio);
    // `reads`: whether there is room for what it may say. `owes`: whether it has been asked something.
    void addPolls(std::vector<pollfd>& polls, bool reads) const;
    static constexpr std::size_t kPolls = 2;
    void serve(std::span<const pollfd> polls, Time now, bool owes);
    // Why there is none, for people; empty when there is.
    std::string problem() const;

  private:
    struct Meter {
        Connection connection;
        MeterSession session;
        Time since;
        Time lastRead;
    };
    void keepListening(Time now);
    void accept(Time now, bool owes);
    void read(Time now);
    void end(const std::string& why);

    const std::string path_;
    const std::string version_;
    const Handlers handlers_;
    basics::Descriptor listener_;
    std::pair<uint64_t, uint64_t> file_{};  // device and node of its socket
    Time nextListen_{};
    std::optional<Meter> meter_;
    LogOnChange log_;
    std::string problem_;  // nobody can connect
    std::string refused_;  // what the last one that could not be talked to is told; empty: another one came
};

// Connects, and again when it is lost. One thread; connecting to a Unix socket waits for nobody.
class StationLink {
  public:
    static constexpr std::chrono::seconds kAgain{1};
    static constexpr std::chrono::seconds kHelloTime{5};
    static constexpr std::chrono::seconds kRefusedTime{
        10};  // after another version, or beside another kestor-picture
    static constexpr std::size_t kWaitingBytes = std::size_t{4} * 1024 * 1024;

    struct Handlers {
        std::function<void(ChannelList&&)> channels;
        std::function<void()> lost;
    };
    StationLink(std::string path, std::string version, Handlers handlers);

    bool connected() const {
        return station_ && station_->session.agreed();
    }
    // False: it was dropped.
    bool tell(const picturing::ToStation& message);
    void addPolls(std::vector<pollfd>& polls) const;
    static constexpr std::size_t kPolls = 1;
    void serve(std::span<const pollfd> polls, Time now);

  private:
    struct Station {
        Connection connection;
        StationSession session;
        Time since;
        bool told = false;  // that it is connected
    };
    void connect(Time now);
    void read(Time now);
    void end(Time now, const std::string& why, bool refused = false);

    const std::string path_;
    const std::string version_;
    const Handlers handlers_;
    Time nextConnect_{};
    std::optional<Station> station_;
    LogOnChange log_;
};

}  // namespace pictured
