// What parameter sets and picture headers say of a video stream, whatever its codec.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace meter {

struct Ratio {
    uint32_t numerator = 0;
    uint32_t denominator = 0;  // 0: not known

    bool operator==(const Ratio&) const = default;
};

// Values of colour_primaries and transfer_characteristics (ISO/IEC 23091-2).
inline constexpr uint8_t kColourUnspecified = 2;

struct VideoFormat {
    uint32_t width = 0;  // of what is shown: cropping and conformance window are taken off
    uint32_t height = 0;
    Ratio pixelAspect;
    Ratio frameRate;  // of pictures
    bool interlaced = false;
    bool fieldPictures = false;  // each picture is a field: two make a frame, whose size this is
    std::string_view profile;    // static storage; empty: not known
    std::optional<uint32_t> level;
    uint8_t chroma = 1;  // chroma_format_idc: 0 monochrome, 1 4:2:0, 2 4:2:2, 3 4:4:4
    uint8_t bitDepth = 8;
    uint8_t primaries = kColourUnspecified;
    uint8_t transfer = kColourUnspecified;

    bool operator==(const VideoFormat&) const = default;
};

// Sizes beyond are taken for damage.
inline constexpr uint32_t kPictureSizeLimit = 16384;

enum class PictureType : char { kI = 'I', kP = 'P', kB = 'B' };

// The begin of a picture; of a pair of fields that of the first one.
struct PictureStart {
    PictureType type = PictureType::kI;
    bool closed = false;        // nothing from here on refers to what came before: IDR, closed GOP
    bool randomAccess = false;  // decoding can begin here
};

}  // namespace meter
