// Keeps hostile packets and sections away from libdvbpsi, which trusts the lengths it reads.
//
// Call these on the thread that feeds the handle.
#pragma once

#include <cstdint>

#include "sarn/sectionDrops.h"

struct dvbpsi_s;

// Pushes one 188-byte transport packet into the handle's decoder: a copy with zeros behind it, so that an
// adaptation field or a pointer_field that points past the packet finds bytes to read. Returns what the
// library returns, false for a null handle or one without a decoder.
bool pushPsiPacket(dvbpsi_s* handle, const uint8_t* packet);

// Puts a check in front of the decoder attached to the handle (PAT, CAT, PMT or a demultiplexer whose
// new-subtable data is its ts_stream_t): sections whose lengths do not fit into each other, that are numbered
// behind their last_section_number, or that make their table exceed the limits below are dropped before the
// decoder sees them. Of the others the bytes behind the last whole entry are cut off, which some of the
// library's decoders would take for the start of another. All of it is counted in the context's
// section_drops. Call after each attach. REQUIRES: a handle from newPsiHandle.
void guardSections(dvbpsi_s* handle);

// Counts a section of this table in the context's section_drops.
void countSectionDrop(ts_stream_t& stream, uint8_t tableId, SectionDrop drop);

// Sections that the unfinished tables of one demultiplexer hold, up to 4 KiB each, before those of tables
// with more than two sections are dropped. The schedule EITs of a whole network, whose numbering has gaps by
// design, would pile up otherwise.
inline constexpr uint32_t kMaxHeldSections = 8192;

// The library walks a list for each element that it appends, so the time that a table costs grows with the
// square of these.
//
// Programs of a PAT, services or events that a table may list, and elementary streams that all PMTs of a
// context may list together: as many as there are PIDs.
inline constexpr uint32_t kMaxTableEntries = 8192;
// Descriptors in one loop, also where a table's sections continue it.
inline constexpr uint32_t kMaxLoopDescriptors = 512;

// Sections of a PMT, which by ISO/IEC 13818-1 2.4.4.9 has one: each program can make its decoder hold that
// many.
inline constexpr uint32_t kMaxPmtSections = 8;
