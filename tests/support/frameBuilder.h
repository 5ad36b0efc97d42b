// Ethernet frames with UDP multicast datagrams, and capture files of them.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <pcap/pcap.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
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
    enum class Stamps : uint32_t { kMicro = 1000, kNano = 1 };  // ns

    explicit PcapWriter(const std::string& path, Stamps stamps = Stamps::kMicro,
                        uint32_t linkType = DLT_EN10MB)
        : path_(path), file_(path, std::ios::binary), tickNs_(static_cast<uint32_t>(stamps)) {
        constexpr uint32_t kVersion24 = 4 << 16 | 2;
        put({stamps == Stamps::kMicro ? 0xA1B2C3D4 : 0xA1B23C4D, kVersion24, 0, 0, 65535, linkType});
    }

    // Where the environment names a directory for them, captures are kept there: builds are compared by them.
    ~PcapWriter() {
        file_.close();
        if (const char* directory = std::getenv("KESTOR_KEEP_CAPTURES"))
            std::filesystem::copy_file(path_,
                                       std::string(directory) + "/" +
                                           testing::UnitTest::GetInstance()->current_test_info()->name() +
                                           std::to_string(kept_++));
    }

    // `timeNs`: nanoseconds since the epoch.
    void write(uint64_t timeNs, std::span<const uint8_t> frame) {
        constexpr uint64_t kSecond = 1'000'000'000;
        const auto length = static_cast<uint32_t>(frame.size());
        put({static_cast<uint32_t>(timeNs / kSecond), static_cast<uint32_t>(timeNs % kSecond / tickNs_),
             length, length});
        file_.write(reinterpret_cast<const char*>(frame.data()), length);
    }

  private:
    void put(std::initializer_list<uint32_t> words) {
        for (const uint32_t word : words)
            file_.write(reinterpret_cast<const char*>(&word), sizeof word);
    }

    inline static int kept_ = 0;
    std::string path_;
    std::ofstream file_;
    uint32_t tickNs_;
};

}  // namespace test
