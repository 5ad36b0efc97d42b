#include "web/access.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace station {

namespace {

std::string lower(std::string_view text) {
    std::string result(text);
    for (char& character : result) {
        if (character >= 'A' && character <= 'Z') {
            character = static_cast<char>(character | 0x20);
        }
    }
    return result;
}

struct Authority {
    std::string host;  // without the dot behind a full name and the brackets of an IPv6 address
    std::string port;  // empty without
};

// Of a Host header or an origin's authority; an empty host when there is no name.
Authority parseAuthority(std::string_view text) {
    std::size_t hostEnd = text.find(':');
    std::string_view host;
    if (text.starts_with('[')) {
        const std::size_t bracket = text.find(']');
        if (bracket == std::string_view::npos) {
            return {};
        }
        host = text.substr(1, bracket - 1);
        hostEnd = text.find(':', bracket);
    } else {
        host = text.substr(0, hostEnd);
        if (host.ends_with('.')) {
            host.remove_suffix(1);
        }
    }
    return {lower(host),
            hostEnd == std::string_view::npos ? std::string() : std::string(text.substr(hostEnd + 1))};
}

std::string machineName() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? parseAuthority(name.data()).host : std::string{};
}

bool isAddress(const std::string& host) {
    std::array<uint8_t, sizeof(in6_addr)> address{};
    return inet_pton(AF_INET, host.c_str(), address.data()) == 1 ||
           inet_pton(AF_INET6, host.c_str(), address.data()) == 1;
}

// An origin (RFC 6454, clause 6.2) taken apart, with the port that its scheme implies.
struct RequestOrigin {
    Authority authority;
    std::string defaultPort;
};

std::optional<RequestOrigin> parseOrigin(std::string_view text) {
    for (const auto& [scheme, port] : {std::pair("http://", "80"), std::pair("https://", "443")}) {
        if (text.starts_with(scheme)) {
            RequestOrigin origin{parseAuthority(text.substr(std::string_view(scheme).size())), port};
            if (origin.authority.port.empty()) {
                origin.authority.port = port;
            }
            return origin.authority.host.empty() ? std::nullopt : std::optional(origin);
        }
    }
    return std::nullopt;  // "null", or of something that is no web page
}

}  // namespace

Access::Access(const ServerAccess& access)
    : token_(access.token),
      socketToken_(access.socketToken),
      own_({"localhost", "127.0.0.1", "::1", machineName()}) {
    std::erase(own_, "");
    for (const std::string& name : access.allowedHosts) {
        Authority authority = parseAuthority(name);
        if (!authority.host.empty()) {
            allowed_.push_back({std::move(authority.host), std::move(authority.port)});
        }
    }
}

bool Access::hostAllowed(const Request& request, std::string_view host) const {
    if (request.unixSocket || (request.http10 && host.empty())) {
        return true;
    }
    const std::string bare = parseAuthority(host).host;
    return !bare.empty() && (bare == request.localAddress || std::ranges::find(own_, bare) != own_.end() ||
                             std::ranges::find(allowed_, bare, &Name::host) != allowed_.end());
}

bool Access::isAllowed(const Name& origin) const {
    return std::ranges::any_of(allowed_, [&](const Name& name) {
        return name.host == origin.host && (name.port.empty() || name.port == origin.port);
    });
}

bool Access::sameSite(const Request& request, std::string_view host) const {
    if (!request.fetchSite.empty()) {
        return request.fetchSite == "same-origin" || request.fetchSite == "none";
    }
    if (request.origins == 0) {
        return true;
    }
    const auto origin = request.origins == 1 ? parseOrigin(request.origin) : std::nullopt;
    if (!origin) {
        return false;
    }
    const Authority& from = origin->authority;
    if (isAllowed({from.host, from.port})) {
        return true;
    }
    Authority to = parseAuthority(host);
    if (to.port.empty()) {
        to.port = origin->defaultPort;
    }
    const bool nameKnown =
        !request.unixSocket || isAddress(from.host) || std::ranges::find(own_, from.host) != own_.end();
    return from.host == to.host && from.port == to.port && nameKnown;
}

Access::Right Access::right(const Request& request) const {
    if (request.unixSocket && !socketToken_) {
        return Right::kGranted;
    }
    if (token_.empty()) {
        return Right::kNever;
    }
    constexpr std::string_view kScheme = "bearer ";
    const std::string_view header = request.authorization;
    if (lower(header.substr(0, kScheme.size())) != kScheme) {
        return Right::kNeedsToken;
    }
    return isToken(header.substr(kScheme.size())) ? Right::kGranted : Right::kWrongToken;
}

bool Access::isToken(std::string_view given) const {
    std::size_t difference = given.size() ^ token_.size();
    for (std::size_t i = 0; i < token_.size(); ++i) {
        const char byte = i < given.size() ? given[i] : '\0';
        difference |= static_cast<unsigned char>(byte ^ token_[i]);
    }
    return difference == 0;
}

}  // namespace station
