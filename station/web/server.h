// The HTTP server (Boost.Beast), on one I/O thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "channels/playlist.h"
#include "state/commands.h"

namespace station {

// Who may ask, and how many at a time.
struct ServerAccess {
    std::string token;         // for changes over TCP; empty: none are taken
    bool socketToken = false;  // over the Unix socket likewise
    std::vector<std::string> allowedHosts{};
    std::size_t connections = 256;           // in all, but for those that are kept for the socket
    std::size_t connectionsPerAddress = 64;  // TCP
};

struct ServerOptions {
    std::string listen;            // ADDRESS:PORT, [IPv6]:PORT; empty for none; port 0 lets the kernel choose
    std::filesystem::path socket;  // Unix socket, mode 0660; empty for none
    ServerAccess access{};
    std::filesystem::path page;  // the page's files
    // Where Debian's libjs-dygraphs puts dygraph.min.js and dygraph.min.css.
    std::filesystem::path dygraphs = "/usr/share/javascript/dygraphs";
};

struct ServerStatistics {
    uint64_t connections = 0;  // open
    uint64_t streams = 0;      // event streams among them
    uint64_t requests = 0;
    uint64_t refused = 0;   // connections over a limit
    uint64_t madeRoom = 0;  // kept connections that were closed for a new one at a limit
    uint64_t wrongTokens = 0;
    uint64_t malformed = 0;  // requests that were none
    uint64_t slowClosed = 0;
    uint64_t answerBytes = 0;     // that answers hold
    uint64_t answersRefused = 0;  // since they held too many
};

class Server {
  public:
    // Places beyond ServerAccess::connections that the Unix socket alone has: for one request each, and for
    // no event stream, so that they are free again soon.
    static constexpr std::size_t kSocketPlaces = 16;
    static constexpr std::size_t kHeaderBytes = 8 * 1024;
    static constexpr std::size_t kBodyBytes = 64 * 1024;
    // The body of an import, for those who may change: what a playlist file may have as well.
    static constexpr std::size_t kPlaylistBytes = kPlaylistLimit;
    static constexpr std::size_t kPlaylists = 2;  // bodies above kBodyBytes at a time

    // Listens, and serves on a thread of its own until it is destroyed. Throws std::runtime_error with a
    // sentence for an operator when it cannot listen. `station` has to outlive it.
    Server(const ServerOptions& options, StationInterface& station);
    ~Server();
    Server(const Server&) = delete;

    // A new state was published: event streams get it. Any thread.
    void statePublished();
    // What a reload may change without listening anew. Any thread.
    void setAccess(const ServerAccess& access);

    uint16_t port() const;                // that TCP listens on; 0 without
    ServerStatistics statistics() const;  // any thread

  private:
    struct Implementation;
    std::unique_ptr<Implementation> implementation_;
};

}  // namespace station
