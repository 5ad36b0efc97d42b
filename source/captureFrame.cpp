#include "captureFrame.h"

#include <pcap/pcap.h>

int readCapturedFrame(pcap* handle, CapturedFrame& frame) {
    pcap_pkthdr* header;
    const u_char* data;
    const int result = pcap_next_ex(handle, &header, &data);
    if (result == 1) {
        // Kernel and capture file count 32 bits without a sign, and libpcap stores them in a time with one.
        frame = {data, header->caplen, static_cast<uint32_t>(header->ts.tv_sec),
                 static_cast<uint64_t>(header->ts.tv_usec)};
    }
    return result;
}
