// Builds transport streams packet by packet (ISO/IEC 13818-1 2.4.3), as a test wants them to be.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "support/psiBuilder.h"

namespace test {

using psi::Bytes;
using psi::TsPacket;

inline constexpr uint16_t kNullPid = 0x1FFF;
inline constexpr int kPacketsPerDatagram = 7;

struct Pes {
    uint8_t streamId = 0xE0;
    std::optional<uint64_t> pts = {};  // 90 kHz
    int packets = 1;                   // the PES start and those that go on with it
};

// Every call appends packets; continuity counters run on per PID.
class TsStream {
  public:
    TsStream& pat(std::initializer_list<std::pair<uint16_t, uint16_t>> programs, uint8_t version = 0);
    TsStream& pmt(uint16_t program, uint16_t pmtPid, uint16_t pcrPid,
                  const std::vector<psi::ElementaryStream>& streams, uint8_t version = 0);
    TsStream& section(uint16_t pid, const Bytes& section);
    TsStream& pes(uint16_t pid, const Pes& pes);
    // Packets with payload only, no unit start.
    TsStream& payload(uint16_t pid, int count = 1);
    // A packet with an adaptation field only, which carries the PCR (27 MHz).
    TsStream& pcr(uint16_t pid, uint64_t pcr, bool discontinuity = false);
    TsStream& null(int count = 1);

    // `count` (1 to 15) packets of the PID get lost here.
    TsStream& lose(uint16_t pid, int count);
    TsStream& repeatLast();
    TsPacket& last();

    // The packets so far as datagram payloads, which leave the builder; the last one may be shorter.
    std::vector<Bytes> takeDatagrams(int packetsPerDatagram = kPacketsPerDatagram);

  private:
    TsPacket& append(uint16_t pid, bool hasPayload);

    std::vector<TsPacket> packets_;
    std::map<uint16_t, uint8_t> nextContinuity_;
};

}  // namespace test
