// Ethernet frames with UDP multicast datagrams, and capture files of them.
#pragma once

#include <pcap/pcap.h>

#include <cstdint>
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

    // The next frame; counts rtpSequence up. The header checksums are 0.
    Bytes frame(std::span<const uint8_t> payload);
};

// A capture file in the classic format.
class PcapWriter {
  public:
    enum class Stamps { kMicro = PCAP_TSTAMP_PRECISION_MICRO, kNano = PCAP_TSTAMP_PRECISION_NANO };

    explicit PcapWriter(const std::string& path, Stamps stamps = Stamps::kMicro, int linkType = DLT_EN10MB);
    ~PcapWriter();
    PcapWriter(const PcapWriter&) = delete;
    // `timeNs`: nanoseconds since the epoch.
    void write(uint64_t timeNs, std::span<const uint8_t> frame);

  private:
    pcap_t* format_;
    pcap_dumper_t* file_;
    uint64_t tickNs_;
};

}  // namespace test
