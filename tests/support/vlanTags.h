// Frames in VLANs.
#pragma once

#include <vector>

#include "support/psiBuilder.h"

namespace test {

// The Ethernet frame with these VLAN identifiers in front of its type, the outermost first: IEEE 802.1Q, and
// 802.1ad around another tag.
inline psi::Bytes tagged(const psi::Bytes& frame, const std::vector<uint16_t>& vlans) {
    psi::Bytes tags;
    for (std::size_t i = 0; i < vlans.size(); ++i) {
        tags = psi::concat({tags, psi::u16(i + 1 < vlans.size() ? 0x88A8 : 0x8100), psi::u16(vlans[i])});
    }
    psi::Bytes result = frame;
    result.insert(result.begin() + 12, tags.begin(), tags.end());
    return result;
}

}  // namespace test
