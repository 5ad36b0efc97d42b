// From a request to its answer, without a connection.
#pragma once

#include <atomic>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "state/commands.h"
#include "web/access.h"
#include "web/answerBuilder.h"
#include "web/message.h"
#include "web/metricsBuilder.h"
#include "web/overviewDesk.h"
#include "web/server.h"
#include "web/staticFiles.h"
#include "web/tokenGuard.h"

namespace station {

// Called once, on the I/O thread; nothing happens when the client is gone.
using Reply = std::function<void(Response&&)>;

// What handlers work with. They run on the I/O thread and never wait.
struct Services {
    StationInterface& station;
    const StaticFiles& files;
    std::function<ServerStatistics()> statistics;
    // Runs something on the I/O thread, from any thread; drops it once the server ends.
    std::function<void(std::function<void()>)> post;
    MetricsBuilder* metrics = nullptr;
    AnswerBuilder* answers = nullptr;
    std::atomic<uint64_t>& wrongTokens;
    OverviewDesk overviews{};
};

// One request, checked by its route.
struct Call {
    const Request& request;
    Query query;
    StatePointer state;          // null only where the route does without
    std::optional<Group> group;  // of {group}
    int64_t id = 0;              // of {id}, above 0
    std::string file;            // of {file}
    std::string version;         // of {version}
    Access::Right changes{};     // what the request might change
};

// What stands in place of the names in braces of a route, in their order.
using Wildcards = std::vector<std::string_view>;

using Handler = void (*)(Services& services, const Call& call, Reply&& reply);

struct Route {
    enum class Right : uint8_t { kRead, kToken, kChange };  // kToken reads, and looks at a token
    enum class Takes : uint8_t { kNothing, kJson, kPlaylist };
    enum class Needs : uint8_t { kState, kNoState };  // without a state it answers 503
    Method method;
    std::string_view pattern;
    Right right;
    Takes takes;
    Needs needs;
    std::string_view parameters;  // of the query, separated by spaces; others are refused
    Handler handler;
};

// Every route that there is.
std::span<const Route> routes();

class Router {
  public:
    Router(Services services, Access access);

    struct Admitted {
        const Route* route;
        Wildcards wildcards;
        std::string_view query;
        Access::Right changes;  // what the token allows, where the route asks
    };
    // What a head says alone: host, path, method and right, or the answer that it gets whatever body follows.
    // It points into the head's target.
    struct Admission {
        std::size_t bodyLimit;
        std::variant<Admitted, Response> found;
    };
    // To be asked once a request: it counts wrong tokens.
    Admission admit(const Request& head);
    // May reply before it returns.
    void handle(const Request& request, Admission&& admission, Reply reply);
    void setAccess(Access access);

  private:
    std::variant<Admitted, Response> findRoute(const Request& head);
    // What the token allows. Sets `refused` when it is wrong, or is not looked at since too many were.
    Access::Right lookAtToken(const Request& request, std::optional<Response>& refused);
    // Nothing when the request may change something.
    std::optional<Response> refuseChange(const Request& request, std::string_view host);

    Services services_;
    Access access_;
    TokenGuard guard_;
};

}  // namespace station
