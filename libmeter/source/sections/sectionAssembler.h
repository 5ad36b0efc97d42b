// Puts the sections of one PID together (ISO/IEC 13818-1 2.4.4).
#pragma once

#include <cstdint>
#include <vector>

#include "sections/section.h"

namespace meter {

// What a section_length of 12 bits allows; PSI has 1024, private sections have 4096.
inline constexpr std::size_t kSectionSizeLimit = 0xFFF + kSectionHeaderSize;
// Sections kept of a PID to tell those that came before. When either is reached all are forgotten, and each
// comes as a new one once more.
inline constexpr std::size_t kKeptSectionsLimit = 256;
inline constexpr std::size_t kKeptBytesLimit = 16 * 1024;

// Holds memory for what comes: at most an open section, and what is kept.
class SectionAssembler {
  public:
    explicit SectionAssembler(uint16_t pid) : pid_(pid) {}

    // The payload of the PID's next packet (clear, not a repetition, no transport_error_indicator). The sink
    // is called for each section that ends in it, and must not feed this object.
    void feed(Bytes payload, bool unitStart, const Moment& moment, SectionSink& sink);
    // Something is missing before the next packet: an open section is dropped.
    void drop() {
        open_.clear();
    }
    // Bytes of memory held beside the object.
    std::size_t heldBytes() const;

  private:
    struct Kept {
        uint64_t key;  // what tells a section from the others of its PID
        std::vector<uint8_t> bytes;
    };

    void append(Bytes payload, const Moment& moment, SectionSink& sink);
    void deliver(Bytes bytes, const Moment& moment, SectionSink& sink);
    bool cameBefore(uint64_t key, Bytes bytes) const;
    void keep(uint64_t key, Bytes bytes);

    uint16_t pid_;
    std::vector<uint8_t> open_;
    std::vector<Kept> kept_;  // by key
    std::size_t keptBytes_ = 0;
};

}  // namespace meter
