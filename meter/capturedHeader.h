// What libpcap says of a frame.
#pragma once

#include <cstdint>

struct pcap_pkthdr;

struct CapturedHeader {
    int64_t seconds;    // since the Unix epoch
    int64_t fraction;   // of a second: us, or ns where libpcap was asked for them
    uint32_t captured;  // bytes
    uint32_t length;    // bytes that the frame had

    bool cut() const {
        return captured < length;
    }
};

// Nothing else looks into a pcap_pkthdr: the library's has the times of the distribution's ABI in it, 32 bits
// wide on some machines where all other code of this project has 64. Seconds of 32 bits have no sign.
CapturedHeader readHeader(const pcap_pkthdr& header);
