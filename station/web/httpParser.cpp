#include "web/httpParser.h"

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http/error.hpp>

#include "web/server.h"

namespace station {

namespace {

namespace http = boost::beast::http;

Method methodOf(http::verb verb) {
    switch (verb) {
        case http::verb::get:
            return Method::kGet;
        case http::verb::head:
            return Method::kHead;
        case http::verb::post:
            return Method::kPost;
        case http::verb::put:
            return Method::kPut;
        case http::verb::delete_:
            return Method::kDelete;
        case http::verb::options:
            return Method::kOptions;
        default:
            return Method::kOther;
    }
}

std::string header(const HttpRequest& message, http::field field) {
    const auto value = message[field];
    return {value.data(), value.size()};
}

}  // namespace

void setLimits(HttpParser& parser) {
    parser.header_limit(Server::kHeaderBytes);
    parser.body_limit(Server::kPlaylistBytes);
}

Request toRequest(const HttpRequest& message) {
    Request request;
    request.method = methodOf(message.method());
    request.target.assign(message.target().data(), message.target().size());
    request.hosts = message.count(http::field::host);
    request.host = header(message, http::field::host);
    request.http10 = message.version() < 11;
    request.origins = message.count(http::field::origin);
    request.origin = header(message, http::field::origin);
    const auto fetchSite = message["Sec-Fetch-Site"];
    request.fetchSite.assign(fetchSite.data(), fetchSite.size());
    request.authorization = header(message, http::field::authorization);
    request.contentType = header(message, http::field::content_type);
    request.ifNoneMatch = header(message, http::field::if_none_match);
    request.acceptEncoding = header(message, http::field::accept_encoding);
    return request;
}

Response bodyTooLarge(std::size_t limit) {
    return limit < Server::kPlaylistBytes
               ? problem(413, "A body may have at most 64 KiB; a playlist at /api/v1/import, 16 MiB")
               : problem(413, "A playlist may have at most 16 MiB");
}

Head inspectHead(std::string_view bytes) {
    // The first of a request is a letter of its method. Another protocol's need not come to an empty line.
    if (!bytes.empty() && (bytes.front() < 'A' || bytes.front() > 'z')) {
        return {Head::State::kNoRequest, {}};
    }
    const std::size_t end = bytes.find("\r\n\r\n");
    if (end == std::string_view::npos) {
        return {bytes.size() > Server::kHeaderBytes ? Head::State::kNoRequest : Head::State::kPartial, {}};
    }
    const std::string_view head = bytes.substr(0, end);
    for (std::size_t at = head.find("\r\n"); at != std::string_view::npos; at = head.find("\r\n", at + 2)) {
        if (at + 2 < head.size() && (head[at + 2] == ' ' || head[at + 2] == '\t')) {
            return {Head::State::kWhole, problem(400, "A header may not go on in the next line")};
        }
    }
    return {Head::State::kWhole, {}};
}

std::optional<Response> refuseFraming(const HttpRequest& message) {
    const std::size_t count = message.count(http::field::transfer_encoding);
    if (count == 0) {
        return std::nullopt;
    }
    if (message.version() < 11) {
        return problem(400, "HTTP/1.0 knows no Transfer-Encoding", "Transfer-Encoding");
    }
    if (count > 1 || !boost::beast::iequals(message[http::field::transfer_encoding], "chunked")) {
        return problem(501, "Transfer-Encoding takes chunked alone", "Transfer-Encoding");
    }
    return std::nullopt;
}

std::optional<Response> refuseMessage(const boost::system::error_code& error) {
    if (error == http::error::header_limit || error == http::error::buffer_overflow) {
        return problem(431, "Target and headers may have at most 8 KiB");
    }
    if (error == http::error::body_limit) {
        return bodyTooLarge(Server::kPlaylistBytes);
    }
    const bool ended = error == http::error::end_of_stream || error == http::error::partial_message;
    static const auto* const httpErrors = &http::make_error_code(http::error::bad_method).category();
    if (ended || error.category() != *httpErrors) {
        return std::nullopt;
    }
    return problem(400, "This is no HTTP/1.1 request (RFC 9112): " + error.message());
}

}  // namespace station
