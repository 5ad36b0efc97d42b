// What people write where a multicast group is asked for.
#pragma once

#include <string>
#include <string_view>

namespace probelink {

// Whether a text is an IPv4 multicast group (224.0.0.0/4, RFC 5771) as a dotted quad.
bool isGroup(std::string_view text);
// The group in a text that has more around it, as in a playlist: scheme, source, port
// (udp://10.0.0.7@239.1.1.9:5000). Empty when there is none.
std::string groupWithin(std::string_view text);
// What is wrong with a text that is no group, to stand behind it or its name.
std::string groupProblem(std::string_view text);

}  // namespace probelink
