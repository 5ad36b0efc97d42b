// Printers of decoded PSI/SI tables (ISO/IEC 13818-1, ETSI EN 300 468, ANSI/SCTE 35) and of descriptors.
//
// They print every field as the decoder hands it over, bytes of descriptors unescaped. The caller keeps what
// it hands in.
#pragma once

#include <cstdint>

#include "sarn/dumpSink.h"
#include "sarn/dvbpsiHeaders.h"
#include "sarn/spliceSection.h"

void dumpSplice(DumpSink& sink, const SpliceInfo& info);
void dumpSdt(DumpSink& sink, const dvbpsi_sdt_t& sdt);
void dumpEit(DumpSink& sink, const dvbpsi_eit_t& eit);
// TDT or TOT, by its table_id. `crc` is the section's CRC_32, 0 for a TDT, which has none.
void dumpTot(DumpSink& sink, const dvbpsi_tot_t& tot, uint32_t crc);
void dumpNit(DumpSink& sink, const dvbpsi_nit_t& nit);
void dumpBat(DumpSink& sink, const dvbpsi_bat_t& bat);
void dumpCat(DumpSink& sink, const dvbpsi_cat_t& cat);

void dumpMaxBitrate(DumpSink& sink, const dvbpsi_max_bitrate_dr_t& descriptor);
void dumpSystemClock(DumpSink& sink, const dvbpsi_system_clock_dr_t& descriptor);
void dumpStreamIdentifier(DumpSink& sink, const dvbpsi_stream_identifier_dr_t& descriptor);
void dumpSubtitling(DumpSink& sink, const dvbpsi_subtitling_dr_t& descriptor);
// Aborts on null. Prints nothing for a cue_stream_type that ANSI/SCTE 35 reserves.
void DumpCUEIDescriptor(DumpSink& sink, const dvbpsi_cuei_dr_t* descriptor);

// Tag, name and content of each descriptor of a list; `prefix` starts each.
void dumpDescriptors(DumpSink& sink, const char* prefix, const dvbpsi_descriptor_t* descriptors);

// The splice descriptors of a splice_info_section. Aborts on one that is shorter than its fixed fields.
void DumpSISDescriptors(DumpSink& sink, const char* prefix, const dvbpsi_descriptor_t* descriptors);
