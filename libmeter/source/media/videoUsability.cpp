#include "media/videoUsability.h"

#include <iterator>

namespace meter {
namespace {

// Table E-1: aspect_ratio_idc.
constexpr Ratio kPixelAspects[] = {{},       {1, 1},    {12, 11}, {10, 11}, {16, 11}, {40, 33},
                                   {24, 11}, {20, 11},  {32, 11}, {80, 33}, {18, 11}, {15, 11},
                                   {64, 33}, {160, 99}, {4, 3},   {3, 2},   {2, 1}};
constexpr uint32_t kExtendedAspect = 255;

}  // namespace

void readUsability(BitReader& reader, VideoFormat& format) {
    if (reader.flag()) {  // aspect_ratio_info_present_flag
        const uint32_t idc = reader.bits(8);
        if (idc == kExtendedAspect) {
            format.pixelAspect.numerator = reader.bits(16);
            format.pixelAspect.denominator = reader.bits(16);
            if (format.pixelAspect.numerator == 0)
                format.pixelAspect = {};
        } else if (idc < std::size(kPixelAspects)) {
            format.pixelAspect = kPixelAspects[idc];
        }
    }
    if (reader.flag())  // overscan_info_present_flag
        reader.skip(1);
    if (reader.flag()) {  // video_signal_type_present_flag
        reader.skip(4);
        if (reader.flag()) {  // colour_description_present_flag
            format.primaries = static_cast<uint8_t>(reader.bits(8));
            format.transfer = static_cast<uint8_t>(reader.bits(8));
            reader.skip(8);
        }
    }
    if (reader.flag()) {  // chroma_loc_info_present_flag
        reader.ue();
        reader.ue();
    }
}

}  // namespace meter
