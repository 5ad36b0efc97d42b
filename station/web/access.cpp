#include "web/access.h"

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

// Without a port, the dot behind a full name, and the brackets of an IPv6 address; empty when there is no
// name.
std::string bareHost(std::string_view host) {
    if (host.starts_with('[')) {
        const std::size_t end = host.find(']');
        return end == std::string_view::npos ? std::string{} : lower(host.substr(1, end - 1));
    }
    host = host.substr(0, host.find(':'));
    if (host.ends_with('.')) {
        host.remove_suffix(1);
    }
    return lower(host);
}

std::string machineName() {
    std::array<char, 256> name{};
    return gethostname(name.data(), name.size() - 1) == 0 ? bareHost(name.data()) : std::string{};
}

}  // namespace

Access::Access(std::string token, const std::vector<std::string>& allowedHosts)
    : token_(std::move(token)), hosts_({"localhost", "127.0.0.1", "::1", machineName()}) {
    for (const std::string& host : allowedHosts) {
        hosts_.push_back(bareHost(host));
    }
    std::erase(hosts_, "");
}

bool Access::hostAllowed(const Request& request, std::string_view host) const {
    if (request.unixSocket || (request.http10 && host.empty())) {
        return true;
    }
    const std::string bare = bareHost(host);
    return bare == request.localAddress || std::ranges::find(hosts_, bare) != hosts_.end();
}

bool Access::mayChange(const Request& request) const {
    if (request.unixSocket) {
        return true;
    }
    constexpr std::string_view kScheme = "bearer ";
    const std::string_view header = request.authorization;
    if (token_.empty() || lower(header.substr(0, kScheme.size())) != kScheme) {
        return false;
    }
    const std::string_view given = header.substr(kScheme.size());
    std::size_t difference = given.size() ^ token_.size();
    for (std::size_t i = 0; i < token_.size(); ++i) {
        const char byte = i < given.size() ? given[i] : '\0';
        difference |= static_cast<unsigned char>(byte ^ token_[i]);
    }
    return difference == 0;
}

}  // namespace station
