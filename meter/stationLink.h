// The meter's end of the socket to the station: connects, and again when it is lost.
#pragma once

#include <functional>
#include <optional>
#include <stop_token>
#include <string>

#include "meter.pb.h"
#include "outbox.h"
#include "stationSession.h"

namespace meterd {

// One thread uses it, but for the outbox.
class StationLink {
  public:
    struct Handlers {
        // The station is there and speaks this version: everything is told anew.
        std::function<void()> connected;
        std::function<void(const metering::Groups&)> groups;
    };
    // `outbox` outlives it; it is open while the station listens.
    StationLink(std::string path, std::string version, Outbox& outbox, Handlers handlers);
    ~StationLink();
    StationLink(const StationLink&) = delete;

    // Connects, reads, writes for at most about `milliseconds`.
    void serve(int milliseconds);

  private:
    void connect();
    void disconnect(const std::string& why);
    void readAll();
    void write();
    void tell(const std::string& text);

    static constexpr int kReconnectMs = 1000;
    static constexpr int kHelloMs = 5000;     // for the station to say who it is
    static constexpr int kRefusedMs = 10000;  // after another version, or beside another meter

    const std::string path_;
    const std::string version_;
    Outbox& outbox_;
    const Handlers handlers_;
    int socket_ = -1;
    std::optional<StationSession> session_;  // of this connection
    int64_t nextConnect_ = 0;
    int64_t connectedAt_ = 0;  // ms
    metering::Hello hello_;
    std::string writing_;  // with what of it was written
    std::size_t written_ = 0;
    std::string told_;  // the last line of the log
};

}  // namespace meterd
