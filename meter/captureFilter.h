// What the kernel lets through to the meter's capture, as classic BPF.
#pragma once

#include <linux/filter.h>

#include <vector>

namespace meterd {

// Ethernet frames with IPv4, UDP, to a multicast group, with up to two VLAN tags in the frame (one more may
// have been taken out by the card or the kernel). Fragments pass. Returns the frame's whole length or 0.
std::vector<sock_filter> multicastFilter();

// For PACKET_FANOUT_CBPF: the last byte of the group modulo `shares`.
std::vector<sock_filter> shareFilter(unsigned shares);

}  // namespace meterd
