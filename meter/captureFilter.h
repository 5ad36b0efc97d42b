// What the kernel lets through to the meter's capture, as classic BPF.
#pragma once

#include <linux/filter.h>

#include <vector>

#include "capture.h"

namespace meterd {

// Ethernet frames with IPv4, UDP, to a multicast group of the share, with up to two VLAN tags in the frame
// (one more may have been taken out by the card or the kernel). Fragments pass. Returns more than a frame's
// length, or 0.
std::vector<sock_filter> multicastFilter(Share share);

}  // namespace meterd
