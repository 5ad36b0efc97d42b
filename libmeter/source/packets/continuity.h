// Continuity counters (ISO/IEC 13818-1 2.4.3.3; ETSI TR 101 290, 5.2.1, 1.4).
#pragma once

#include "fields/packet.h"

namespace meter {

struct ContinuityFinding {
    bool error = false;
    bool broken = false;      // what went on in the packet before does not go on in this one
    bool repetition = false;  // equal to the packet before: its payload is not read
    uint8_t missing = 0;      // packets, at least; 0 to 15
};

// The counter of one PID, kept as the header of the packet that most often comes next: one comparison tells
// of it all that is expected.
class Continuity {
  public:
    // A packet that begins nothing, is not scrambled, has payload alone and the next counter, after one that
    // was no repetition.
    bool goesOn(TsHeader header) const {
        return header.withoutPriority() == next_;
    }
    // REQUIRES: goesOn().
    void goOn() {
        next_ = (next_ & ~kCounter) | ((next_ + 1U) & kCounter);
    }
    // The packet, which has payload, goes on as it should, and no repetition was before it.
    bool isNext(TsHeader header) const {
        return (next_ & kRepeated) == 0 && header.continuityCounter() == expected();
    }
    void accept(TsHeader header) {
        next_ = TsHeader::clearContinuation(header.pid(), header.continuityCounter() + 1U);
    }
    // The next packet's counter is taken as it is.
    void forget() {
        next_ = kUnknown;
    }
    // Whether the packet could be the one before once more.
    bool mayRepeat(TsHeader header) const {
        return next_ != kUnknown && header.hasPayload() && header.continuityCounter() == last();
    }

    // Any packet but one that isNext(). `equal`: it mayRepeat() and is the packet before once more.
    ContinuityFinding packet(TsHeader header, const Adaptation& adaptation, bool equal) {
        ContinuityFinding finding;
        const uint8_t counter = header.continuityCounter();
        if (next_ == kUnknown) {
            accept(header);
            return finding;
        }
        if (!header.hasPayload()) {
            finding.missing = (counter - last()) & kCounter;
            finding.error = finding.missing != 0;
            accept(header);
        } else if (equal) {
            finding.repetition = true;
            finding.error = (next_ & kRepeated) != 0;  // a third one
            next_ |= kRepeated;
        } else {
            finding.missing = (counter - expected()) & kCounter;  // an equal one with other content: 15
            finding.error = finding.missing != 0;
            accept(header);
        }
        finding.broken = finding.missing != 0;
        if (adaptation.discontinuity) {
            finding.error = false;
            finding.missing = 0;
        }
        return finding;
    }

  private:
    static constexpr uint32_t kCounter = 0x0F;
    // The packet before was a repetition. A bit that no withoutPriority() has: whatever comes, nothing
    // goesOn().
    static constexpr uint32_t kRepeated = TsHeader::kTransportPriority;
    static constexpr uint32_t kUnknown = kRepeated;

    uint8_t expected() const {
        return next_ & kCounter;
    }
    uint8_t last() const {
        return (next_ - 1U) & kCounter;
    }

    uint32_t next_ = kUnknown;
};

}  // namespace meter
