// What a context kept from libdvbpsi, which trusts the lengths that it reads.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>

struct ts_stream_t;

enum class SectionDrop : uint8_t {
    badLength,   // a length leads out of the section
    badNumber,   // section_number is behind last_section_number
    badForm,     // a splice_info_section with the section_syntax_indicator set
    tooLarge,    // with this section the table, or all tables that are waited for, would pass their bounds
    strayBytes,  // only the bytes behind the last whole entry; the section itself is decoded
};
inline constexpr std::size_t kSectionDropKinds = 5;

// PAT, CAT, PMT, NIT, SDT, BAT, EIT, TDT, TOT, and all others as one.
inline constexpr std::size_t kGuardedTables = 10;

// Sections by table and SectionDrop.
using SectionDropCounts = std::array<std::array<uint64_t, kSectionDropKinds>, kGuardedTables>;

// Writes a line for each count above 0, in the order above, `name` in front:
// "239.1.1.1: 3 PAT sections dropped: a length leads out of the section". Threads: as the getters of
// sarn/metrics.h.
void sarnDvbPsi_printSectionDrops(const ts_stream_t* stream, const char* name, FILE* file);
