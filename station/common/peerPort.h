// Where another program of this machine connects: a Unix socket that serves one of them at a time.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "common/clock.h"

namespace station {

// What came makes no sense, or its sender speaks another version; what() is a sentence for an operator about
// the sender: "sent a message that cannot be read".
struct PeerRefused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// What one connection sends. Does no input or output. One thread.
class PeerReader {
  public:
    virtual ~PeerReader() = default;

    // Bytes as they come. Throws PeerRefused; nothing more is to be given to it then.
    virtual void received(std::string_view bytes, const Now& now) = 0;
    // Whoever sends said who it is, and speaks this version.
    virtual bool agreed() const = 0;
};

// Listens, on a thread of its own, and serves one connection at a time: has what comes read, and tells the
// newest of what is to be told. A second one is refused, unless the first was silent for kHung. What cannot
// be listened on is tried again every second, as is a socket that somebody removed. Nobody is waited for.
class PeerPort {
  public:
    static constexpr std::chrono::seconds kHelloTime{5};  // to say who it is
    static constexpr std::chrono::seconds kHung{10};

    // In messages for people.
    struct Words {
        const char* thread;   // its name, of at most 15 bytes
        const char* name;     // "the meter"
        const char* kind;     // "a meter"
        const char* second;   // "a second meter"
        const char* without;  // what to set for none: "Without a meter set ..."
    };
    // Called on the port's thread.
    struct Handlers {
        std::function<std::unique_ptr<PeerReader>()> connect;  // for a new connection
        std::function<void(const Now&)> disconnected;
        std::function<void(const std::string&)> problem;  // for people; empty: it is over
        std::function<std::string(SteadyTime)> version;   // of the one that agreed, for people
    };
    // Messages are sent as they are given: framed. `hello`: the first of each connection; `refusal`: to a
    // second one. Without a path nobody listens.
    PeerPort(std::filesystem::path path, const Words& words, std::string hello, std::string refusal,
             Handlers handlers);
    ~PeerPort();  // ends the thread, within 100 ms, and removes the socket
    PeerPort(const PeerPort&) = delete;

    // What is told from here on, in place of what was not sent yet. Any thread; at once.
    void tell(std::string message);

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
