// Who may ask, and who may change.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "web/message.h"
#include "web/server.h"

namespace station {

class Access {
  public:
    explicit Access(const ServerAccess& access);

    // Whether the Host (or the authority of the target) names this server: a page of somebody else's whose
    // name was pointed here (DNS rebinding) does not. Addresses that the connection was made to, localhost,
    // the loopback's addresses, this machine's name and the configured names do. The Unix socket takes any.
    bool hostAllowed(const Request& request, std::string_view host) const;

    // Whether a change may come of where a browser says that it comes from, over any listener; who is no
    // browser says nothing and passes.
    //
    // Sec-Fetch-Site, which no page can set, decides where it is sent: to https and to localhost. Elsewhere
    // Origin has to name what Host names, or an allowed host. Over the Unix socket, where any Host is taken,
    // it has to be an address, localhost, this machine's name or an allowed host on top of that, or a page
    // whose name was pointed at the proxy would pass. Headers that a proxy adds (X-Forwarded-Host) are not
    // looked at: without a proxy anybody could send them.
    bool sameSite(const Request& request, std::string_view host) const;

    enum class Right : uint8_t {
        kGranted,
        kNeedsToken,  // none came
        kWrongToken,
        kNever,  // there is no token that would do
    };
    // What a request may do beside reading. Takes as long for a wrong token as for the right one.
    Right right(const Request& request) const;

  private:
    struct Name {
        std::string host;  // in lower case, without the brackets of an IPv6 address
        std::string port;  // empty: any
    };
    bool isAllowed(const Name& origin) const;
    bool isToken(std::string_view given) const;

    std::string token_;
    bool socketToken_;
    std::vector<std::string> own_;  // names that this machine has anyway
    std::vector<Name> allowed_;
};

}  // namespace station
