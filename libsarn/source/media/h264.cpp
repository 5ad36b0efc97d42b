#include "sarn/h264.h"

#include <algorithm>
#include <array>

namespace {

constexpr int32_t kPacketSize = 188;
constexpr int32_t kStartCodeSize = 4;
constexpr int32_t kNalHeaderSize = 1;
constexpr int32_t kAccessUnitDelimiterSize = 1;  // primary_pic_type and its trailing bits
constexpr uint8_t kNalTypeMask = 0x1F;
constexpr uint8_t kNalSequenceParameterSet = 7;
constexpr uint8_t kNalAccessUnitDelimiter = 9;
constexpr uint32_t kMacroblockSize = 16;
constexpr uint32_t kCropUnit = 2;
constexpr uint32_t kMaximumGolombPrefix = 32;

// The profiles whose parameter sets are taken to carry the chroma format and scaling lists.
constexpr std::array<int32_t, 8> kHighProfiles = {100, 110, 122, 244, 44, 83, 86, 118};
constexpr uint32_t kChromaFormat444 = 3;
constexpr int kScalingLists = 8;
constexpr int kSmallScalingLists = 6;  // the first ones are of 4x4 blocks, the others of 8x8

// The bit readers bound to one parameter set.
struct BitReader {
    const uint8_t* data;
    int32_t length;
    int32_t position = 0;

    uint32_t flag() {
        return ReadBit(data, position, length);
    }
    int32_t bits(int32_t n) {
        return ReadBits(data, position, length, n);
    }
    uint32_t ue() {
        return ReadExponentialGolombCode(data, position, length);
    }
    int32_t se() {
        return ReadSE(data, position, length);
    }
    [[nodiscard]] bool ranPast() const {
        return position > int64_t{length} * 8;
    }
};

void skipScalingList(BitReader& reader, int entries) {
    int32_t last = 8;
    int32_t next = 8;
    for (int i = 0; i < entries && !reader.ranPast(); ++i) {
        if (next != 0) {
            const auto delta = static_cast<uint32_t>(reader.se());
            next = static_cast<int32_t>(static_cast<uint32_t>(last) + delta + 256U) % 256;
        }
        if (next != 0) {
            last = next;
        }
    }
}

void skipHighProfileFields(BitReader& reader) {
    if (reader.ue() == kChromaFormat444) {
        reader.flag();  // separate_colour_plane_flag
    }
    reader.ue();    // bit_depth_luma_minus8
    reader.ue();    // bit_depth_chroma_minus8
    reader.flag();  // qpprime_y_zero_transform_bypass_flag
    if (reader.flag() == 0) {
        return;
    }
    for (int i = 0; i < kScalingLists && !reader.ranPast(); ++i) {
        if (reader.flag() != 0) {
            skipScalingList(reader, i < kSmallScalingLists ? 16 : 64);
        }
    }
}

void skipPictureOrderCount(BitReader& reader) {
    const uint32_t type = reader.ue();
    if (type == 0) {
        reader.ue();  // log2_max_pic_order_cnt_lsb_minus4
    } else if (type == 1) {
        reader.flag();  // delta_pic_order_always_zero_flag
        reader.se();    // offset_for_non_ref_pic
        reader.se();    // offset_for_top_to_bottom_field
        const uint32_t cycle = reader.ue();
        // The count may be anything up to 2^32 - 1; the data is what ends the loop then.
        for (uint32_t i = 0; i < cycle && !reader.ranPast(); ++i) {
            reader.se();  // offset_for_ref_frame
        }
    }
}

void skipToPictureSize(BitReader& reader) {
    const int32_t profile = reader.bits(8);
    reader.bits(8);  // constraint flags and reserved bits
    reader.bits(8);  // level_idc
    reader.ue();     // seq_parameter_set_id
    if (std::find(kHighProfiles.begin(), kHighProfiles.end(), profile) != kHighProfiles.end()) {
        skipHighProfileFields(reader);
    }
    reader.ue();  // log2_max_frame_num_minus4
    skipPictureOrderCount(reader);
    reader.ue();    // max_num_ref_frames
    reader.flag();  // gaps_in_frame_num_value_allowed_flag
}

bool hasStartCode(const uint8_t* bytes) {
    return bytes[0] == 0 && bytes[1] == 0 && bytes[2] == 0 && bytes[3] == 1;
}

}  // namespace

uint32_t ReadBit(const uint8_t* data, int32_t& position, int32_t length) {
    const int32_t at = position;
    position = static_cast<int32_t>(static_cast<uint32_t>(at) + 1U);
    if (at < 0 || at / 8 >= length) {
        return 0;
    }
    return (uint32_t{data[at / 8]} >> (7 - at % 8)) & 1U;
}

int32_t ReadBits(const uint8_t* data, int32_t& position, int32_t length, int32_t n) {
    uint32_t value = 0;
    for (int32_t i = 0; i < n; ++i) {
        value = (value << 1) | ReadBit(data, position, length);
    }
    return static_cast<int32_t>(value);
}

uint32_t ReadExponentialGolombCode(const uint8_t* data, int32_t& position, int32_t length) {
    uint32_t zeros = 0;
    while (ReadBit(data, position, length) == 0 && zeros < kMaximumGolombPrefix) {
        ++zeros;
    }
    const auto suffix = static_cast<uint32_t>(ReadBits(data, position, length, static_cast<int32_t>(zeros)));
    const auto power = static_cast<uint32_t>(uint64_t{1} << zeros);  // 2^32 is 0 in 32 bits
    return suffix + power - 1U;
}

int32_t ReadSE(const uint8_t* data, int32_t& position, int32_t length) {
    const uint32_t code = ReadExponentialGolombCode(data, position, length);
    if (code % 2 != 0) {
        return static_cast<int32_t>((code + 1U) / 2U);
    }
    return -static_cast<int32_t>(code / 2U);
}

uint32_t Parse(const uint8_t* data, int32_t length, uint32_t* height, uint32_t* width) {
    BitReader reader{data, length};
    skipToPictureSize(reader);
    const uint32_t widthInMacroblocks = reader.ue() + 1U;
    const uint32_t heightInMapUnits = reader.ue() + 1U;
    const uint32_t frameMbsOnly = reader.flag();
    if (frameMbsOnly == 0) {
        reader.flag();  // mb_adaptive_frame_field_flag
    }
    reader.flag();  // direct_8x8_inference_flag
    uint32_t left = 0;
    uint32_t right = 0;
    uint32_t top = 0;
    uint32_t bottom = 0;
    if (reader.flag() != 0) {
        left = reader.ue();
        right = reader.ue();
        top = reader.ue();
        bottom = reader.ue();
    }
    const uint32_t vuiParametersPresent = reader.flag();
    if (reader.ranPast()) {
        return 0;
    }
    // Crossed on purpose: readers of the records expect the width cut by the vertical offsets and the height
    // by the horizontal ones.
    *width = widthInMacroblocks * kMacroblockSize - kCropUnit * bottom - kCropUnit * top;
    *height = heightInMapUnits * (2U - frameMbsOnly) * kMacroblockSize - kCropUnit * right - kCropUnit * left;
    return vuiParametersPresent;
}

void parse_nal(const uint8_t* packet, uint8_t offset, int32_t length, int32_t* height, int32_t* width) {
    const int32_t packetEnd = std::min(length, kPacketSize);
    // A start code inside the packet begins at 184 at most, so no index made from it reaches the wrap at 256
    // and each delimiter moves the position forward.
    int32_t at = offset;
    while (at + kStartCodeSize <= packetEnd && hasStartCode(packet + at)) {
        const int32_t headerAt = at + kStartCodeSize;
        if (headerAt >= length) {
            return;
        }
        const int32_t bodyAt = headerAt + kNalHeaderSize;
        const auto type = static_cast<uint8_t>(packet[headerAt] & kNalTypeMask);
        if (type == kNalSequenceParameterSet) {
            auto newHeight = static_cast<uint32_t>(*height);
            auto newWidth = static_cast<uint32_t>(*width);
            Parse(packet + bodyAt, length - bodyAt, &newHeight, &newWidth);
            *height = static_cast<int32_t>(newHeight);
            *width = static_cast<int32_t>(newWidth);
        }
        if (type != kNalAccessUnitDelimiter) {
            return;
        }
        at = bodyAt + kAccessUnitDelimiterSize;
    }
}
