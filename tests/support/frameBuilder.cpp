#include "support/frameBuilder.h"

#include <arpa/inet.h>

#include <stdexcept>

namespace test {
namespace {

Bytes address(const std::string& dotted) {
    in_addr parsed{};
    if (inet_pton(AF_INET, dotted.c_str(), &parsed) != 1)
        throw std::invalid_argument("not an IPv4 address: " + dotted);
    return psi::u32(ntohl(parsed.s_addr));
}

uint16_t internetChecksum(std::span<const uint8_t> bytes) {
    uint32_t sum = 0;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
        sum += static_cast<uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

Bytes little32(uint32_t value) {
    return {psi::low8(value), psi::low8(value >> 8), psi::low8(value >> 16), psi::low8(value >> 24)};
}

void put(std::ofstream& file, std::span<const uint8_t> bytes) {
    file.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

}  // namespace

Bytes UdpFlow::frame(std::span<const uint8_t> payload) {
    Bytes content(payload.begin(), payload.end());
    if (rtp)
        content = psi::concat({{0x80, 33}, psi::u16(rtpSequence++), psi::u32(0), psi::u32(0), content});
    const std::size_t udpSize = 8 + content.size();
    const Bytes to = address(group);
    Bytes ip = psi::concat(
        {{0x45, tos}, psi::u16(20 + udpSize), {0, 0, 0x40, 0}, {ttl, 17, 0, 0}, address(source), to});
    const uint16_t checksum = internetChecksum(ip);
    ip[10] = psi::low8(checksum >> 8);
    ip[11] = psi::low8(checksum);
    const Bytes ethernet = {0x01, 0x00, 0x5E, psi::low8(to[1] & 0x7F), to[2], to[3], 2, 0, 0, 0, 0,
                            1,    0x08, 0x00};
    return psi::concat({ethernet, ip, psi::u16(sourcePort), psi::u16(destinationPort),
                        psi::u16(udpLength.value_or(static_cast<uint16_t>(udpSize))), psi::u16(0), content});
}

PcapWriter::PcapWriter(const std::string& path, Stamps stamps, uint32_t linkType)
    : file_(path, std::ios::binary), stamps_(stamps) {
    const uint32_t magic = stamps == Stamps::kMicro ? 0xA1B2C3D4 : 0xA1B23C4D;
    put(file_,
        psi::concat(
            {little32(magic), {2, 0, 4, 0}, little32(0), little32(0), little32(65535), little32(linkType)}));
}

void PcapWriter::write(uint64_t timeNs, std::span<const uint8_t> frame) {
    constexpr uint64_t kSecond = 1'000'000'000;
    const uint64_t fraction = timeNs % kSecond / (stamps_ == Stamps::kMicro ? 1000 : 1);
    const auto length = static_cast<uint32_t>(frame.size());
    put(file_, psi::concat({little32(static_cast<uint32_t>(timeNs / kSecond)),
                            little32(static_cast<uint32_t>(fraction)), little32(length), little32(length)}));
    put(file_, frame);
}

}  // namespace test
