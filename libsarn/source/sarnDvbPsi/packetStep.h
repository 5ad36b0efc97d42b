// One packet on its way through the steps of the packet loop.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "sarn/packetFields.h"

// When a datagram came, in the units that the steps want.
struct Arrival {
    int64_t ms;
    uint64_t hr;  // 1/54 us
    timeval time;
};

// Passed by value, so that the compiler can keep its parts in registers.
struct Step {
    ts_stream_t& stream;
    ts_pid_t& pid;
    const Arrival& arrival;
    TsPacket packet;
    TsHeader header;
    int32_t readable;  // bytes from the packet's start to the datagram's end
    uint16_t number;   // the PID
};

struct AdaptationResult {
    uint32_t payload;           // where the payload begins by the sum of the fields; stuffing is not skipped
    bool signalsDiscontinuity;  // of the continuity counter: excuses a gap before this packet
};

// Reads the packet's adaptation field, which must be there and not empty, and measures its PCR.
// `continuityError`: a gap was found before this packet.
AdaptationResult readAdaptationField(Step s, bool continuityError);
