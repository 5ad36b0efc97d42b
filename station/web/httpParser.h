// The parser of requests, with this server's limits. Includes Beast: for few files.
#pragma once

#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>
#include <string_view>
#include <variant>

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
// The answer to what the parser refused; nothing when the connection failed or ended, and is to be closed.
std::optional<Response> refuseMessage(const boost::system::error_code& error);

// One whole request in memory, as a connection would read it: the request, or the answer that refuses it.
// Bytes behind it are left alone, and a request that is not whole is refused with 400.
std::variant<Request, Response> parseRequest(std::string_view bytes);

}  // namespace station
