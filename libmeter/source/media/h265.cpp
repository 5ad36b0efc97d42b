#include "media/h265.h"

#include <numeric>

#include "fields/bitReader.h"
#include "media/h265Skips.h"
#include "media/profileNames.h"
#include "media/rawBytes.h"
#include "media/sei.h"
#include "media/videoUsability.h"

namespace meter {
namespace {

enum NalType : uint8_t {
    kLastSlice = 9,
    kFirstRandomAccess = 16,
    kIdrWithLeading = 19,
    kIdr = 20,
    kCleanRandomAccess = 21,
    kLastReservedRandomAccess = 23,
    kVideoParameterSet = 32,
    kSequenceParameterSet = 33,
    kPictureParameterSet = 34,
    kPrefixSei = 39,
};

constexpr uint8_t nalType(uint8_t header) {
    return header >> 1 & 0x3F;
}

constexpr std::size_t kHeaderSize = 2;
constexpr std::size_t kSliceBytes = 12;  // the fields up to slice_type take less
constexpr std::size_t kPictureSetBytes = 16;
constexpr std::size_t kSeiBytes = 256;
constexpr uint32_t kChroma444 = 3;

bool isBaseLayer(Bytes unit) {
    return (u16At(unit, 0) & 0x01F8) == 0;  // nuh_layer_id
}

struct SequenceHead {
    uint32_t subLayers = 0;  // less 1
    VideoFormat format;
};

// profile_tier_level (7.3.3) with the profile and level of the whole stream.
void readProfileTierLevel(BitReader& reader, uint32_t subLayers, VideoFormat& format) {
    constexpr std::size_t kSubLayerProfileBits = 88;
    constexpr std::size_t kSubLayerLevelBits = 8;
    reader.skip(3);  // general_profile_space, general_tier_flag
    format.profile = h265ProfileName(reader.bits(5));
    reader.skip(32);  // compatibility flags
    const bool progressive = reader.flag();
    const bool interlaced = reader.flag();
    format.interlaced = interlaced && !progressive;
    reader.skip(2 + 43 + 1);
    format.level = reader.bits(8);
    std::size_t bits = 0;
    for (uint32_t i = 0; i < subLayers; ++i) {
        bits += reader.flag() ? kSubLayerProfileBits : 0;
        bits += reader.flag() ? kSubLayerLevelBits : 0;
    }
    if (subLayers > 0)
        reader.skip(std::size_t{2} * (8 - subLayers));
    reader.skip(bits);
}

struct Size {
    uint64_t width = 0;
    uint64_t height = 0;
};

// Coded size less the conformance window.
Size readSize(BitReader& reader, uint32_t chromaArrayType) {
    Size size{reader.ue(), reader.ue()};
    if (!reader.flag())  // conformance_window_flag
        return size;
    const uint64_t unitWidth = chromaArrayType == 1 || chromaArrayType == 2 ? 2 : 1;
    const uint64_t unitHeight = chromaArrayType == 1 ? 2 : 1;
    uint64_t offsets[4];
    for (uint64_t& offset : offsets)
        offset = reader.ue();
    const uint64_t horizontal = (offsets[0] + offsets[1]) * unitWidth;
    const uint64_t vertical = (offsets[2] + offsets[3]) * unitHeight;
    return {horizontal < size.width ? size.width - horizontal : 0,
            vertical < size.height ? size.height - vertical : 0};
}

void readTiming(BitReader& reader, VideoFormat& format) {
    const uint32_t unitsInTick = reader.bits(32);
    format.frameRate = frameRate(reader.bits(32), unitsInTick);
}

// vui_parameters (E.2.1) up to the timing.
void readVui(BitReader& reader, VideoFormat& format) {
    readUsability(reader, format);
    reader.skip(1);                        // neutral_chroma_indication_flag
    format.fieldPictures = reader.flag();  // field_seq_flag
    format.interlaced |= format.fieldPictures;
    reader.skip(1);       // frame_field_info_present_flag
    if (reader.flag()) {  // default_display_window_flag
        for (int i = 0; i < 4; ++i)
            reader.ue();
    }
    if (reader.flag())  // vui_timing_info_present_flag
        readTiming(reader, format);
}

// From a field's size to its frame's. Some encoders tell the pixel aspect of a field's samples, with which a
// frame would be upright.
void makeFrame(VideoFormat& format) {
    format.height *= 2;
    Ratio& aspect = format.pixelAspect;
    if (uint64_t{format.width} * aspect.numerator < uint64_t{format.height} * aspect.denominator) {
        const Ratio frames{aspect.numerator * 2, aspect.denominator};
        const uint32_t common = std::gcd(frames.numerator, frames.denominator);
        aspect = {frames.numerator / common, frames.denominator / common};
    }
}

}  // namespace

std::size_t H265Reader::wanted(uint8_t header) const {
    if (isSlice(header))
        return kSliceBytes;
    switch (nalType(header)) {
        case kVideoParameterSet:
        case kSequenceParameterSet:
            return kUnitLimit;
        case kPictureParameterSet:
            return kPictureSetBytes;
        case kPrefixSei:
            return kSeiBytes;
        default:
            return 0;
    }
}

bool H265Reader::isSlice(uint8_t header) const {
    const uint8_t type = nalType(header);
    return type <= kLastSlice || (type >= kFirstRandomAccess && type <= kCleanRandomAccess);
}

void H265Reader::unit(Bytes unit) {
    if (!isBaseLayer(unit))
        return;
    switch (nalType(u8At(unit, 0))) {
        case kVideoParameterSet:
            readVideoSet(unit);
            break;
        case kSequenceParameterSet:
            readSequenceSet(unit);
            break;
        case kPictureParameterSet:
            readPictureSet(unit);
            break;
        case kPrefixSei:
            readSei(unit);
            break;
        default:
            readSlice(unit);
            break;
    }
}

void H265Reader::readVideoSet(Bytes unit) {
    const RawBytes raw(unit, kHeaderSize);
    BitReader reader(raw.bytes());
    reader.skip(4 + 2 + 6);
    const uint32_t subLayers = reader.bits(3);
    reader.skip(1 + 16);
    VideoFormat ignored;
    readProfileTierLevel(reader, subLayers, ignored);
    skipSubLayerOrdering(reader, subLayers);
    const std::size_t layers = reader.bits(6) + std::size_t{1};
    const std::size_t layerSets = reader.ue();  // less 1
    constexpr std::size_t kLayerSetsLimit = 1024;
    if (layerSets >= kLayerSetsLimit)
        return;
    reader.skip(layerSets * layers);
    VideoFormat timing;
    if (reader.flag())  // vps_timing_info_present_flag
        readTiming(reader, timing);
    if (!reader.overrun())
        videoSetRate_ = timing.frameRate;
}

void H265Reader::readSequenceSet(Bytes unit) {
    const RawBytes raw(unit, kHeaderSize);
    BitReader reader(raw.bytes());
    VideoFormat format;
    reader.skip(4);  // sps_video_parameter_set_id
    const uint32_t subLayers = reader.bits(3);
    reader.skip(1);
    readProfileTierLevel(reader, subLayers, format);
    reader.ue();  // sps_seq_parameter_set_id
    const uint32_t chroma = reader.ue();
    const bool planes = chroma == kChroma444 && reader.flag();
    const Size size = readSize(reader, planes ? 0 : chroma);
    const uint32_t bitDepth = reader.ue() + 8;
    reader.ue();  // bit_depth_chroma_minus8
    if (reader.overrun() || chroma > kChroma444 || bitDepth > 16 || size.width == 0 || size.height == 0 ||
        size.width > kPictureSizeLimit || size.height > kPictureSizeLimit)
        return;
    format.width = static_cast<uint32_t>(size.width);
    format.height = static_cast<uint32_t>(size.height);
    format.chroma = static_cast<uint8_t>(chroma);
    format.bitDepth = static_cast<uint8_t>(bitDepth);
    VideoFormat full = format;
    if (skipToUsability(reader, subLayers)) {
        readVui(reader, full);
        if (!reader.overrun())
            format = full;
    }
    if (format.fieldPictures)
        makeFrame(format);
    if (format.frameRate.denominator == 0)
        format.frameRate = videoSetRate_;
    if (preferredTransfer_)
        format.transfer = *preferredTransfer_;
    format_ = format;
}

void H265Reader::readPictureSet(Bytes unit) {
    const RawBytes raw(unit, kHeaderSize);
    BitReader reader(raw.bytes());
    const uint32_t id = reader.ue();
    reader.ue();     // pps_seq_parameter_set_id
    reader.skip(2);  // dependent_slice_segments_enabled_flag, output_flag_present_flag
    const uint32_t extra = reader.bits(3);
    if (!reader.overrun() && id < kPictureSets)
        extraSliceBits_[id] = static_cast<uint8_t>(extra);
}

void H265Reader::readSei(Bytes unit) {
    const RawBytes raw(unit, kHeaderSize);
    forEachSeiMessage(raw.bytes(), [this](uint32_t type, Bytes payload) {
        if (type == kAlternativeTransferSei && !payload.empty())
            preferredTransfer_ = payload[0];
    });
    if (preferredTransfer_ && format_)
        format_->transfer = *preferredTransfer_;
}

void H265Reader::readSlice(Bytes unit) {
    slice_ = true;
    const RawBytes raw(unit, kHeaderSize);
    BitReader reader(raw.bytes());
    if (!reader.flag())  // first_slice_segment_in_pic_flag
        return;
    const uint8_t nal = nalType(u8At(unit, 0));
    const bool randomAccess = nal >= kFirstRandomAccess && nal <= kLastReservedRandomAccess;
    if (randomAccess)
        reader.skip(1);  // no_output_of_prior_pics_flag
    const uint32_t pictureSet = reader.ue();
    if (pictureSet >= kPictureSets)
        return;
    reader.skip(extraSliceBits_[pictureSet]);
    const uint32_t type = reader.ue();
    constexpr std::array<PictureType, 3> kTypes = {PictureType::kB, PictureType::kP, PictureType::kI};
    if (reader.overrun() || type >= kTypes.size())
        return;
    picture_ = PictureStart{
        .type = kTypes[type], .closed = nal == kIdrWithLeading || nal == kIdr, .randomAccess = randomAccess};
}

}  // namespace meter
