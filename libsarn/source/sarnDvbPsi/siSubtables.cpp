#include "sarnDvbPsi/siSubtables.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <span>

#include "sarn/dvbpsiHeaders.h"
#include "sarn/sarnLog.h"
#include "sarn/spliceSection.h"
#include "sarn/tableDumps.h"
#include "sarn/tsStream.h"
#include "sarnDvbPsi/sectionGuard.h"

namespace {

dvbpsi_demux_t* demuxOf(const dvbpsi_t* handle) {
    return reinterpret_cast<dvbpsi_demux_t*>(handle->p_decoder);
}

void onNit(void*, dvbpsi_nit_t* nit) {
    dumpNit(standardOutputSink(), *nit);
    dvbpsi_nit_delete(nit);
}

void onSdt(void*, dvbpsi_sdt_t* sdt) {
    dumpSdt(standardOutputSink(), *sdt);
    dvbpsi_sdt_delete(sdt);
}

void onBat(void*, dvbpsi_bat_t* bat) {
    dumpBat(standardOutputSink(), *bat);
    dvbpsi_bat_delete(bat);
}

void onEit(void*, dvbpsi_eit_t* eit) {
    dumpEit(standardOutputSink(), *eit);
    dvbpsi_eit_delete(eit);
}

// CRC_32 of the TOT section that is being decoded; a TDT has none. The decoded table does not carry it.
uint32_t currentCrc(const dvbpsi_t* handle, const dvbpsi_tot_t& tot) {
    const dvbpsi_demux_subdec_t* subtable =
        dvbpsi_demuxGetSubDec(demuxOf(handle), tot.i_table_id, tot.i_extension);
    dvbpsi_psi_section_t* section = subtable != nullptr ? subtable->p_decoder->p_sections : nullptr;
    if (section == nullptr || !dvbpsi_has_CRC32(section)) {
        return 0;
    }
    uint32_t crc = 0;
    for (const uint8_t byte : std::span<const uint8_t>(section->p_payload_end, sizeof crc)) {
        crc = crc << 8 | byte;
    }
    return crc;
}

void onTot(void* handle, dvbpsi_tot_t* tot) {
    dumpTot(standardOutputSink(), *tot, currentCrc(static_cast<const dvbpsi_t*>(handle), *tot));
    dvbpsi_tot_delete(tot);
}

// The handle takes the stream's place as the callback's data: it leads to the section.
bool attachTot(dvbpsi_t* handle, uint8_t tableId, uint16_t extension, ts_stream_t*) {
    return dvbpsi_tot_attach(handle, tableId, extension, onTot, handle);
}

// Sub-decoder of splice_info_section in the library's demultiplexer.
struct SpliceDecoder {
    DVBPSI_DECODER_COMMON
    ts_stream_t* stream;
};

void onSpliceSection(dvbpsi_t*, dvbpsi_decoder_t* decoder, dvbpsi_psi_section_t* section) {
    constexpr std::size_t kHeaderSize = 3;
    ts_stream_t& stream = *reinterpret_cast<SpliceDecoder*>(decoder)->stream;
    SpliceInfo info;
    switch (decodeSpliceInfo({section->p_data, kHeaderSize + section->i_length}, info)) {
        case SpliceResult::decoded:
            stream.i_splice_protocol_version = info.protocolVersion;
            dumpSplice(standardOutputSink(), info);
            break;
        case SpliceResult::badCrc:
            ++stream.tr101290[kCrcError];
            break;
        case SpliceResult::malformed:
            countSectionDrop(stream, kSpliceTableId,
                             section->b_syntax_indicator ? SectionDrop::badForm : SectionDrop::badLength);
            break;
    }
    dvbpsi_DeletePSISections(section);
}

void detachSplice(dvbpsi_t* handle, uint8_t tableId, uint16_t extension) {
    dvbpsi_demux_subdec_t* subtable = dvbpsi_demuxGetSubDec(demuxOf(handle), tableId, extension);
    if (subtable != nullptr) {
        dvbpsi_DetachDemuxSubDecoder(demuxOf(handle), subtable);
        dvbpsi_DeleteDemuxSubDecoder(subtable);  // with its decoder
    }
}

bool attachSplice(dvbpsi_t* handle, uint8_t tableId, uint16_t extension, ts_stream_t* stream) {
    constexpr int kMaxSectionSize = 4096;
    auto* decoder = static_cast<SpliceDecoder*>(
        dvbpsi_decoder_new(nullptr, kMaxSectionSize, true, sizeof(SpliceDecoder)));
    if (decoder == nullptr) {
        return false;
    }
    decoder->stream = stream;
    dvbpsi_demux_subdec_t* subtable =
        dvbpsi_NewDemuxSubDecoder(tableId, extension, detachSplice, onSpliceSection, DVBPSI_DECODER(decoder));
    if (subtable == nullptr) {
        dvbpsi_decoder_delete(DVBPSI_DECODER(decoder));
        return false;
    }
    dvbpsi_AttachDemuxSubDecoder(demuxOf(handle), subtable);
    return true;
}

// The library's attach functions differ in their callbacks only.
template <auto libraryAttach, auto callback>
bool attachTable(dvbpsi_t* handle, uint8_t tableId, uint16_t extension, ts_stream_t* stream) {
    return libraryAttach(handle, tableId, extension, callback, stream);
}

constexpr int kStandardError = 0;

struct SubtableDecoder {
    uint8_t firstTableId;
    uint8_t lastTableId;
    int failureLevel;  // of the log, or kStandardError
    bool (*attach)(dvbpsi_t* handle, uint8_t tableId, uint16_t extension, ts_stream_t* stream);
    const char* failure;
};

// ETSI EN 300 468 table 2, ANSI/SCTE 35 table 5.
constexpr SubtableDecoder kDecoders[] = {
    {0x40, 0x41, 2, attachTable<dvbpsi_nit_attach, onNit>, "stofain: Failed to attach NIT subdecoder\n"},
    {0x42, 0x42, 2, attachTable<dvbpsi_sdt_attach, onSdt>, "stofain: Failed to attach SDT subdecoder\n"},
    {0x4A, 0x4A, 2, attachTable<dvbpsi_bat_attach, onBat>, "stofain: Failed to attach BAT subdecoder\n"},
    {0x4E, 0x6F, 4, attachTable<dvbpsi_eit_attach, onEit>, "stofain: Failed to attach EIT subdecoder\n"},
    {0x70, 0x70, 4, attachTot, "stofain: Failed to attach TOT subdecoder\n"},
    {0x73, 0x73, 4, attachTot, "stofain: Failed to attach TOT subdecoder\n"},
    {kSpliceTableId, kSpliceTableId, kStandardError, attachSplice,
     "stofain: Failed to attach SIS subdecoder\n"},
};

int countSubtables(const dvbpsi_demux_t& demux) {
    int count = 0;
    for (const dvbpsi_demux_subdec_t* subtable = demux.p_first_subdec; subtable != nullptr;
         subtable = subtable->p_next) {
        ++count;
    }
    return count;
}

void reportFailure(const SubtableDecoder& decoder) {
    if (decoder.failureLevel == kStandardError) {
        fputs(decoder.failure, stderr);
    } else {
        printcf(decoder.failureLevel, "%s", decoder.failure);
    }
}

}  // namespace

void newSubtable(dvbpsi_s* handle, uint8_t tableId, uint16_t extension, void* stream) {
    const auto decoder =
        std::find_if(std::begin(kDecoders), std::end(kDecoders), [tableId](const SubtableDecoder& row) {
            return tableId >= row.firstTableId && tableId <= row.lastTableId;
        });
    if (decoder == std::end(kDecoders)) {
        return;
    }
    auto* context = static_cast<ts_stream_t*>(stream);
    if (countSubtables(*demuxOf(handle)) >= kMaxSubtables) {
        countSectionDrop(*context, tableId, SectionDrop::tooLarge);
        return;
    }
    if (!decoder->attach(handle, tableId, extension, context)) {
        reportFailure(*decoder);
    }
}

void dumpCat(dvbpsi_cat_s* cat) {
    dumpCat(logSink(), *cat);
}
