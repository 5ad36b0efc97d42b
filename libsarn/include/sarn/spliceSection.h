// Decoder of splice_info_section, ANSI/SCTE 35 clause 9.6.
//
// libdvbpsi's own decoder refuses sections in their standard form (section_syntax_indicator 0) and ends the
// process on others, so splice sections are decoded here.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "sarn/dvbpsiHeaders.h"

inline constexpr uint8_t kSpliceTableId = 0xFC;

struct DeleteDescriptors {
    void operator()(dvbpsi_descriptor_t* descriptors) const {
        dvbpsi_DeleteDescriptors(descriptors);
    }
};
using DescriptorList = std::unique_ptr<dvbpsi_descriptor_t, DeleteDescriptors>;

struct SpliceInfo {
    uint8_t protocolVersion;
    bool encrypted;
    uint8_t encryptionAlgorithm;
    uint64_t ptsAdjustment;  // 90 kHz
    uint8_t cwIndex;
    uint16_t commandLength;      // as sent: 0xFFF where the sender leaves it open
    uint8_t commandType;         // of an encrypted section the byte as sent
    DescriptorList descriptors;  // in order of the section; none where they cannot be found
};

enum class SpliceResult { decoded, malformed, badCrc };

// Decodes a whole section, from its table_id to its CRC_32. Fills `info` only when it returns `decoded`.
// A section with the section_syntax_indicator set is malformed. The descriptors cannot be found in an
// encrypted section, nor behind a command of unknown type whose length is left open.
SpliceResult decodeSpliceInfo(std::span<const uint8_t> section, SpliceInfo& info);
