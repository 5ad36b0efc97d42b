#include "captureFile.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "capturedHeader.h"

namespace {

using Magic = std::array<uint8_t, 4>;
constexpr std::array<Magic, 5> kMagics = {{
    {0xA1, 0xB2, 0xC3, 0xD4},  // pcap, us
    {0xD4, 0xC3, 0xB2, 0xA1},
    {0xA1, 0xB2, 0x3C, 0x4D},  // pcap, ns
    {0x4D, 0x3C, 0xB2, 0xA1},
    {0x0A, 0x0D, 0x0D, 0x0A},  // pcapng
}};
constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
// The latest second whose nanoseconds fit; a damaged file may stamp any.
constexpr int64_t kLatestSecond = INT64_MAX / kNanosecondsPerSecond - 1;

std::optional<meter::LinkLayer> linkLayer(int datalink) {
    switch (datalink) {
        case DLT_EN10MB:
            return meter::LinkLayer::kEthernet;
        case DLT_LINUX_SLL:
            return meter::LinkLayer::kCooked;
        case DLT_LINUX_SLL2:
            return meter::LinkLayer::kCooked2;
        case DLT_RAW:
        case DLT_IPV4:
            return meter::LinkLayer::kInternetAlone;
        default:
            return std::nullopt;
    }
}

}  // namespace

bool CaptureFile::fits(std::span<const uint8_t> begin) {
    return std::any_of(kMagics.begin(), kMagics.end(), [&](const Magic& magic) {
        return begin.size() >= magic.size() && std::equal(magic.begin(), magic.end(), begin.begin());
    });
}

CaptureFile::CaptureFile(const std::string& path) : path_(path) {
    char error[PCAP_ERRBUF_SIZE] = "";
    handle_.reset(pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_NANO, error));
    if (!handle_) {
        // libpcap names the file itself where it cannot be opened.
        const std::string text = error;
        throw std::runtime_error(text.starts_with(path) ? text : path + ": " + text);
    }
    const int datalink = pcap_datalink(handle_.get());
    const auto link = linkLayer(datalink);
    if (!link) {
        const char* name = pcap_datalink_val_to_name(datalink);
        throw std::runtime_error(path + ": frames of link type " +
                                 (name != nullptr ? std::string(name) : std::to_string(datalink)) +
                                 " are not read; Ethernet, Linux cooked and raw IPv4 are");
    }
    link_ = *link;
}

std::optional<CaptureFile::Frame> CaptureFile::next() {
    pcap_pkthdr* header = nullptr;
    const u_char* bytes = nullptr;
    const int result = pcap_next_ex(handle_.get(), &header, &bytes);
    if (result == PCAP_ERROR_BREAK) {
        return std::nullopt;
    }
    if (result != 1) {
        throw std::runtime_error(path_ + ": " + pcap_geterr(handle_.get()));
    }
    const CapturedHeader read = readHeader(*header);
    Frame frame;
    const int64_t seconds = std::clamp<int64_t>(read.seconds, 0, kLatestSecond);
    const int64_t fraction = std::clamp<int64_t>(read.fraction, 0, kNanosecondsPerSecond - 1);
    frame.time = seconds * kNanosecondsPerSecond + fraction;
    frame.bytes = {bytes, read.captured};
    frame.cut = read.cut();
    return frame;
}

uint64_t CaptureFile::position() const {
    FILE* file = pcap_file(handle_.get());
    const long at = file != nullptr ? ftell(file) : -1;
    return at > 0 ? static_cast<uint64_t>(at) : 0;
}
