#include "sarn/tableDumps.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <span>

#include "sarn/names.h"
#include "sarn/sarnLog.h"

namespace {

using Bytes = std::span<const uint8_t>;

constexpr char kTablePrefix[] = "\t   ]";
constexpr char kEntryPrefix[] = "\t  |  ]";

const char* yesNo(bool value) {
    return value ? "yes" : "no";
}

Bytes contentOf(const dvbpsi_descriptor_t& descriptor) {
    return {descriptor.p_data, descriptor.i_length};
}

// Bytes of a descriptor loop; the library leaves its own field for them at 0 in SDT services.
int loopLength(const dvbpsi_descriptor_t* descriptors) {
    constexpr int kDescriptorHeaderSize = 2;
    int length = 0;
    for (const dvbpsi_descriptor_t* descriptor = descriptors; descriptor != nullptr;
         descriptor = descriptor->p_next) {
        length += kDescriptorHeaderSize + descriptor->i_length;
    }
    return length;
}

uint32_t read32(Bytes bytes) {
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}

void printCharacters(DumpSink& sink, Bytes bytes) {
    for (const uint8_t byte : bytes) {
        sink.print("%c", byte);
    }
}

const char* spliceCommandName(uint8_t type) {
    constexpr uint8_t kFirst = 4;
    constexpr std::array kNames = {"splice_schedule", "splice_insert", "time_signal",
                                   "bandwidth_reservation"};
    const auto index = static_cast<std::size_t>(type - kFirst);
    return index < kNames.size() ? kNames[index] : "splice_null";
}

// What a NIT and a BAT have in common: the table's own descriptors, then its transport streams.
void dumpTransportStreams(DumpSink& sink, const auto& table) {
    sink.print("\tCurrent next   : %s\n", yesNo(table.b_current_next));
    dumpDescriptors(sink, kEntryPrefix, table.p_first_descriptor);
    for (const auto* ts = table.p_first_ts; ts != nullptr; ts = ts->p_next) {
        sink.print("\t  | transport id: %d\n", ts->i_ts_id);
        sink.print("\t  | original network id: %d\n", ts->i_orig_network_id);
        dumpDescriptors(sink, kEntryPrefix, ts->p_first_descriptor);
    }
}

enum SpliceDescriptorTag : uint8_t { kAvail = 0, kDtmf = 1, kSegmentation = 2 };

void dumpDtmf(DumpSink& sink, Bytes content) {
    constexpr std::size_t kCharactersStart = 6;
    // The count is its byte's upper three bits, not shifted down; readers of the output rely on it.
    const std::size_t count = content[5] & 0xE0;
    sink.print("\"");
    printCharacters(sink,
                    content.subspan(kCharactersStart, std::min(count, content.size() - kCharactersStart)));
    sink.print("\" preroll %.2f sec. (%s)\n", content[4] * 0.1, "DTMF descriptor");
}

void dumpCharacterDescriptor(DumpSink& sink, Bytes content, const char* name) {
    sink.print("\"");
    printCharacters(sink, content.subspan(4));
    sink.print("\" (%s)\n", name);
}

}  // namespace

void DumpSISDescriptors(DumpSink& sink, const char* prefix, const dvbpsi_descriptor_t* descriptors) {
    constexpr uint32_t kCueIdentifier = 0x43554549;
    for (const dvbpsi_descriptor_t* p_descriptor = descriptors; p_descriptor != nullptr;
         p_descriptor = p_descriptor->p_next) {
        const Bytes content = contentOf(*p_descriptor);
        SARN_ASSERT_AT(content.size() >= 4, "p_descriptor->i_length >= 4", kSarnDvbPsiFile, 795);
        sink.print("%s 0x%02x : ", prefix, p_descriptor->i_tag);
        sink.print("%s", read32(content) == kCueIdentifier ? "CUEI" : "unknown");
        switch (p_descriptor->i_tag) {
            case kAvail:
                SARN_ASSERT_AT(content.size() >= 8, "p_descriptor->i_length >= 8", kSarnDvbPsiFile, 811);
                sink.print("\"0x%x\" (%s)\n", read32(content.subspan(4)), "avail descriptor");
                break;
            case kDtmf:
                SARN_ASSERT_AT(content.size() >= 6, "p_descriptor->i_length >= 6", kSarnDvbPsiFile, 823);
                dumpDtmf(sink, content);
                break;
            case kSegmentation:
                dumpCharacterDescriptor(sink, content, "segmentation descriptor");
                break;
            default:
                dumpCharacterDescriptor(sink, content, GetDescriptorName(p_descriptor->i_tag));
                break;
        }
    }
}

void dumpDescriptors(DumpSink& sink, const char* prefix, const dvbpsi_descriptor_t* descriptors) {
    for (const dvbpsi_descriptor_t* descriptor = descriptors; descriptor != nullptr;
         descriptor = descriptor->p_next) {
        sink.print("%s", prefix);
        sink.print("%d %s\n", descriptor->i_tag, GetDescriptorName(descriptor->i_tag));
        for (const uint8_t byte : contentOf(*descriptor)) {
            sink.print("%d ", byte);
        }
        sink.print("\t");
        for (const uint8_t byte : contentOf(*descriptor)) {
            sink.print("%c ", byte);
        }
        sink.print("\n");
    }
}

void dumpMaxBitrate(DumpSink& sink, const dvbpsi_max_bitrate_dr_t& descriptor) {
    sink.print("Bitrate: %d\n", static_cast<int>(descriptor.i_max_bitrate));
}

void dumpSystemClock(DumpSink& sink, const dvbpsi_system_clock_dr_t& descriptor) {
    // ISO/IEC 13818-1 2.6.21: integer x 10^-exponent, in parts per million.
    sink.print("External clock: %s, Accuracy: %E\n", yesNo(descriptor.b_external_clock_ref),
               descriptor.i_clock_accuracy_integer * std::pow(10.0, -descriptor.i_clock_accuracy_exponent));
}

void dumpStreamIdentifier(DumpSink& sink, const dvbpsi_stream_identifier_dr_t& descriptor) {
    sink.print("Component tag: %d\n", descriptor.i_component_tag);
}

void dumpSubtitling(DumpSink& sink, const dvbpsi_subtitling_dr_t& descriptor) {
    sink.print("%d subtitles,\n", descriptor.i_subtitles_number);
    const int count = std::min<int>(descriptor.i_subtitles_number, DVBPSI_SUBTITLING_DR_MAX);
    for (int index = 0; index < count; ++index) {
        const dvbpsi_subtitle_t& subtitle = descriptor.p_subtitle[index];
        const uint8_t* language = subtitle.i_iso6392_language_code;
        sink.print("\t\t   | %d - lang: %c%c%c, type: %d, cpid: %d, apid: %d\n", index, language[0],
                   language[1], language[2], subtitle.i_subtitling_type, subtitle.i_composition_page_id,
                   subtitle.i_ancillary_page_id);
    }
}

void DumpCUEIDescriptor(DumpSink& sink, const dvbpsi_cuei_dr_t* descriptor) {
    constexpr std::array kStreamTypes = {"splice_insert, splice_null, splice_schedule", "All Commands",
                                         "Segmentation", "Tiered Splicing", "Tiered Segmentation"};
    SARN_ASSERT_AT(descriptor != nullptr, "p_cuei_descriptor", kSarnDvbPsiFile, 751);
    const uint8_t type = descriptor->i_cue_stream_type;
    if (type < kStreamTypes.size()) {
        sink.print("CUE Identifier stream type: (%0xd) %s\n", type, kStreamTypes[type]);
    }
}

void dumpSplice(DumpSink& sink, const SpliceInfo& info) {
    sink.print("\n  SIS: Splice Info Section\n");
    sink.print("\tProtocol version : %d\n", info.protocolVersion);
    sink.print("\tEncrypted        : %s\n", yesNo(info.encrypted));
    sink.print("\tEncryption algorithm  : %d\n", info.encryptionAlgorithm);
    sink.print("\tPTS adjustment   : %lld\n", static_cast<long long>(info.ptsAdjustment));
    sink.print("\tCA Control word index : %d\n", info.cwIndex);
    sink.print("\tSplice command length : %d\n", info.commandLength);
    sink.print("\tSplice command : %s\n", spliceCommandName(info.commandType));
    DumpSISDescriptors(sink, kTablePrefix, info.descriptors.get());
}

void dumpSdt(DumpSink& sink, const dvbpsi_sdt_t& sdt) {
    constexpr uint8_t kRunning = 4;  // ETSI EN 300 468 table 6
    sink.print("SDT: Session Descriptor Table\n");
    sink.print("\tVersion number : %d\n", sdt.i_version);
    sink.print("\tTransport stream id : %d\n", sdt.i_extension);
    sink.print("\tNetwork id     : %d\n", sdt.i_network_id);
    for (const dvbpsi_sdt_service_t* service = sdt.p_first_service; service != nullptr;
         service = service->p_next) {
        sink.print("\t  | Service id   : 0x%02x \n", service->i_service_id);
        sink.print("\t  | EIT schedule : %s\n", yesNo(service->b_eit_schedule));
        sink.print("\t  | EIT present  : %s\n", yesNo(service->b_eit_present));
        sink.print("\t  | Running      : %s\n", yesNo(service->i_running_status == kRunning));
        sink.print("\t  | Free CA      : %s\n", yesNo(service->b_free_ca));
        sink.print("\t  | Descriptor loop length: %d\n", loopLength(service->p_first_descriptor));
        dumpDescriptors(sink, kEntryPrefix, service->p_first_descriptor);
    }
}

void dumpEit(DumpSink& sink, const dvbpsi_eit_t& eit) {
    for (const dvbpsi_eit_event_t* event = eit.p_first_event; event != nullptr; event = event->p_next) {
        sink.print("\t  | Event id: %hu\n", event->i_event_id);
        sink.print("\t  | Start time: %lld\n", static_cast<long long>(event->i_start_time));
        sink.print("\t  | Duration: %d\n", static_cast<int>(event->i_duration));
        sink.print("\t  | Running status: %d\n", event->i_running_status);
        sink.print("\t  | Free CA mode: %s\n", yesNo(event->b_free_ca));
        sink.print("\t  | Descriptor loop length: %hu\n", event->i_descriptors_length);
        dumpDescriptors(sink, kEntryPrefix, event->p_first_descriptor);
    }
}

void dumpTot(DumpSink& sink, const dvbpsi_tot_t& tot, uint32_t crc) {
    constexpr uint8_t kTdtTableId = 0x70;
    sink.print(tot.i_table_id == kTdtTableId ? "TDT: Time and Date Table\n" : "TOT: Time Offset Table\n");
    sink.print("\tUTC time       : %lld\n", static_cast<long long>(tot.i_utc_time));
    sink.print("\tCRC 32         : %d\n", static_cast<int>(crc));
    dumpDescriptors(sink, kEntryPrefix, tot.p_first_descriptor);
}

void dumpNit(DumpSink& sink, const dvbpsi_nit_t& nit) {
    sink.print("NIT: Network Information Table\n");
    sink.print("\tVersion number : %d\n", nit.i_version);
    sink.print("\tNetwork id     : %d\n", nit.i_network_id);
    dumpTransportStreams(sink, nit);
}

void dumpBat(DumpSink& sink, const dvbpsi_bat_t& bat) {
    sink.print("BAT: Bouquet Association Table\n");
    sink.print("\tVersion number : %d\n", bat.i_version);
    sink.print("\tBouquet id     : %d\n", bat.i_extension);
    dumpTransportStreams(sink, bat);
}

void dumpCat(DumpSink& sink, const dvbpsi_cat_t& cat) {
    sink.print("CAT: Conditional Access Table\n");
    sink.print("\tVersion number : %d\n", cat.i_version);
    sink.print("\tCurrent next   : %s\n", yesNo(cat.b_current_next));
    dumpDescriptors(sink, kTablePrefix, cat.p_first_descriptor);
}
