// What is told of a picture in figures.
#pragma once

#include "exchange.h"
#include "videoDecoder.h"

namespace pictured {

struct Luma {
    float mean = 0;    // 0 (black) to 255 (white)
    float spread = 0;  // standard deviation
    Raster raster{};   // mean of each part of the picture
};

// Y of ITU-R BT.601 from red, green and blue. The picture has at least a sample each way; where it has fewer
// than the raster, parts share samples.
Luma measureLuma(const SmallPicture& picture);

// A baseline JPEG of at most picturing::kJpegBytes: the quality is lowered until it fits. Throws
// std::runtime_error.
std::string makeJpeg(const SmallPicture& picture);

}  // namespace pictured
