// SEI messages (ITU-T H.264 7.3.2.3.1, H.265 7.3.5).
#pragma once

#include "fields/bytes.h"

namespace meter {

inline constexpr uint32_t kRecoveryPointSei = 6;
inline constexpr uint32_t kAlternativeTransferSei = 147;  // preferred_transfer_characteristics

// Calls take(payloadType, payload) for each message of the payload that is there as a whole.
template <typename Take>
void forEachSeiMessage(Bytes raw, Take take) {
    constexpr uint8_t kMore = 0xFF;
    constexpr std::size_t kSmallest = 2;  // what is shorter is the trailing bits
    while (raw.size() > kSmallest) {
        std::size_t at = 0;
        const auto number = [&raw, &at] {
            uint32_t value = 0;
            for (; at < raw.size() && raw[at] == kMore; ++at)
                value += kMore;
            return value + u8At(raw, at++);
        };
        const uint32_t type = number();
        const uint32_t size = number();
        if (at > raw.size() || size > raw.size() - at)
            return;
        take(type, raw.subspan(at, size));
        raw = raw.subspan(at + size);
    }
}

}  // namespace meter
