// Ethernet frames with UDP multicast datagrams, and capture files of them.
#pragma once

#include <cstdint>
#include <fstream>
#include <optional>
#include <span>
#include <string>

#include "support/psiBuilder.h"

namespace test {

using psi::Bytes;

// One sender's datagrams to one group; the fields are free to be wrong.
struct UdpFlow {
    std::string group = "239.1.1.1";
    std::string source = "10.0.0.1";
    uint16_t sourcePort = 1234;
    uint16_t destinationPort = 5000;
    uint8_t ttl = 16;
    uint8_t tos = 0;
    bool rtp = false;
    std::optional<uint16_t> udpLength = {};  // in place of the true one
    uint16_t rtpSequence = 0;

    // The next frame; counts rtpSequence up.
    Bytes frame(std::span<const uint8_t> payload);
};

// A capture file in the classic format, little-endian.
class PcapWriter {
  public:
    enum class Stamps { kMicro, kNano };
    static constexpr uint32_t kEthernet = 1;

    explicit PcapWriter(const std::string& path, Stamps stamps = Stamps::kMicro,
                        uint32_t linkType = kEthernet);
    // `timeNs`: nanoseconds since the epoch.
    void write(uint64_t timeNs, std::span<const uint8_t> frame);

  private:
    std::ofstream file_;
    Stamps stamps_;
};

}  // namespace test
