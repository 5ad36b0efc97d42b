// Does one multicast group carry traffic?
#pragma once

#include <cstdint>

#include "packetCapture.h"

struct T_interface;

struct ChannelScanArgument {
    T_interface* device;
    uint32_t group;  // network byte order
};

// Captures until a datagram for the group arrives or the attempts run out, and stores the verdict (1 or 0)
// as status of the group's channel record, if there is one. An attempt waits up to igmpLatency ms; a frame
// of another group costs two. Device trouble leaves the status alone.
// REQUIRES: the caller has joined the group and holds channelListLock for reading.
CaptureResult MyChannelScanThreadFunction(const ChannelScanArgument* argument);
