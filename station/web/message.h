// HTTP messages as routes see them: whole, and without a connection.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "web/payload.h"

namespace station {

enum class Method : uint8_t { kGet, kHead, kPost, kPut, kDelete, kOptions, kOther };

struct Request {
    Method method = Method::kOther;
    std::string target;        // as it came: path and query, percent-encoded
    std::string host;          // without it: empty
    std::size_t hosts = 0;     // how many Host headers came
    bool http10 = false;       // which may come without a Host
    std::string localAddress;  // that the connection was made to; empty on the Unix socket
    std::string address;       // where it comes from; empty on the Unix socket
    bool unixSocket = false;
    std::string origin;       // that a browser names (RFC 6454)
    std::size_t origins = 0;  // how many Origin headers came
    std::string fetchSite;    // Sec-Fetch-Site (Fetch Metadata): what a browser says of where it comes from
    std::string authorization;
    std::string contentType;
    std::string ifNoneMatch;
    std::string acceptEncoding;
    std::string body;
};

struct Response {
    int status = 200;
    std::string_view contentType;  // static storage
    PayloadPointer body;           // may be null
    std::vector<std::pair<std::string_view, std::string>> headers;
    bool eventStream = false;  // no body: the connection becomes an event stream
    bool compressed = false;   // the body goes out as gzip()
};

std::string_view statusText(int status);

// An error (RFC 9457). `field` names what is meant of what the client gave; empty for nothing.
Response problem(int status, std::string_view detail, std::string_view field = {});

// The query of a target, taken apart (application/x-www-form-urlencoded).
class Query {
  public:
    static constexpr std::size_t kParameters = 32;

    // Nothing when it is malformed, has more parameters, or texts that are not UTF-8 or have control
    // characters.
    static std::optional<Query> parse(std::string_view text);
    // Null when there is none of that name.
    const std::string* find(std::string_view name) const;
    const std::vector<std::pair<std::string, std::string>>& parameters() const {
        return parameters_;
    }

  private:
    std::vector<std::pair<std::string, std::string>> parameters_;
};

// Percent-encoding (RFC 3986, clause 2.1) undone; nothing when it is malformed, or the result is not UTF-8 or
// has control characters.
std::optional<std::string> percentDecoded(std::string_view text);

// The part of a target before the query, and the query. An absolute form (RFC 9112, clause 3.2.2) loses
// scheme and authority, which takes the place of `host`.
struct Target {
    std::string_view path;
    std::string_view query;
    std::optional<std::string_view> authority;
};
std::optional<Target> splitTarget(std::string_view target);

// Whether an Accept-Encoding header (RFC 9110, clause 12.5.3) takes gzip.
bool acceptsGzip(std::string_view header);

// The answer as it goes to this client: 304 where it has the same already, compressed where it takes that and
// there is a compressed one.
void adapt(const Request& request, Response& response);

// Status line and headers, with the empty line.
std::string responseHead(const Response& response, std::string_view body, bool keepAlive);

}  // namespace station
