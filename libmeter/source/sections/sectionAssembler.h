// Puts the sections of one PID together (ISO/IEC 13818-1 2.4.4).
#pragma once

#include <cstdint>
#include <vector>

#include "sections/section.h"

namespace meter {

inline constexpr std::size_t kSectionSizeLimit = 4096 + kSectionHeaderSize;  // private sections; PSI has 1024

class SectionAssembler {
  public:
    explicit SectionAssembler(uint16_t pid) : pid_(pid) {}

    // The payload of the PID's next packet (clear, not a repetition, no transport_error_indicator).
    void feed(Bytes payload, bool unitStart, const Moment& moment, SectionSink& sink);
    // Something is missing before the next packet: an open section is dropped.
    void drop();
    // Bytes of memory held beside the object.
    std::size_t heldBytes() const;

  private:
    uint16_t pid_;
    std::vector<uint8_t> open_;
};

}  // namespace meter
