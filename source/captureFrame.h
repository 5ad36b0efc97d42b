// Reading frames from libpcap.
#pragma once

#include <cstdint>

struct pcap;

// One captured frame.
struct CapturedFrame {
    const uint8_t* data;  // libpcap's, valid until the next read from the handle
    uint32_t length;      // bytes captured
    uint64_t seconds;     // stamp since the epoch, up to 2106: what it is taken from has 32 bits for it
    uint64_t microseconds;

    uint64_t stampUs() const {
        return seconds * 1'000'000 + microseconds;
    }
};

// Reads the next frame; returns pcap_next_ex's result, and fills `frame` where that is 1.
//
// Nothing else looks into a pcap_pkthdr: the library's has the times of the distribution's ABI in it, 32 bits
// wide on some machines where all other code of this project has 64.
int readCapturedFrame(pcap* handle, CapturedFrame& frame);
