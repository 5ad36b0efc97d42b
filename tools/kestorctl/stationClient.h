// Calls to a kestor-station on this machine.
#pragma once

#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "controllerLink.h"

inline constexpr const char* kStationSocket = "/run/kestor/station.sock";

// The station's answer was no 2xx.
struct RefusedError : probelink::LinkError {
    RefusedError(const std::string& text, long status_) : probelink::LinkError(text), status(status_) {}
    long status;
};

// One station, over its Unix socket. For use by one thread. Calls throw LinkError with a sentence for the
// operator when the station does not answer or refuses.
class StationClient {
  public:
    // Nothing when no station listens there. Throws LinkError when one does and this user may not talk to it.
    static std::optional<StationClient> find(const std::string& socket, std::chrono::milliseconds timeout);

    // The answer's body; an answer other than 2xx throws RefusedError.
    std::string get(const std::string& path);
    nlohmann::ordered_json getJson(const std::string& path);
    nlohmann::ordered_json send(const char* method, const std::string& path,
                                const nlohmann::ordered_json& body = {});
    nlohmann::ordered_json sendText(const std::string& path, const std::string& type,
                                    const std::string& body);

    // The lines of the probe's last snapshot, when it is another than the one that the last call returned.
    std::optional<std::string> newSnapshot();

  private:
    struct Handle;
    struct Response {
        long status = 0;
        std::string body;
        std::string tag;  // ETag
    };
    explicit StationClient(std::shared_ptr<Handle> handle) : handle_(std::move(handle)) {}
    Response call(const char* method, const std::string& path, const std::string& type,
                  const std::string& body, const std::string& knownTag = {});
    static nlohmann::ordered_json parse(const std::string& body);

    std::shared_ptr<Handle> handle_;
    std::string snapshotTag_;
};
