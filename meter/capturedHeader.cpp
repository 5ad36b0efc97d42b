#include "capturedHeader.h"

#include <pcap/pcap.h>

CapturedHeader readHeader(const pcap_pkthdr& header) {
    int64_t seconds = header.ts.tv_sec;
    if constexpr (sizeof header.ts.tv_sec == sizeof(uint32_t)) {
        seconds = static_cast<uint32_t>(header.ts.tv_sec);
    }
    return {seconds, header.ts.tv_usec, header.caplen, header.len};
}
