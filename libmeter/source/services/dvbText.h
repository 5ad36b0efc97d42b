// Texts of service information (ETSI EN 300 468 annex A).
#pragma once

#include <string>

#include "fields/bytes.h"

namespace meter {

// The text as UTF-8, by the character set that its first bytes select; without one ISO 6937 with the euro
// sign. Line breaks become a space, emphasis and other control codes are left out, what no character is
// becomes U+FFFD. Empty for sets that annex A does not define. Any thread.
std::string decodeText(Bytes text);

}  // namespace meter
