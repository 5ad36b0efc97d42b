#include "groupText.h"

#include <algorithm>

#include "basics/address.h"

namespace probelink {

bool isGroup(std::string_view text) {
    const auto address = basics::parseDotted(text);
    return address && basics::isMulticastAddress(*address);
}

std::string groupWithin(std::string_view text) {
    const std::size_t scheme = text.rfind("//");
    text.remove_prefix(scheme == std::string_view::npos ? 0 : scheme + 2);
    const std::size_t source = text.rfind('@');
    text.remove_prefix(source == std::string_view::npos ? 0 : source + 1);
    const std::size_t begin = std::min(text.find_first_not_of(" \t"), text.size());
    const std::string_view group = text.substr(begin).substr(0, text.substr(begin).find_first_of(":/?# \t"));
    return isGroup(group) ? std::string(group) : "";
}

std::string groupProblem(std::string_view text) {
    const std::string group = groupWithin(text);
    return group.empty() ? "has to be an IPv4 multicast group, 224.0.0.0 to 239.255.255.255"
                         : "has to be the group alone, without scheme and port: " + group;
}

}  // namespace probelink
