// Ethernet frames with UDP multicast datagrams, and capture files of them.
#pragma once

#include <arpa/inet.h>
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
    uint8_t ttl = 16;
    uint8_t tos = 0;
    bool rtp = false;                        // a header whose fields are 0 stands before the payload
    std::optional<uint16_t> udpLength = {};  // in place of the true one

    // The header checksums are 0.
    Bytes frame(std::span<const uint8_t> payload) const {
        const Bytes rtpHeader = rtp ? psi::concat({{0x80, 33}, Bytes(10)}) : Bytes{};
        const std::size_t udpSize = 8 + rtpHeader.size() + payload.size();
        const Bytes from = psi::u32(ntohl(inet_addr(source.c_str())));
        const Bytes to = psi::u32(ntohl(inet_addr(group.c_str())));
        return psi::concat({{1, 0, 0x5E, psi::low8(to[1] & 0x7F), to[2], to[3]},
                            {2, 0, 0, 0, 0, 1, 0x08, 0x00},
                            {0x45, tos},
                            psi::u16(20 + udpSize),
                            {0, 0, 0x40, 0, ttl, 17, 0, 0},
                            from,
                            to,
                            psi::u16(1234),
                            psi::u16(5000),
                            psi::u16(udpLength.value_or(static_cast<uint16_t>(udpSize))),
                            {0, 0},
                            rtpHeader,
                            Bytes(payload.begin(), payload.end())});
    }
};

// A capture file in the classic format.
class PcapWriter {
  public:
    enum class Stamps { kMicro = PCAP_TSTAMP_PRECISION_MICRO, kNano = PCAP_TSTAMP_PRECISION_NANO };

    explicit PcapWriter(const std::string& path, Stamps stamps = Stamps::kMicro, int linkType = DLT_EN10MB)
        : format_(pcap_open_dead_with_tstamp_precision(linkType, 65535, static_cast<u_int>(stamps))),
          file_(pcap_dump_open(format_, path.c_str())),
          tickNs_(stamps == Stamps::kMicro ? 1000 : 1) {}
    ~PcapWriter() {
        pcap_dump_close(file_);
        pcap_close(format_);
    }
    PcapWriter(const PcapWriter&) = delete;

    // `timeNs`: nanoseconds since the epoch.
    void write(uint64_t timeNs, std::span<const uint8_t> frame) {
        constexpr uint64_t kSecond = 1'000'000'000;
        const auto length = static_cast<bpf_u_int32>(frame.size());
        const timeval stamp{.tv_sec = static_cast<time_t>(timeNs / kSecond),
                            .tv_usec = static_cast<suseconds_t>(timeNs % kSecond / tickNs_)};
        const pcap_pkthdr header{stamp, length, length};
        pcap_dump(reinterpret_cast<u_char*>(file_), &header, frame.data());
    }

  private:
    pcap_t* format_;
    pcap_dumper_t* file_;
    uint64_t tickNs_;
};

}  // namespace test
