// Descriptors of PSI and SI tables (ISO/IEC 13818-1 2.6, ETSI EN 300 468 6.2) over bounded views. A loop ends
// where a descriptor does not fit; fields outside of a descriptor read as 0.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fields/bytes.h"
#include "meter/report.h"

namespace meter {

enum DescriptorTag : uint8_t {
    kVideoStreamDescriptor = 0x02,
    kRegistrationDescriptor = 0x05,
    kCaDescriptor = 0x09,
    kLanguageDescriptor = 0x0A,
    kMpeg4AudioDescriptor = 0x1C,
    kAvcVideoDescriptor = 0x28,
    kHevcVideoDescriptor = 0x38,
    kNetworkNameDescriptor = 0x40,
    kVbiTeletextDescriptor = 0x46,
    kServiceDescriptor = 0x48,
    kShortEventDescriptor = 0x4D,
    kStreamIdentifierDescriptor = 0x52,
    kTeletextDescriptor = 0x56,
    kSubtitlingDescriptor = 0x59,
    kAc3Descriptor = 0x6A,
    kEnhancedAc3Descriptor = 0x7A,
    kDtsDescriptor = 0x7B,
    kAacDescriptor = 0x7C,
    kExtensionDescriptor = 0x7F,
};

inline constexpr std::size_t kLanguageSize = 3;  // of an ISO 639-2 code, in bytes

// Calls take(tag, content) for each descriptor of the loop that is there as a whole.
template <typename Take>
void forEachDescriptor(Bytes loop, Take take) {
    while (loop.size() >= 2 && loop[1] <= loop.size() - 2) {
        const std::size_t length = loop[1];
        take(loop[0], loop.subspan(2, length));
        loop = loop.subspan(2 + length);
    }
}

// The first descriptor with the tag.
std::optional<Bytes> findDescriptor(Bytes loop, DescriptorTag tag);

// A loop behind a 12-bit length at `offset`; cut where its section ends.
Bytes descriptorLoop(Bytes section, std::size_t offset);

// CA_system_ID and CA_PID of each CA_descriptor, at most `limit`.
std::vector<CaReport> caDescriptors(Bytes loop, std::size_t limit);

// What the descriptors of a PMT's stream say of it.
struct StreamDetails {
    std::optional<std::string> language;  // ISO 639-2 codes; several ones of a stream with commas
    uint8_t audioType = 0;                // of the first language; 0 without one
    std::vector<std::string> pages;       // teletext magazines with page, subtitle pages
    std::optional<uint8_t> componentTag;
    bool stillPicture = false;
    std::optional<uint8_t> aacProfileLevel;  // MPEG-4_audio_profile_and_level

    bool operator==(const StreamDetails&) const = default;
};
StreamDetails streamDetails(Bytes loop);

}  // namespace meter
