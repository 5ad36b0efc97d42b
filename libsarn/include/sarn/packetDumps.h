// Printers of packet bytes, packet headers and the PIDs of a stream, for use while looking into a fault.
#pragma once

#include <cstdint>
#include <span>

#include "sarn/dumpSink.h"
#include "sarn/packetFields.h"
#include "sarn/tsStream.h"

// Sixteen bytes a line with their offsets, into the log at level 4.
void dumpHex(std::span<const uint8_t> bytes);
void dumpHex(DumpSink& sink, std::span<const uint8_t> bytes);

// The PIDs seen so far with their bit rates and PCRs, and the stream's totals. A PID's bit rate is its share
// of the stream's, which is 0 until measured; a PID with scrambled packets counts as under DRM.
void dumpPidSummary(DumpSink& sink, const ts_stream_t& stream);

// Header and adaptation field of a packet (ISO/IEC 13818-1 2.4.3.2 to 2.4.3.5), as far as the packet carries
// them; `pid` is the record of its PID. The PCR is in nanoseconds. Fields that lead out of the packet read 0.
void dumpPacketHeader(DumpSink& sink, TsPacket packet, const ts_pid_t& pid);
