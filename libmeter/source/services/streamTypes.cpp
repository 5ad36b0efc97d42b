#include "services/streamTypes.h"

#include <algorithm>
#include <array>

#include "services/descriptors.h"

namespace meter {
namespace {

struct TypeRow {
    uint8_t streamType;
    StreamIdentity identity;
};

// What is not listed is data, or told by its descriptors.
constexpr TypeRow kTypes[] = {
    {0x01, {Codec::kNone, StreamKind::kVideo}},        // ISO/IEC 11172-2
    {0x02, {Codec::kMpeg2Video, StreamKind::kVideo}},  // ITU-T H.262
    {0x03, {Codec::kMpegAudio, StreamKind::kAudio}},   // ISO/IEC 11172-3
    {0x04, {Codec::kMpegAudio, StreamKind::kAudio}},   // ISO/IEC 13818-3
    {0x0F, {Codec::kAac, StreamKind::kAudio}},         // ADTS
    {0x10, {Codec::kNone, StreamKind::kVideo}},        // ISO/IEC 14496-2
    {0x11, {Codec::kAacLatm, StreamKind::kAudio}},     // LATM
    {0x1B, {Codec::kH264, StreamKind::kVideo}},        //
    {0x1C, {Codec::kNone, StreamKind::kAudio}},        // ISO/IEC 14496-3 without transport syntax
    {0x1F, {Codec::kNone, StreamKind::kVideo}},        // H.264 annex G
    {0x20, {Codec::kNone, StreamKind::kVideo}},        // H.264 annex H
    {0x21, {Codec::kNone, StreamKind::kVideo}},        // JPEG 2000
    {0x24, {Codec::kH265, StreamKind::kVideo}},        //
    {0x25, {Codec::kH265, StreamKind::kVideo}},        // temporal subset
    {0x2D, {Codec::kNone, StreamKind::kAudio}},        // MPEG-H audio
    {0x2E, {Codec::kNone, StreamKind::kAudio}},        // MPEG-H audio, auxiliary
    {0x32, {Codec::kNone, StreamKind::kVideo}},        // JPEG XS
    {0x33, {Codec::kNone, StreamKind::kVideo}},        // H.266
    {0x42, {Codec::kNone, StreamKind::kVideo}},        // AVS
    {0x81, {Codec::kAc3, StreamKind::kAudio}},         // ATSC A/53
    {0x86, {Codec::kScte35, StreamKind::kCue}},        // ANSI/SCTE 35
    {0x87, {Codec::kEac3, StreamKind::kAudio}},        // ATSC A/53
    {0xD1, {Codec::kNone, StreamKind::kVideo}},        // Dirac
    {0xD2, {Codec::kNone, StreamKind::kVideo}},        // AVS2
    {0xEA, {Codec::kNone, StreamKind::kVideo}},        // VC-1
};

struct TagRow {
    DescriptorTag tag;
    StreamIdentity identity;
};

constexpr TagRow kPrivateTags[] = {
    {kAc3Descriptor, {Codec::kAc3, StreamKind::kAudio}},
    {kEnhancedAc3Descriptor, {Codec::kEac3, StreamKind::kAudio}},
    {kAacDescriptor, {Codec::kAac, StreamKind::kAudio}},
    {kDtsDescriptor, {Codec::kNone, StreamKind::kAudio}},
    {kTeletextDescriptor, {Codec::kTeletext, StreamKind::kTeletext}},
    {kVbiTeletextDescriptor, {Codec::kTeletext, StreamKind::kTeletext}},
    {kSubtitlingDescriptor, {Codec::kDvbSubtitles, StreamKind::kSubtitle}},
};

struct ExtensionRow {
    uint8_t tag;  // descriptor_tag_extension
    StreamIdentity identity;
};

constexpr ExtensionRow kPrivateExtensions[] = {
    {0x0E, {Codec::kNone, StreamKind::kAudio}},     // DTS-HD
    {0x0F, {Codec::kNone, StreamKind::kAudio}},     // DTS Neural
    {0x15, {Codec::kNone, StreamKind::kAudio}},     // AC-4
    {0x20, {Codec::kNone, StreamKind::kSubtitle}},  // TTML subtitling
    {0x21, {Codec::kNone, StreamKind::kAudio}},     // DTS-UHD
};

struct FormatRow {
    uint32_t format;  // format_identifier of a registration descriptor
    StreamIdentity identity;
};

constexpr uint32_t fourLetters(std::string_view text) {
    return u32At(std::array{static_cast<uint8_t>(text[0]), static_cast<uint8_t>(text[1]),
                            static_cast<uint8_t>(text[2]), static_cast<uint8_t>(text[3])},
                 0);
}

constexpr FormatRow kPrivateFormats[] = {
    {fourLetters("AC-3"), {Codec::kAc3, StreamKind::kAudio}},
    {fourLetters("EAC3"), {Codec::kEac3, StreamKind::kAudio}},
    {fourLetters("HEVC"), {Codec::kH265, StreamKind::kVideo}},
    {fourLetters("AV01"), {Codec::kNone, StreamKind::kVideo}},
    {fourLetters("VC-1"), {Codec::kNone, StreamKind::kVideo}},
    {fourLetters("drac"), {Codec::kNone, StreamKind::kVideo}},
    {fourLetters("Opus"), {Codec::kNone, StreamKind::kAudio}},
    {fourLetters("BSSD"), {Codec::kNone, StreamKind::kAudio}},  // SMPTE ST 302
    {fourLetters("DTS1"), {Codec::kNone, StreamKind::kAudio}},
    {fourLetters("DTS2"), {Codec::kNone, StreamKind::kAudio}},
    {fourLetters("DTS3"), {Codec::kNone, StreamKind::kAudio}},
};

// The first descriptor that tells decides.
StreamIdentity identifyPrivate(Bytes descriptors) {
    StreamIdentity identity;
    forEachDescriptor(descriptors, [&identity](uint8_t tag, Bytes content) {
        if (identity.kind != StreamKind::kData)
            return;
        const auto pick = [&identity](const auto& rows, auto projection, uint32_t value) {
            const auto row = std::ranges::find(rows, value, projection);
            if (row != std::end(rows))
                identity = row->identity;
        };
        if (tag == kExtensionDescriptor)
            pick(kPrivateExtensions, &ExtensionRow::tag, u8At(content, 0));
        else if (tag == kRegistrationDescriptor)
            pick(kPrivateFormats, &FormatRow::format, u32At(content, 0));
        else
            pick(kPrivateTags, &TagRow::tag, tag);
    });
    return identity;
}

}  // namespace

StreamIdentity identifyStream(uint8_t streamType, Bytes descriptors) {
    constexpr uint8_t kPrivatePes = 0x06;
    if (streamType == kPrivatePes)
        return identifyPrivate(descriptors);
    const auto row = std::ranges::find(kTypes, streamType, &TypeRow::streamType);
    return row != std::end(kTypes) ? row->identity : StreamIdentity{};
}

std::string_view codecName(Codec codec) {
    constexpr std::array<std::string_view, 12> kNames = {
        "",         "MPEG-2 video", "H.264",  "H.265",   "MPEG audio",    "AAC",
        "AAC LATM", "AC-3",         "E-AC-3", "SCTE 35", "DVB subtitles", "teletext"};
    return kNames[static_cast<std::size_t>(codec)];
}

}  // namespace meter
