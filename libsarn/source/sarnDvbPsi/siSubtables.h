// Attaches decoders to the sub-tables that the SI demultiplexers meet, and hands decoded tables to the
// printers.
#pragma once

#include <cstdint>

struct dvbpsi_s;
struct dvbpsi_cat_s;

// New-subtable callback for dvbpsi_AttachDemux; `stream` is the ts_stream_t* of the handle. Attaches the
// decoder of NIT, SDT, BAT, EIT, TDT/TOT (ETSI EN 300 468 table 2) or splice_info_section (ANSI/SCTE 35),
// whose tables are printed on standard output. Other table_ids are ignored, and so is every sub-table behind
// the first kMaxSubtables of a demultiplexer.
void newSubtable(dvbpsi_s* handle, uint8_t tableId, uint16_t extension, void* stream);

// Sub-tables one demultiplexer decodes; bounds what a stream of invented table_ids can make it allocate.
inline constexpr int kMaxSubtables = 4096;

// Hands a decoded CAT to the log at level 4. The caller keeps the table.
void dumpCat(dvbpsi_cat_s* cat);
