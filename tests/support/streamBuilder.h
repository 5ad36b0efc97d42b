// Builds transport streams packet by packet (ISO/IEC 13818-1 2.4.3), as a test wants them to be.
#pragma once

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <utility>
#include <vector>

#include "support/psiBuilder.h"

namespace test {

using psi::Bytes;
using psi::TsPacket;

inline constexpr uint16_t kNullPid = 0x1FFF;

struct Pes {
    uint8_t streamId = 0xE0;
    int packets = 1;  // the PES start, which has a PTS, and those that go on with it
    Bytes content = {};
};

// Every call appends packets; continuity counters run on per PID.
class TsStream {
  public:
    TsStream& pat(std::initializer_list<std::pair<uint16_t, uint16_t>> programs, uint8_t version = 0) {
        Bytes payload;
        for (const auto& [number, pid] : programs)
            payload = psi::concat({payload, psi::u16(number), psi::u16(0xE000U | pid)});
        return section(0, psi::section(0x00, 1, version, payload));
    }
    TsStream& pmt(uint16_t program, uint16_t pmtPid, uint16_t pcrPid,
                  const std::vector<psi::ElementaryStream>& streams, uint8_t version = 0) {
        return section(pmtPid, psi::pmtSection(program, version, pcrPid, streams));
    }
    TsStream& section(uint16_t pid, const Bytes& section) {
        constexpr std::size_t kPayloadSize = 184;
        const Bytes bytes = psi::concat({{0}, section});  // behind a pointer_field
        for (std::size_t at = 0; at < bytes.size(); at += kPayloadSize) {
            TsPacket& packet = append(pid, true);
            packet[1] |= at == 0 ? kUnitStart : 0;
            std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(at),
                        std::min(bytes.size() - at, kPayloadSize), packet.begin() + 4);
        }
        return *this;
    }
    TsStream& pes(uint16_t pid, const Pes& pes = {}) {
        TsPacket& packet = append(pid, true);
        packet[1] |= kUnitStart;
        // ISO/IEC 13818-1 2.4.3.6; the PTS is 0.
        std::ranges::copy(Bytes{0, 0, 1, pes.streamId, 0, 0, 0x80, 0x80, 5, 0x21, 0, 1, 0, 1},
                          packet.begin() + 4);
        std::ranges::copy(pes.content, packet.begin() + 18);
        return payload(pid, pes.packets - 1);
    }
    // Packets with payload only, no unit start.
    TsStream& payload(uint16_t pid, int count = 1) {
        for (int i = 0; i < count; ++i)
            append(pid, true);
        return *this;
    }
    // A packet with an adaptation field only, which carries the PCR (27 MHz).
    TsStream& pcr(uint16_t pid, uint64_t pcr, bool discontinuity = false) {
        TsPacket& packet = append(pid, false);
        const uint64_t base = pcr / 300;
        const uint8_t flags = discontinuity ? 0x90 : 0x10;
        std::ranges::copy(
            psi::concat({{183, flags}, psi::u32(base >> 1), psi::u16(base << 15 | 0x7E00 | pcr % 300)}),
            packet.begin() + 4);
        return *this;
    }
    TsStream& null(int count = 1) {
        return payload(kNullPid, count);
    }

    // `count` (1 to 15) packets of the PID get lost here.
    TsStream& lose(uint16_t pid, int count) {
        nextContinuity_[pid] = static_cast<uint8_t>(nextContinuity_[pid] + count);
        return *this;
    }
    TsStream& repeatLast() {
        packets_.push_back(packets_.back());
        return *this;
    }
    TsPacket& last() {
        return packets_.back();
    }

    // The packets so far as datagram payloads, which leave the builder; the last one may be shorter.
    std::vector<Bytes> takeDatagrams(std::size_t packetsPerDatagram = 7) {
        std::vector<Bytes> datagrams;
        for (std::size_t i = 0; i < packets_.size(); ++i) {
            if (i % packetsPerDatagram == 0)
                datagrams.emplace_back();
            datagrams.back().insert(datagrams.back().end(), packets_[i].begin(), packets_[i].end());
        }
        packets_.clear();
        return datagrams;
    }

  private:
    static constexpr uint8_t kUnitStart = 0x40;

    TsPacket& append(uint16_t pid, bool hasPayload) {
        TsPacket packet;
        packet.fill(0xFF);
        uint8_t& next = nextContinuity_[pid];
        const int continuity = (hasPayload ? next++ : next - 1) & 0xF;
        const int control = hasPayload ? 0x10 : 0x20;
        std::ranges::copy(
            Bytes{0x47, psi::low8(pid >> 8), psi::low8(pid), static_cast<uint8_t>(control | continuity)},
            packet.begin());
        return packets_.emplace_back(packet);
    }

    std::vector<TsPacket> packets_;
    std::map<uint16_t, uint8_t> nextContinuity_;
};

}  // namespace test
