#include "web/routes.h"

#include <algorithm>

#include "common/text.h"
#include "groupText.h"
#include "web/handlers.h"

namespace station {

namespace {

using enum Method;
using enum Route::Right;
using enum Route::Takes;
using enum Route::Needs;

// clang-format off
constexpr std::array kRoutes = std::to_array<Route>({
    {kGet, "/api/v1/access", kToken, kNothing, kNoState, "", handlers::access},
    {kGet, "/api/v1/status", kRead, kNothing, kState, "", handlers::status},
    {kGet, "/api/v1/channels", kRead, kNothing, kState, "", handlers::channels},
    {kGet, "/api/v1/channels/{group}", kRead, kNothing, kState, "", handlers::channel},
    {kPut, "/api/v1/channels/{group}", kChange, kJson, kState, "", handlers::putChannel},
    {kDelete, "/api/v1/channels/{group}", kChange, kNothing, kState, "", handlers::deleteChannel},
    {kGet, "/api/v1/channels/{group}/history", kRead, kNothing, kState, "metric metrics resolution since until format", handlers::history},
    {kGet, "/api/v1/channels/{group}/meter", kRead, kNothing, kState, "format", handlers::meter},
    {kGet, "/api/v1/channels/{group}/picture", kRead, kNothing, kState, "taken", handlers::picture},
    {kGet, "/api/v1/channels/{group}/cues", kRead, kNothing, kState, "", handlers::cues},
    {kGet, "/api/v1/records", kRead, kNothing, kState, "", handlers::records},
    {kGet, "/api/v1/alarms", kRead, kNothing, kState, "", handlers::alarms},
    {kPost, "/api/v1/alarms/{id}/acknowledge", kChange, kJson, kState, "", handlers::acknowledge},
    {kPost, "/api/v1/alarms/acknowledge", kChange, kJson, kState, "", handlers::acknowledgeMany},
    {kPost, "/api/v1/alarms/unacknowledge", kChange, kJson, kState, "", handlers::unacknowledge},
    {kPost, "/api/v1/alarms/shelve", kChange, kJson, kState, "", handlers::shelve},
    {kPost, "/api/v1/alarms/unshelve", kChange, kJson, kState, "", handlers::unshelve},
    {kGet, "/api/v1/incidents", kRead, kNothing, kState, "", handlers::incidents},
    {kGet, "/api/v1/passed", kRead, kNothing, kState, "", handlers::passed},
    {kGet, "/api/v1/shelved", kRead, kNothing, kState, "", handlers::shelved},
    {kGet, "/api/v1/alarm-types", kRead, kNothing, kNoState, "", handlers::alarmTypeList},
    {kGet, "/api/v1/events", kRead, kNothing, kNoState, "channel severity kind alarm since until before limit format", handlers::events},
    {kGet, "/api/v1/timeline", kRead, kNothing, kState, "since until group", handlers::timeline},
    {kGet, "/api/v1/report", kRead, kNothing, kState, "since until group label format", handlers::report},
    {kGet, "/api/v1/stream", kRead, kNothing, kState, "", handlers::stream},
    {kGet, "/api/v1/overview", kRead, kNothing, kState, "cells seconds day", handlers::overview},
    {kGet, "/api/v1/meta", kRead, kNothing, kState, "", handlers::meta},
    {kGet, "/api/v1/use", kRead, kNothing, kState, "", handlers::use},
    {kGet, "/api/v1/maintenance", kRead, kNothing, kState, "", handlers::maintenance},
    {kPost, "/api/v1/maintenance", kChange, kJson, kState, "", handlers::setMaintenance},
    {kDelete, "/api/v1/maintenance/{id}", kChange, kNothing, kState, "", handlers::endMaintenance},
    {kPost, "/api/v1/clear", kChange, kJson, kState, "", handlers::clear},
    {kPost, "/api/v1/passive", kChange, kJson, kState, "", handlers::passive},
    {kPost, "/api/v1/igmp-latency", kChange, kJson, kState, "", handlers::igmpLatency},
    {kPost, "/api/v1/reload", kChange, kJson, kState, "", handlers::reload},
    {kPost, "/api/v1/import", kChange, kPlaylist, kState, "", handlers::importPlaylist},
    {kGet, "/api/v1/export", kRead, kNothing, kState, "", handlers::exportPlaylist},
    {kGet, "/metrics", kRead, kNothing, kState, "", handlers::metrics},
    {kGet, "/healthz", kRead, kNothing, kNoState, "", handlers::health},
    {kGet, "/readyz", kRead, kNothing, kNoState, "", handlers::readiness},
    {kGet, "/", kRead, kNothing, kNoState, "", handlers::index},
    {kGet, "/page/{file}", kRead, kNothing, kNoState, "", handlers::pageFile},
    {kGet, "/page/{version}/{file}", kRead, kNothing, kNoState, "", handlers::versionedPageFile},
    {kGet, "/lib/{file}", kRead, kNothing, kNoState, "", handlers::libraryFile},
});
// clang-format on

constexpr std::array<std::string_view, 6> kMethodNames = {"GET", "HEAD", "POST", "PUT", "DELETE", "OPTIONS"};
constexpr std::array<std::string_view, 5> kPlaylistTypes = {"text/plain", "audio/x-mpegurl", "audio/mpegurl",
                                                            "application/x-mpegurl",
                                                            "application/vnd.apple.mpegurl"};

// The part before the next slash, which is taken off the path with it.
std::string_view takeSegment(std::string_view& path) {
    path.remove_prefix(1);  // its slash
    const std::string_view segment = path.substr(0, path.find('/'));
    path.remove_prefix(segment.size());
    return segment;
}

// Whether the path has the pattern's segments.
bool matches(std::string_view pattern, std::string_view path, Wildcards& wildcards) {
    while (!pattern.empty() && !path.empty()) {
        const std::string_view wanted = takeSegment(pattern);
        const std::string_view segment = takeSegment(path);
        if (wanted.starts_with('{')) {
            wildcards.push_back(segment);
        } else if (wanted != segment) {
            return false;
        }
    }
    return pattern.empty() && path.empty();
}

bool hasWord(std::string_view words, std::string_view word) {
    while (!words.empty()) {
        const std::size_t end = std::min(words.find(' '), words.size());
        if (words.substr(0, end) == word) {
            return true;
        }
        words.remove_prefix(std::min(end + 1, words.size()));
    }
    return false;
}

// All routes of a path.
struct Matched {
    std::vector<const Route*> routes;
    Wildcards wildcards;
};

Matched matchPath(std::string_view path) {
    Matched matched;
    for (const Route& route : kRoutes) {
        Wildcards wildcards;
        if (matches(route.pattern, path, wildcards)) {
            matched.routes.push_back(&route);
            matched.wildcards = std::move(wildcards);
        }
    }
    return matched;
}

std::string allowedMethods(const Matched& matched) {
    std::string allowed;
    for (const Route* route : matched.routes) {
        allowed.append(kMethodNames.at(static_cast<std::size_t>(route->method))).append(", ");
        allowed.append(route->method == kGet ? "HEAD, " : "");
    }
    return allowed + "OPTIONS";
}

// Nothing when the body is of a type that the route takes.
std::optional<Response> refuseType(const Route& route, const Request& request) {
    if (route.takes == kNothing) {
        return std::nullopt;
    }
    // Without a body too: a form of somebody else's page can send none of these types.
    std::string type = request.contentType.substr(0, request.contentType.find(';'));
    std::ranges::transform(type, type.begin(),
                           [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c; });
    type.erase(type.find_last_not_of(" \t") + 1);
    if (route.takes == kJson && type != "application/json") {
        return problem(415, "Content-Type has to be application/json, without a body too", "Content-Type");
    }
    if (route.takes == kPlaylist && std::ranges::find(kPlaylistTypes, type) == kPlaylistTypes.end()) {
        return problem(415, "The body has to be a playlist: text/plain or audio/x-mpegurl", "Content-Type");
    }
    return std::nullopt;
}

std::optional<Response> refuseQuery(const Route& route, const Query& query) {
    const auto& parameters = query.parameters();
    for (auto next = parameters.begin(); next != parameters.end(); ++next) {
        const std::string shown = printable(next->first, 64);
        if (!hasWord(route.parameters, next->first)) {
            return problem(422, "Parameter \"" + shown + "\" is not known here", shown);
        }
        if (std::find_if(parameters.begin(), next,
                         [&](const auto& other) { return other.first == next->first; }) != next) {
            return problem(422, "Parameter \"" + shown + "\" stands there twice", shown);
        }
    }
    return std::nullopt;
}

// Takes what stands in place of the names in braces.
std::optional<Response> takeWildcards(const Route& route, const Wildcards& wildcards, Call& call) {
    const auto text = percentDecoded(wildcards.empty() ? std::string_view{} : wildcards.back());
    if (!text) {
        return problem(400, "The path is not percent-encoded UTF-8 without control characters");
    }
    if (route.pattern.find("{version}") != std::string_view::npos) {
        call.version = wildcards.front();
    }
    if (route.pattern.find("{group}") != std::string_view::npos) {
        call.group = Group::parse(*text);
        if (!call.group) {
            return problem(422, "The path's group " + probelink::groupProblem(*text), "group");
        }
    } else if (route.pattern.find("{id}") != std::string_view::npos) {
        call.id = parseInteger(*text).value_or(0);
        if (call.id <= 0) {
            return problem(422, "The path has to name an id, an integer above 0", "id");
        }
    } else {
        call.file = *text;
    }
    return std::nullopt;
}

}  // namespace

std::span<const Route> routes() {
    return kRoutes;
}

Router::Router(Services services, Access access)
    : services_(std::move(services)), access_(std::move(access)) {}

void Router::setAccess(Access access) {
    access_ = std::move(access);
}

Access::Right Router::lookAtToken(const Request& request, std::optional<Response>& refused) {
    const auto now = std::chrono::steady_clock::now();
    if (const auto wait = guard_.wait(request.address, now);
        wait.count() > 0 && !request.authorization.empty()) {
        refused = problem(429,
                          "Too many wrong tokens came from this address; try again in " +
                              std::to_string(wait.count()) + " s",
                          "Authorization");
        refused->headers.emplace_back("Retry-After", std::to_string(wait.count()));
        return Access::Right::kNeedsToken;
    }
    const Access::Right right = access_.right(request);
    if (right == Access::Right::kWrongToken) {
        guard_.wrong(request.address, now);
        ++services_.wrongTokens;
        refused = problem(401, "This is not the token of token_file", "Authorization");
    }
    return right;
}

std::optional<Response> Router::refuseChange(const Request& request, std::string_view host) {
    if (!access_.sameSite(request, host)) {
        return problem(403,
                       "The browser sends this for a page of another site; behind a proxy, have it pass Host "
                       "on, or add the name that the browser shows to allowed_hosts",
                       "Origin");
    }
    std::optional<Response> refused;
    switch (lookAtToken(request, refused)) {
        case Access::Right::kNeedsToken:
            if (!refused) {
                refused = problem(401, "A change needs the token of token_file: Authorization: Bearer TOKEN",
                                  "Authorization");
            }
            break;
        case Access::Right::kNever:
            refused = problem(403,
                              "This station takes no changes over the network: set token_file, or use the "
                              "Unix socket",
                              "Authorization");
            break;
        case Access::Right::kGranted:
        case Access::Right::kWrongToken:
            break;
    }
    return refused;
}

std::variant<Router::Admitted, Response> Router::findRoute(const Request& request) {
    const auto target = splitTarget(request.target);
    if (!target || request.hosts > 1 || (request.hosts == 0 && !request.http10)) {
        return problem(400, target ? "The request needs one Host header" : "The target has to be a path");
    }
    const std::string_view host = target->authority.value_or(request.host);
    if (!access_.hostAllowed(request, host)) {
        return problem(403, "This server has another name: use its address, or add the name to allowed_hosts",
                       "Host");
    }
    Matched matched = matchPath(target->path);
    if (matched.routes.empty()) {
        return problem(404, "There is nothing here; docs/api.yaml lists what there is");
    }
    const Method method = request.method == kHead ? kGet : request.method;
    const auto found =
        std::ranges::find(matched.routes, method, [](const Route* route) { return route->method; });
    if (found == matched.routes.end()) {
        Response response = method == kOptions
                                ? Response{.status = 204, .contentType = {}, .body = {}, .headers = {}}
                                : problem(405, "This path takes " + allowedMethods(matched));
        response.headers.emplace_back("Allow", allowedMethods(matched));
        return response;
    }
    const Route& route = **found;
    std::optional<Response> refused;
    Access::Right changes = Access::Right::kNeedsToken;
    if (route.right == kChange) {
        refused = refuseChange(request, host);
    } else if (route.right == kToken) {
        changes = lookAtToken(request, refused);
    }
    if (refused) {
        return std::move(*refused);
    }
    return Admitted{&route, std::move(matched.wildcards), target->query, changes};
}

Router::Admission Router::admit(const Request& head) {
    auto found = findRoute(head);
    const auto* admitted = std::get_if<Admitted>(&found);
    const bool playlist = admitted != nullptr && admitted->route->takes == kPlaylist;
    return {playlist ? Server::kPlaylistBytes : Server::kBodyBytes, std::move(found)};
}

void Router::handle(const Request& request, Admission&& admission, Reply reply) {
    if (auto* refused = std::get_if<Response>(&admission.found)) {
        return reply(std::move(*refused));
    }
    const Admitted& admitted = std::get<Admitted>(admission.found);
    const Route& route = *admitted.route;
    auto query = Query::parse(admitted.query);
    if (!query) {
        return reply(
            problem(400, "The query is not percent-encoded UTF-8 without control characters, or too long"));
    }
    Call call{.request = request,
              .query = std::move(*query),
              .state = services_.station.state(),
              .group = {},
              .file = {},
              .version = {},
              .changes = admitted.changes};
    for (auto&& wrong : {refuseQuery(route, call.query), takeWildcards(route, admitted.wildcards, call),
                         refuseType(route, request)}) {
        if (wrong) {
            return reply(Response(*wrong));
        }
    }
    if (route.needs == kState && call.state == nullptr) {
        return reply(problem(503, "The station is starting"));
    }
    route.handler(services_, call, std::move(reply));
}

}  // namespace station
