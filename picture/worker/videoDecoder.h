// One coded picture, decoded and scaled.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "exchange.h"

namespace pictured {

// Red, green and blue, a byte each, row by row from the top; 0 to 255 from black to white.
struct SmallPicture {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> samples;
};

struct DecodedPicture {
    PictureVerdict verdict = PictureVerdict::kDamaged;
    uint32_t width = 0;  // of the frame as coded, cropped, also where only a field of it is there
    uint32_t height = 0;
    SmallPicture small;  // with kDecoded
    bool whole = false;  // all of it was decoded; else it shows what of it was, and is no measure of anything
};

// Decodes the first picture of an elementary stream (parameter sets and an I picture) with a decoder of its
// own, on this thread, and scales it into picturing::kShotWidth by kShotHeight with its display aspect.
// Fields stay interleaved as they are; one that is a picture of its own (H.265) is shown at its frame's
// height. `codec`: a picturing::VideoCodec.
DecodedPicture decodePicture(uint32_t codec, std::span<const uint8_t> stream);

// What fits into the box with this shape. `sampleWidth` to `sampleHeight`: pixel aspect; unknown or absurd
// ones (a display aspect beyond 1:4 or 4:1) are taken as square, or the nearest that is not.
struct Size {
    int width;
    int height;
};
Size fitShot(uint32_t width, uint32_t height, int sampleWidth, int sampleHeight);

}  // namespace pictured
