#include "web/message.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "basics/text.h"
#include "common/text.h"
#include "web/answerBuilder.h"
#include "web/jsonWriter.h"

namespace station {

namespace {

using basics::trimmed;

// On every answer. The page is made of files of this server alone, and runs in no frame.
constexpr std::string_view kAlways =
    "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
    "font-src 'self'; connect-src 'self'; worker-src 'self'; manifest-src 'self'; base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'\r\n"
    "X-Content-Type-Options: nosniff\r\n"
    "X-Frame-Options: DENY\r\n"
    "Referrer-Policy: same-origin\r\n"
    "Cross-Origin-Opener-Policy: same-origin\r\n"
    "Cross-Origin-Resource-Policy: same-origin\r\n";

struct StatusText {
    int status;
    std::string_view text;
};
constexpr std::array kStatusTexts = std::to_array<StatusText>({
    {200, "OK"},
    {201, "Created"},
    {204, "No Content"},
    {304, "Not Modified"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {413, "Content Too Large"},
    {415, "Unsupported Media Type"},
    {417, "Expectation Failed"},
    {422, "Unprocessable Content"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {501, "Not Implemented"},
    {503, "Service Unavailable"},
});

// The part before the separator, which is taken off the text with it.
std::string_view takeUntil(std::string_view& text, char separator) {
    const std::size_t at = text.find(separator);
    const std::string_view part = text.substr(0, at);
    text.remove_prefix(at == std::string_view::npos ? text.size() : at + 1);
    return part;
}

int hexDigit(char character) {
    if (character >= '0' && character <= '9') {
        return character - '0';
    }
    const int lower = character | 0x20;
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Whether a weight (RFC 9110, clause 12.4.2) says "not at all".
bool isZeroWeight(std::string_view parameter) {
    parameter = trimmed(parameter);
    return parameter.size() >= 3 && (parameter[0] == 'q' || parameter[0] == 'Q') && parameter[1] == '=' &&
           parameter.find_first_not_of("0.", 2) == std::string_view::npos;
}

}  // namespace

std::string_view statusText(int status) {
    const auto found = std::ranges::find(kStatusTexts, status, &StatusText::status);
    return found == kStatusTexts.end() ? "Unknown" : found->text;
}

Response problem(int status, std::string_view detail, std::string_view field) {
    std::string text;
    JsonWriter json(text);
    json.open('{');
    json.member("type", "about:blank").member("title", statusText(status)).member("status", status);
    json.member("detail", detail);
    if (!field.empty()) {
        json.member("field", field);
    }
    json.close('}');
    Response response;
    response.status = status;
    response.contentType = "application/problem+json";
    response.body = std::make_shared<Payload>(std::move(text));
    if (status == 401) {
        response.headers.emplace_back("WWW-Authenticate", "Bearer");
    } else if (status == 503) {
        response.headers.emplace_back("Retry-After", "1");
    }
    return response;
}

std::optional<std::string> percentDecoded(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            result += text[i];
            continue;
        }
        const int high = i + 1 < text.size() ? hexDigit(text[i + 1]) : -1;
        const int low = i + 2 < text.size() ? hexDigit(text[i + 2]) : -1;
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        result += static_cast<char>(high << 4 | low);
        i += 2;
    }
    if (!isUtf8(result) || printable(result, result.size()) != result) {
        return std::nullopt;
    }
    return result;
}

std::optional<Query> Query::parse(std::string_view text) {
    Query query;
    while (!text.empty()) {
        std::string pair(takeUntil(text, '&'));
        if (pair.empty()) {
            continue;
        }
        std::ranges::replace(pair, '+', ' ');
        std::string_view value = pair;
        const std::string_view name = takeUntil(value, '=');
        auto decodedName = percentDecoded(name);
        auto decodedValue = percentDecoded(value);
        if (!decodedName || !decodedValue || query.parameters_.size() >= kParameters) {
            return std::nullopt;
        }
        query.parameters_.emplace_back(std::move(*decodedName), std::move(*decodedValue));
    }
    return query;
}

const std::string* Query::find(std::string_view name) const {
    const auto found = std::ranges::find(parameters_, name,
                                         [](const auto& pair) -> const std::string& { return pair.first; });
    return found == parameters_.end() ? nullptr : &found->second;
}

std::optional<Target> splitTarget(std::string_view target) {
    Target result;
    constexpr std::string_view kScheme = "http://";
    if (target.starts_with(kScheme)) {
        target.remove_prefix(kScheme.size());
        const std::size_t path = target.find_first_of("/?");
        result.authority = target.substr(0, path);
        target = path == std::string_view::npos ? "/" : target.substr(path);
    }
    if (!target.starts_with('/')) {
        return std::nullopt;
    }
    target = takeUntil(target, '#');
    result.path = takeUntil(target, '?');
    result.query = target;
    return result;
}

bool acceptsGzip(std::string_view header) {
    bool any = false;
    while (!header.empty()) {
        std::string_view entry = takeUntil(header, ',');
        const std::string_view coding = trimmed(takeUntil(entry, ';'));
        const bool named = coding == "gzip" || coding == "x-gzip";
        if (named) {
            return !isZeroWeight(entry);
        }
        any = any || (coding == "*" && !isZeroWeight(entry));
    }
    return any;
}

void adapt(const Request& request, Response& response) {
    const auto etag =
        std::ranges::find(response.headers, "ETag", [](const auto& header) { return header.first; });
    if (response.status == 200 && etag != response.headers.end() && !request.ifNoneMatch.empty()) {
        std::string_view known = request.ifNoneMatch;
        while (!known.empty()) {
            const std::string_view one = trimmed(takeUntil(known, ','));
            if (one == "*" || one == etag->second) {
                response.status = 304;
                response.body = nullptr;
                return;
            }
        }
    }
    if (response.body == nullptr || (response.body->gzip().empty() &&
                                     response.body->text().size() < AnswerBuilder::kSmallestToCompress)) {
        return;
    }
    response.headers.emplace_back("Vary", "Accept-Encoding");
    const bool compressedAlone = response.body->text().empty();
    if (!response.body->gzip().empty() && (compressedAlone || acceptsGzip(request.acceptEncoding))) {
        response.compressed = true;
        response.headers.emplace_back("Content-Encoding", "gzip");
    }
}

std::string responseHead(const Response& response, std::string_view body, bool keepAlive) {
    std::string head = "HTTP/1.1 " + std::to_string(response.status) + ' ';
    head.append(statusText(response.status)).append("\r\n");
    if (!response.contentType.empty()) {
        head.append("Content-Type: ").append(response.contentType).append("\r\n");
    }
    if (!response.eventStream && response.status != 204 && response.status != 304) {
        head.append("Content-Length: ").append(std::to_string(body.size())).append("\r\n");
    }
    bool cacheControl = false;
    for (const auto& [name, value] : response.headers) {
        head.append(name).append(": ").append(value).append("\r\n");
        cacheControl = cacheControl || name == "Cache-Control";
    }
    if (!cacheControl) {
        head.append("Cache-Control: no-store\r\n");
    }
    head.append(kAlways);
    head.append(keepAlive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n");
    return head;
}

}  // namespace station
