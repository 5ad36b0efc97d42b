// The parser of requests, with this server's limits. Includes Beast: for few files.
#pragma once

#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <string_view>

#include "web/message.h"

namespace station {

using HttpParser = boost::beast::http::request_parser<boost::beast::http::string_body>;
using HttpRequest = HttpParser::value_type;

// What a connection may send as one request. Of the body that is the bound for an import, until the head
// tells which one holds.
void setLimits(HttpParser& parser);
// The answer to a body above `limit`.
Response bodyTooLarge(std::size_t limit);
// A parsed head; the body and what is of the connection are left empty.
Request toRequest(const HttpRequest& message);
// What the bytes that came of a request show before they are parsed. Line folding (RFC 9112, clause 5.2) has
// to be found here: the parser takes it, and one behind or before this server may read it as something else.
struct Head {
    enum class State : uint8_t { kPartial, kWhole, kNoRequest } state;
    std::optional<Response> refusal;  // when it is whole
};
Head inspectHead(std::string_view bytes);
// After the head was parsed: the answer to what this server does not do with a body, behind which the
// connection has to be closed, since nobody knows where the body ends.
std::optional<Response> refuseFraming(const HttpRequest& message);
// The answer to what the parser refused; nothing when the connection failed or ended, and is to be closed.
std::optional<Response> refuseMessage(const boost::system::error_code& error);

}  // namespace station
