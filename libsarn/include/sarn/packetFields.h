// The bits of packets, and of what an analysis context keeps of them.
#pragma once

#include "sarn/packetBits.h"
#include "sarn/tsStream.h"

// The header of a PID's last packet; before the first one all its fields are 0.
inline TsHeader lastHeader(const ts_pid_t& pid) {
    return TsHeader(pid.last_header.data());
}
