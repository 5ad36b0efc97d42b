#include "media/h264.h"

#include <algorithm>
#include <utility>

#include "fields/bitReader.h"
#include "media/profileNames.h"
#include "media/rawBytes.h"
#include "media/sei.h"
#include "media/videoUsability.h"

namespace meter {
namespace {

enum NalType : uint8_t {
    kSlice = 1,
    kPartitionA = 2,
    kIdrSlice = 5,
    kSei = 6,
    kSequenceParameterSet = 7,
    kPictureParameterSet = 8,
};

constexpr uint8_t nalType(uint8_t header) {
    return header & 0x1F;
}

constexpr std::size_t kHeaderSize = 1;
constexpr std::size_t kSliceBytes = 12;  // the fields up to bottom_field_flag take less
constexpr std::size_t kPictureSetBytes = 16;
constexpr std::size_t kSeiBytes = 256;
constexpr uint32_t kMacroblock = 16;
constexpr uint32_t kChroma444 = 3;
constexpr uint32_t kFrameNumberBitsLimit = 16;

// Profiles whose sequence parameter set has chroma format, bit depths and scaling lists (7.3.2.1.1).
constexpr std::array<uint32_t, 13> kHighProfiles = {100, 110, 122, 244, 44,  83, 86,
                                                    118, 128, 138, 139, 134, 135};

void skipScalingList(BitReader& reader, int size) {
    int32_t last = 8;
    int32_t next = 8;
    for (int i = 0; i < size && !reader.overrun(); ++i) {
        if (next != 0)
            next = static_cast<int32_t>((static_cast<uint32_t>(last) + static_cast<uint32_t>(reader.se())) &
                                        0xFF);
        if (next != 0)
            last = next;
    }
}

struct ChromaFields {
    uint32_t format = 1;
    bool separatePlanes = false;
    uint32_t bitDepth = 8;
};

ChromaFields readChroma(BitReader& reader) {
    ChromaFields chroma;
    chroma.format = reader.ue();
    if (chroma.format == kChroma444)
        chroma.separatePlanes = reader.flag();
    chroma.bitDepth = reader.ue() + 8;
    reader.ue();          // bit_depth_chroma_minus8
    reader.skip(1);       // qpprime_y_zero_transform_bypass_flag
    if (reader.flag()) {  // seq_scaling_matrix_present_flag
        const int lists = chroma.format == kChroma444 ? 12 : 8;
        for (int i = 0; i < lists; ++i)
            if (reader.flag())
                skipScalingList(reader, i < 6 ? 16 : 64);
    }
    return chroma;
}

void skipPictureOrder(BitReader& reader) {
    const uint32_t type = reader.ue();
    if (type == 0) {
        reader.ue();  // log2_max_pic_order_cnt_lsb_minus4
    } else if (type == 1) {
        reader.skip(1);
        reader.se();
        reader.se();
        for (uint32_t cycle = reader.ue(); cycle > 0 && !reader.overrun(); --cycle)
            reader.se();
    }
}

// What is shown of a coded size, where the offsets leave something.
std::optional<uint32_t> cropped(uint64_t coded, uint64_t offsets, uint64_t unit) {
    const uint64_t off = offsets * unit;
    return off < coded && coded - off <= kPictureSizeLimit ? std::optional(static_cast<uint32_t>(coded - off))
                                                           : std::nullopt;
}

}  // namespace

std::size_t H264Reader::wanted(uint8_t header) const {
    if (isSlice(header))
        return kSliceBytes;
    switch (nalType(header)) {
        case kSei:
            return kSeiBytes;
        case kSequenceParameterSet:
            return kUnitLimit;
        case kPictureParameterSet:
            return kPictureSetBytes;
        default:
            return 0;
    }
}

bool H264Reader::isSlice(uint8_t header) const {
    const uint8_t type = nalType(header);
    return type == kSlice || type == kPartitionA || type == kIdrSlice;
}

void H264Reader::unit(Bytes unit) {
    switch (nalType(u8At(unit, 0))) {
        case kSei:
            readSei(unit);
            break;
        case kSequenceParameterSet:
            readSequenceSet(unit);
            break;
        case kPictureParameterSet:
            readPictureSet(unit);
            break;
        default:
            readSlice(unit);
            break;
    }
}

void H264Reader::readSequenceSet(Bytes unit) {
    const RawBytes raw(unit, kHeaderSize);
    BitReader reader(raw.bytes());
    VideoFormat format;
    const uint32_t profile = reader.bits(8);
    const uint32_t constraints = reader.bits(8);
    format.level = reader.bits(8);
    format.profile = h264ProfileName(profile, constraints);
    const uint32_t id = reader.ue();
    ChromaFields chroma;
    if (std::ranges::find(kHighProfiles, profile) != kHighProfiles.end())
        chroma = readChroma(reader);
    const uint32_t frameNumberBits = reader.ue() + 4;
    skipPictureOrder(reader);
    reader.ue();     // max_num_ref_frames
    reader.skip(1);  // gaps_in_frame_num_value_allowed_flag
    const uint64_t width = (uint64_t{reader.ue()} + 1) * kMacroblock;
    const uint64_t mapUnits = uint64_t{reader.ue()} + 1;
    const bool frameMbsOnly = reader.flag();
    if (!frameMbsOnly)
        reader.skip(1);  // mb_adaptive_frame_field_flag
    reader.skip(1);      // direct_8x8_inference_flag
    uint64_t horizontal = 0;
    uint64_t vertical = 0;
    if (reader.flag()) {  // frame_cropping_flag
        horizontal = uint64_t{reader.ue()};
        horizontal += reader.ue();
        vertical = uint64_t{reader.ue()};
        vertical += reader.ue();
    }
    const bool usability = reader.flag();
    const uint32_t lines = frameMbsOnly ? 1 : 2;
    const bool planes = chroma.format == 0 || chroma.separatePlanes;  // ChromaArrayType 0
    const auto shownWidth = cropped(width, horizontal, !planes && chroma.format < kChroma444 ? 2 : 1);
    const auto shownHeight =
        cropped(mapUnits * kMacroblock * lines, vertical, (!planes && chroma.format == 1 ? 2 : 1) * lines);
    if (reader.overrun() || id >= kSequenceSets || frameNumberBits > kFrameNumberBitsLimit || !shownWidth ||
        !shownHeight || chroma.format > kChroma444 || chroma.bitDepth > 14)
        return;
    sequenceSets_[id] = {static_cast<uint8_t>(frameNumberBits), frameMbsOnly, chroma.separatePlanes};
    format.width = *shownWidth;
    format.height = *shownHeight;
    format.interlaced = !frameMbsOnly;
    format.chroma = static_cast<uint8_t>(chroma.format);
    format.bitDepth = static_cast<uint8_t>(chroma.bitDepth);
    if (usability) {
        VideoFormat full = format;
        readUsability(reader, full);
        if (reader.flag()) {  // timing_info_present_flag
            const uint32_t unitsInTick = reader.bits(32);
            const uint32_t timeScale = reader.bits(32);
            if (unitsInTick <= UINT32_MAX / 2)  // a tick is a field's
                full.frameRate = frameRate(timeScale, unitsInTick * 2);
        }
        if (!reader.overrun())
            format = full;
    }
    if (preferredTransfer_)
        format.transfer = *preferredTransfer_;
    format_ = format;
}

void H264Reader::readPictureSet(Bytes unit) {
    const RawBytes raw(unit, kHeaderSize);
    BitReader reader(raw.bytes());
    const uint32_t id = reader.ue();
    const uint32_t sequence = reader.ue();
    if (!reader.overrun() && id < kPictureSets && sequence < kSequenceSets)
        sequenceOf_[id] = static_cast<uint8_t>(sequence);
}

void H264Reader::readSei(Bytes unit) {
    const RawBytes raw(unit, kHeaderSize);
    forEachSeiMessage(raw.bytes(), [this](uint32_t type, Bytes payload) {
        if (type == kRecoveryPointSei)
            recoveryPoint_ = true;
        else if (type == kAlternativeTransferSei && !payload.empty())
            preferredTransfer_ = payload[0];
    });
    if (preferredTransfer_ && format_)
        format_->transfer = *preferredTransfer_;
}

void H264Reader::readSlice(Bytes unit) {
    slice_ = true;
    const RawBytes raw(unit, kHeaderSize);
    BitReader reader(raw.bytes());
    const uint32_t firstMacroblock = reader.ue();
    const uint32_t type = reader.ue();
    const uint32_t pictureSet = reader.ue();
    // Table 7-6: 0 and 3 P and SP, 1 B, 2 and 4 I and SI; from 5 on all slices of the picture are alike.
    constexpr std::array<PictureType, 5> kTypes = {PictureType::kP, PictureType::kB, PictureType::kI,
                                                   PictureType::kP, PictureType::kI};
    sliceType_ = reader.overrun() || type > 9 ? std::nullopt : std::optional(kTypes[type % kTypes.size()]);
    if (!sliceType_ || firstMacroblock != 0)
        return;
    std::optional<Field> field;
    if (pictureSet < kPictureSets && sequenceOf_[pictureSet] != kUnknown) {
        const SequenceSet& sequence = sequenceSets_[sequenceOf_[pictureSet]];
        if (sequence.separateColourPlanes && reader.bits(2) != 0)
            return;  // another plane of the same picture
        const uint32_t frameNumber = reader.bits(sequence.frameNumberBits);
        if (sequence.frameNumberBits != 0 && !sequence.frameMbsOnly && reader.flag())
            field = Field{frameNumber, reader.flag()};
    }
    const bool recovery = std::exchange(recoveryPoint_, false);
    if (isSecondField(field))
        return;
    const bool idr = nalType(u8At(unit, 0)) == kIdrSlice;
    picture_ = PictureStart{.type = *sliceType_, .closed = idr, .randomAccess = idr || recovery};
}

bool H264Reader::isSecondField(const std::optional<Field>& field) {
    const std::optional<Field> first = std::exchange(firstField_, field);
    if (!field || !first || first->frameNumber != field->frameNumber || first->bottom == field->bottom)
        return false;
    firstField_.reset();
    return true;
}

}  // namespace meter
