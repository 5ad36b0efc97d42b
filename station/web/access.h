// Who may ask, and who may change.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "web/message.h"

namespace station {

class Access {
  public:
    // An empty token takes no changes over TCP. `allowedHosts` are names, with or without a port.
    Access(std::string token, const std::vector<std::string>& allowedHosts);

    // Whether the Host (or the authority of the target) names this server: a page of somebody else's whose
    // name was pointed here (DNS rebinding) does not. Addresses that the connection was made to, localhost,
    // the loopback's addresses, this machine's name and the configured names do. The Unix socket takes any.
    bool hostAllowed(const Request& request, std::string_view host) const;
    // Whether it came over the Unix socket or bears the token. Takes as long for a wrong token as for the
    // right one.
    bool mayChange(const Request& request) const;

  private:
    std::string token_;
    std::vector<std::string> hosts_;
};

}  // namespace station
