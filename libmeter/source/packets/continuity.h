// Continuity counters (ISO/IEC 13818-1 2.4.3.3; ETSI TR 101 290, 5.2.1, 1.4).
#pragma once

#include <cstring>

#include "fields/packet.h"

namespace meter {

struct ContinuityFinding {
    bool error = false;
    bool broken = false;      // what went on in the packet before does not go on in this one
    bool repetition = false;  // equal to the packet before: its payload is not read
    uint8_t missing = 0;      // packets, at least; 0 to 15
};

// Whether both are one packet sent twice, which may differ in its PCR alone.
inline bool isRepetition(const uint8_t* packet, const uint8_t* before, bool hasPcr) {
    constexpr std::size_t kBehindPcr = kPcrFieldAt + kPcrFieldSize;
    if (!hasPcr) {
        return memcmp(packet, before, kPacketSize) == 0;
    }
    return memcmp(packet, before, kPcrFieldAt) == 0 &&
           memcmp(packet + kBehindPcr, before + kBehindPcr, kPacketSize - kBehindPcr) == 0;
}

// The counter of one PID. The caller keeps the packet before.
class Continuity {
  public:
    // The packet goes on as it should: with payload, the next counter, and no repetition before it.
    bool isNext(unsigned counter) const {
        return counter == expected_;
    }
    void accept(unsigned counter) {
        expected_ = (counter + 1U) & kMask;
    }
    // The next packet's counter is taken as it is.
    void forget() {
        expected_ = kUnknown;
    }

    // Any packet but one that isNext(). `before`: the PID's packet before this one; null where there is none.
    ContinuityFinding packet(const uint8_t* packet, const uint8_t* before, TsHeader header,
                             const Adaptation& adaptation) {
        ContinuityFinding finding;
        const uint8_t counter = header.continuityCounter();
        if (expected_ == kUnknown) {
            accept(counter);
            return finding;
        }
        const uint8_t last = (expected_ - 1U) & kMask;
        if (!header.hasPayload()) {
            finding.missing = (counter - last) & kMask;
            finding.error = finding.missing != 0;
            accept(counter);
        } else if (counter == last && before != nullptr &&
                   isRepetition(packet, before, adaptation.pcr.has_value())) {
            finding.repetition = true;
            finding.error = (expected_ & kRepeated) != 0;  // a third one
            expected_ |= kRepeated;
        } else {
            finding.missing = (counter - expected_) & kMask;  // an equal one with other content: 15
            finding.error = finding.missing != 0;
            accept(counter);
        }
        finding.broken = finding.missing != 0;
        if (adaptation.discontinuity) {
            finding.error = false;
            finding.missing = 0;
        }
        return finding;
    }

  private:
    static constexpr uint8_t kMask = 0x0F;
    static constexpr uint8_t kRepeated = 0x10;  // with the counter: the packet before was a repetition
    static constexpr uint8_t kUnknown = 0xFF;

    uint8_t expected_ = kUnknown;  // all that an object is: see PidState
};

}  // namespace meter
