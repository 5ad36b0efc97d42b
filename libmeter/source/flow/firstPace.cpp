#include "flow/firstPace.h"

#include <algorithm>

namespace meter {

std::optional<Pace> FirstPace::search(Bytes packets) {
    for (std::size_t at = 0; at + kPacketSize <= packets.size(); at += kPacketSize, ++position_) {
        time_.packet();
        const TsPacket packet(packets.data() + at, kPacketSize);
        const TsHeader header(packet.data());
        if (packet[0] != kSyncByte || header.transportErrorIndicator() || !header.hasAdaptationField()) {
            continue;
        }
        const Adaptation adaptation = adaptationOf(packet);
        auto clock = std::ranges::find(clocks_, header.pid(), &Clock::pid);
        if (clock == clocks_.end()) {
            if (!adaptation.pcr || clocks_.size() == kClocksLimit) {
                continue;
            }
            clock = clocks_.insert(clocks_.end(), {header.pid(), {}});
        }
        clock->track.discontinuity = clock->track.discontinuity || adaptation.discontinuity;
        if (!adaptation.pcr) {
            continue;
        }
        time_.pcr(header.pid(), clock->track, *adaptation.pcr, position_);
        if (const std::optional<Pace> pace = time_.pace()) {
            known_ = true;
            return pace;
        }
    }
    return std::nullopt;
}

}  // namespace meter
