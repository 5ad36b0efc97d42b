#include "sarn/names.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <span>

namespace {

// A text that holds from number `first` up to the next row's.
struct Name {
    uint8_t first;
    const char* text;
};

using NameTable = std::array<const char*, 256>;

// Readers of the output rely on these texts as they stand, misspellings included.
constexpr Name kTypeNames[] = {
    {0x00, "ITU-T | ISO/IEC Reserved"},
    {0x01, "ISO/IEC 11172-2 Video"},
    {0x02,
     "ITU-T Rec H.262 | ISO/IEC 13818-2 Video stream descriptor or ISO/IEC 11172-2 constrained parameter "
     "video stream"},
    {0x03, "ISO/IEC 11172-3 Audio stream descriptor"},
    {0x04, "ISO/IEC 13818-3 Audio MPEG Audio layer 1/2"},
    {0x05, "ITU-T Rec H.222.0 | ISO/IEC 13818-1 Private Section: Registration descriptor"},
    {0x06, "ITU-T Rec H.222.0 | ISO/IEC 13818-1 Private PES data packets"},
    {0x07, "ISO/IEC 13522 MHEG"},
    {0x08, "ITU-T Rec H.222.0 | ISO/IEC 13818-1 Annex A DSM CC"},
    {0x09, "ITU-T Rec H222.1"},
    {0x0A, "ISO/IEC 13818-6 type A"},
    {0x0B, "ISO/IEC 13818-6 type B"},
    {0x0C, "ISO/IEC 13818-6 type C"},
    {0x0D, "ISO/IEC 13818-6 type D"},
    {0x0E, "ITU-T Rec H.222.0 | ISO/IEC 13818-1 auxillary"},
    {0x0F, "ISO/IEC 13818-7 MPEG2 Audio with ADTS transport syntax"},
    {0x10, "ISO/IEC 14496-2 Visual"},
    {0x11, "ISO/IEC 14496-3 MPEG4 Audio with the LATM transport syntax as defined in ISO/IEC 14496-3"},
    {0x12, "ISO/IEC 14496-1 SL-packetized stream or FlexMux stream carried in PES packets"},
    {0x13, "ISO/IEC 14496-1 SL-packetized stream or FlexMux stream carried in ISO/IEC 14496_sections"},
    {0x14, "ISO/IEC 13818-6 Synchronized Download Protocol"},
    {0x15, "Metadata carried in PES packets"},
    {0x16, "Metadata carried in metadata_sections"},
    {0x17, "Metadata carried in ISO/IEC 13818-6 Data Carousel"},
    {0x18, "Metadata carried in ISO/IEC 13818-6 Object Carousel"},
    {0x19, "Metadata carried in ISO/IEC 13818-6 Synchronized Download Protocol"},
    {0x1A, "IPMP stream (defined in ISO/IEC 13818-11, MPEG-2 IPMP)"},
    {0x1B, "AVC video stream as defined in ITU-T Rec. H.264 | ISO/IEC 14496-10 Video"},
    {0x1C, "ITU-T Rec. H.222.0 | ISO/IEC 13818-1 Reserved"},
    {0x7F, "IPMP stream"},
    {0x80, "User Private"},
};

constexpr Name kDescriptorNames[] = {
    {0x00, "Reserved"},
    {0x02, "Video stream descriptor"},
    {0x03, "Audio stream descriptor"},
    {0x04, "Hierarchy descriptor"},
    {0x05, "Registration descriptor"},
    {0x06, "Data stream alignment descriptor"},
    {0x07, "Target background grid descriptor"},
    {0x08, "Video window descriptor"},
    {0x09, "CA descriptor"},
    {0x0A, "ISO 639 language descriptor"},
    {0x0B, "System clock descriptor"},
    {0x0C, "Multiplex buffer utilization descriptor"},
    {0x0D, "Copyright descriptor"},
    {0x0E, "Maximum bitrate descriptor"},
    {0x0F, "Private data indicator descriptor"},
    {0x10, "Soothing buffer descriptor"},
    {0x11, "STD descriptor"},
    {0x12, "IBP descriptor"},
    {0x13, "Defined in ISO/IEC 13818-6"},
    {0x1B, "MPEG-4 video descriptor"},
    {0x1C, "MPEG-4 audio descriptor"},
    {0x1D, "IOD descriptor"},
    {0x1E, "SL descriptor"},
    {0x1F, "FMC descriptor"},
    {0x20, "External ES ID descriptor"},
    {0x21, "Mux Code descriptor"},
    {0x22, "Fmx Buffer Size descriptor"},
    {0x23, "Multiplex buffer descriptor"},
    {0x24, "Content labeling descriptor"},
    {0x25, "Metadata pointer descriptor"},
    {0x26, "Metadata descriptor"},
    {0x27, "Metadata STD descriptor"},
    {0x28, "AVC video descriptor"},
    {0x29, "IPMP descriptor (defined in ISO/IEC 13818-11; break; MPEG-2 IPMP)"},
    {0x2A, "AVC timing and HRD descriptor"},
    {0x2B, "MPEG-2 AAC audio descriptor"},
    {0x2C, "FlexMuxTiming descriptor"},
    {0x2D, "ITU-T Rec. H.222.0 | ISO/IEC 13818-1 Reserved"},
    {0x40, "User Private | Network Name"},
    {0x41, "User Private | Service List"},
    {0x42, "User Private | Stuffing"},
    {0x43, "Satellite Delivery System descriptor"},
    {0x44, "Cable Delivery System descriptor"},
    {0x45, "VBI Data descriptor"},
    {0x46, "VBI Teletext descriptor"},
    {0x47, "User Private | Bouquet Name"},
    {0x48, "User Private | Service"},
    {0x49, "User Private | Country Availability"},
    {0x4A, "User Private | Linkage"},
    {0x4B, "User Private | NVOD Reference"},
    {0x4C, "User Private | Timeshifted Service"},
    {0x4D, "User Private | ShortEvent"},
    {0x4E, "User Private | Extended Event"},
    {0x4F, "User Private | Timeshifted Event"},
    {0x50, "User Private | Component"},
    {0x51, "User Private | Mosaic"},
    {0x52, "User Private | Stream Component Identifier"},
    {0x53, "User Private | CA Identifier"},
    {0x54, "User Private | Content"},
    {0x55, "User Private | Parental Rating"},
    {0x56, "EBU Teletext"},
    {0x57, "Telephone"},
    {0x58, "Local Time Offset"},
    {0x59, "Subtitling"},
    {0x5A, "Terrestrial Delivery System"},
    {0x5B, "Multilingual Network Name"},
    {0x5C, "Multilingual Bouquet Name"},
    {0x5D, "Multilingual Service Name"},
    {0x5E, "Multilingual Component"},
    {0x5F, "Private Data Specifier"},
    {0x60, "Service Move"},
    {0x61, "Short Smoothing Buffer"},
    {0x62, "Frequency List"},
    {0x63, "Partial Transport Stream"},
    {0x64, "Data Broadcast"},
    {0x65, "CA System descriptor"},
    {0x66, "Data Broadcast Identifier"},
    {0x67, "Transport Stream Identifier"},
    {0x68, "DSNG descriptor"},
    {0x69, "PDC descriptor"},
    {0x6A, "AC3 audio descriptor"},
    {0x6B, "Ancilliary Data descriptor"},
    {0x6C, "Cell List"},
    {0x6D, "Cell Frequency Link"},
    {0x6E, "Announcement Support"},
    {0x6F, "Application Signalling"},
    {0x70, "Adaptation Field"},
    {0x71, "Service Identifier"},
    {0x72, "Service Availability"},
    {0x73, "Default Authority"},
    {0x74, "Related Content"},
    {0x75, "TVA ID"},
    {0x76, "Content Identifier"},
    {0x77, "Time Slice FEC Identifier"},
    {0x78, "ECM Repeater Rate"},
    {0x79, "DVB S2 Satellite Delivery System descriptor"},
    {0x7A, "Enhanced AC3 audio descriptor"},
    {0x7B, "DTS audio descriptor"},
    {0x7C, "AAC audio descriptor"},
    {0x7D, "User Private"},
    {0x8A, "CUE Identifier descriptor"},
    {0x8B, "User Private"},
};

// One text for every number.
constexpr NameTable expand(std::span<const Name> names) {
    NameTable table{};
    for (const Name& name : names) {
        std::fill(table.begin() + name.first, table.end(), name.text);
    }
    return table;
}

constexpr NameTable kTypeTable = expand(kTypeNames);
constexpr NameTable kDescriptorTable = expand(kDescriptorNames);

}  // namespace

const char* GetTypeName(unsigned int streamType) {
    return kTypeTable[streamType & 0xFF];
}

const char* GetDescriptorName(unsigned int tag) {
    return kDescriptorTable[tag & 0xFF];
}
