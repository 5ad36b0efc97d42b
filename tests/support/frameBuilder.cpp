#include "support/frameBuilder.h"

#include <arpa/inet.h>

namespace test {
namespace {

Bytes address(const std::string& dotted) {
    return psi::u32(ntohl(inet_addr(dotted.c_str())));
}

}  // namespace

Bytes UdpFlow::frame(std::span<const uint8_t> payload) {
    Bytes content(payload.begin(), payload.end());
    if (rtp)
        content = psi::concat({{0x80, 33}, psi::u16(rtpSequence++), psi::u32(0), psi::u32(0), content});
    const std::size_t udpSize = 8 + content.size();
    const Bytes to = address(group);
    const Bytes ip = psi::concat(
        {{0x45, tos}, psi::u16(20 + udpSize), {0, 0, 0x40, 0}, {ttl, 17, 0, 0}, address(source), to});
    const Bytes ethernet = {0x01, 0x00, 0x5E, psi::low8(to[1] & 0x7F), to[2], to[3], 2, 0, 0, 0, 0,
                            1,    0x08, 0x00};
    return psi::concat({ethernet, ip, psi::u16(sourcePort), psi::u16(destinationPort),
                        psi::u16(udpLength.value_or(static_cast<uint16_t>(udpSize))), psi::u16(0), content});
}

PcapWriter::PcapWriter(const std::string& path, Stamps stamps, int linkType)
    : format_(pcap_open_dead_with_tstamp_precision(linkType, 65535, static_cast<u_int>(stamps))),
      file_(pcap_dump_open(format_, path.c_str())),
      tickNs_(stamps == Stamps::kMicro ? 1000 : 1) {}

PcapWriter::~PcapWriter() {
    pcap_dump_close(file_);
    pcap_close(format_);
}

void PcapWriter::write(uint64_t timeNs, std::span<const uint8_t> frame) {
    constexpr uint64_t kSecond = 1'000'000'000;
    const auto length = static_cast<bpf_u_int32>(frame.size());
    const timeval stamp{.tv_sec = static_cast<time_t>(timeNs / kSecond),
                        .tv_usec = static_cast<suseconds_t>(timeNs % kSecond / tickNs_)};
    const pcap_pkthdr header{stamp, length, length};
    pcap_dump(reinterpret_cast<u_char*>(file_), &header, frame.data());
}

}  // namespace test
