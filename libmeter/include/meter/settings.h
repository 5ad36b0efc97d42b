// What a channel is measured by.
#pragma once

#include <cstdint>
#include <optional>

namespace meter {

struct Settings {
    std::optional<uint32_t> group;  // host byte order; shown in the report alone
    // Where given, only flows of this source address (host byte order) or to this port are the channel's.
    std::optional<uint32_t> source;
    std::optional<uint16_t> port;

    uint32_t pidAbsenceMs = 5000;             // 1.6: operators choose it (ETSI TR 101 290, 5.2.1, note)
    uint32_t pcrRepetitionMs = 100;           // 2.3.a: V1.4.1; TS 101 154 took its 40 ms out in 2005
    bool serviceInformationRequired = false;  // the third priority counts tables that never came, too

    // Packets come without arrival (ChannelAnalyser::feedPackets): a file of bare packets.
    bool bare = false;
    std::optional<uint64_t> bitrate;  // bit/s; constant pace of a bare file in place of its PCRs'; above 0
};

}  // namespace meter
