// Keeps hostile packets and sections away from libdvbpsi, which trusts the lengths it reads.
//
// Call these on the thread that feeds the handle.
#pragma once

#include <cstdint>

struct dvbpsi_s;

// Pushes one 188-byte transport packet into the handle's decoder: a copy with zeros behind it, so that an
// adaptation field or a pointer_field that points past the packet finds bytes to read. Returns what the
// library returns, false for a null handle or one without a decoder.
bool pushPsiPacket(dvbpsi_s* handle, const uint8_t* packet);

// Puts a check in front of the decoder attached to the handle (PAT, CAT, PMT or a demultiplexer whose
// new-subtable data is its ts_stream_t): sections whose lengths do not fit into each other, that are numbered
// behind their last_section_number, or that make their table larger than kMaxTableEntries are dropped before
// the decoder sees them; all others pass unchanged. Descriptors are looked at only in tables where the
// library would read on behind the section. Of a demultiplexer it also bounds the sections that wait for the
// rest of their tables. Call after each attach.
void guardSections(dvbpsi_s* handle);

// Sections that the unfinished tables of one demultiplexer hold, up to 4 KiB each, before those of tables
// with more than two sections are dropped. The schedule EITs of a whole network, whose numbering has gaps by
// design, would pile up otherwise.
inline constexpr uint32_t kMaxHeldSections = 8192;

// Programs of a PAT, elementary streams of a PMT, services or events that a table may list. The library walks
// its list for each that it adds, so the time that a table costs grows with their square. No multiplex has
// more programs than it can have PIDs.
inline constexpr uint32_t kMaxTableEntries = 8192;
