#include "support/streamBuilder.h"

#include <algorithm>
#include <span>

namespace test {
namespace {

constexpr uint8_t kUnitStart = 0x40;
constexpr uint8_t kAdaptationFieldOnly = 0x20;
constexpr uint8_t kPayloadOnly = 0x10;
constexpr uint64_t kPcrBasePeriod = 300;

// adaptation_field with a PCR, without its length byte.
Bytes adaptationField(uint64_t pcr, bool discontinuity) {
    const uint64_t base = pcr / kPcrBasePeriod;
    const uint64_t extension = pcr % kPcrBasePeriod;
    return psi::concat({{static_cast<uint8_t>(discontinuity ? 0x90 : 0x10)},
                        psi::u32(static_cast<uint32_t>(base >> 1)),
                        psi::u16((base & 1) << 15 | 0x7E00 | extension)});
}

// ISO/IEC 13818-1 2.4.3.6, with a PTS or without.
Bytes pesHeader(uint8_t streamId, std::optional<uint64_t> pts) {
    Bytes header = {0, 0, 1, streamId, 0, 0, 0x80, 0x00, 0x00};
    if (pts) {
        header[7] = 0x80;
        header[8] = 5;
        const uint64_t value = *pts;
        const Bytes field = psi::concat({{psi::low8(0x21 | (value >> 29 & 0x0E))},
                                         psi::u16((value >> 14 & 0xFFFE) | 1),
                                         psi::u16((value << 1 & 0xFFFE) | 1)});
        header.insert(header.end(), field.begin(), field.end());
    }
    return header;
}

}  // namespace

TsPacket& TsStream::append(uint16_t pid, bool hasPayload) {
    TsPacket packet;
    packet.fill(0xFF);
    uint8_t& next = nextContinuity_[pid];
    const auto continuity = static_cast<uint8_t>((hasPayload ? next : next - 1) & 0xF);
    packet[0] = 0x47;
    packet[1] = psi::low8(pid >> 8);
    packet[2] = psi::low8(pid);
    packet[3] = static_cast<uint8_t>((hasPayload ? kPayloadOnly : kAdaptationFieldOnly) | continuity);
    if (hasPayload)
        ++next;
    return packets_.emplace_back(packet);
}

TsStream& TsStream::section(uint16_t pid, const Bytes& section) {
    std::span<const uint8_t> rest = section;
    for (std::size_t start = 5; start == 5 || !rest.empty(); start = 4) {
        TsPacket& packet = append(pid, true);
        if (start == 5) {
            packet[1] |= kUnitStart;
            packet[4] = 0;  // pointer_field
        }
        const std::size_t count = std::min(rest.size(), packet.size() - start);
        std::copy_n(rest.begin(), count, packet.begin() + static_cast<std::ptrdiff_t>(start));
        rest = rest.subspan(count);
    }
    return *this;
}

TsStream& TsStream::pat(std::initializer_list<std::pair<uint16_t, uint16_t>> programs, uint8_t version) {
    Bytes payload;
    for (const auto& [number, pid] : programs)
        payload = psi::concat({payload, psi::u16(number), psi::u16(0xE000U | pid)});
    return section(0, psi::section(0x00, 1, version, payload));
}

TsStream& TsStream::pmt(uint16_t program, uint16_t pmtPid, uint16_t pcrPid,
                        const std::vector<psi::ElementaryStream>& streams, uint8_t version) {
    return section(pmtPid, psi::pmtSection(program, version, pcrPid, streams));
}

TsStream& TsStream::pes(uint16_t pid, const Pes& pes) {
    TsPacket& packet = append(pid, true);
    packet[1] |= kUnitStart;
    std::ranges::copy(pesHeader(pes.streamId, pes.pts), packet.begin() + 4);
    return payload(pid, pes.packets - 1);
}

TsStream& TsStream::payload(uint16_t pid, int count) {
    for (int i = 0; i < count; ++i)
        append(pid, true);
    return *this;
}

TsStream& TsStream::pcr(uint16_t pid, uint64_t pcr, bool discontinuity) {
    TsPacket& packet = append(pid, false);
    const Bytes field = adaptationField(pcr, discontinuity);
    packet[4] = static_cast<uint8_t>(packet.size() - 5);
    std::copy(field.begin(), field.end(), packet.begin() + 5);
    return *this;
}

TsStream& TsStream::null(int count) {
    return payload(kNullPid, count);
}

TsStream& TsStream::lose(uint16_t pid, int count) {
    nextContinuity_[pid] = static_cast<uint8_t>(nextContinuity_[pid] + count);
    return *this;
}

TsStream& TsStream::repeatLast() {
    packets_.push_back(packets_.back());
    return *this;
}

TsPacket& TsStream::last() {
    return packets_.back();
}

std::vector<Bytes> TsStream::takeDatagrams(int packetsPerDatagram) {
    std::vector<Bytes> datagrams;
    for (std::size_t i = 0; i < packets_.size(); ++i) {
        if (i % static_cast<std::size_t>(packetsPerDatagram) == 0)
            datagrams.emplace_back();
        datagrams.back().insert(datagrams.back().end(), packets_[i].begin(), packets_[i].end());
    }
    packets_.clear();
    return datagrams;
}

}  // namespace test
