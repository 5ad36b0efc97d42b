#include "shotFigures.h"

#include <turbojpeg.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>

namespace pictured {

namespace {

// The first is what people see nearly always: 320 by 180 of a busy picture takes some 20 KiB. The last fits
// whatever comes.
constexpr std::array<int, 7> kQualities = {82, 70, 55, 40, 25, 10, 1};

struct FreeCompressor {
    void operator()(void* handle) const {
        tjDestroy(handle);
    }
};

uint8_t luma(const uint8_t* sample) {
    return static_cast<uint8_t>((299 * sample[0] + 587 * sample[1] + 114 * sample[2] + 500) / 1000);
}

// Which of `count` samples part `index` of `parts` has: [first, second), never empty.
std::pair<int, int> part(int index, int parts, int count) {
    const int first = index * count / parts;
    return {first, std::max(first + 1, (index + 1) * count / parts)};
}

}  // namespace

Luma measureLuma(const SmallPicture& picture) {
    const auto width = static_cast<std::size_t>(picture.width);
    std::vector<uint8_t> lumas(width * static_cast<std::size_t>(picture.height));
    uint64_t sum = 0;
    uint64_t squares = 0;
    for (std::size_t i = 0; i < lumas.size(); ++i) {
        lumas[i] = luma(&picture.samples[3 * i]);
        sum += lumas[i];
        squares += uint64_t{lumas[i]} * lumas[i];
    }
    Luma figures;
    const auto count = static_cast<double>(lumas.size());
    const double mean = static_cast<double>(sum) / count;
    figures.mean = static_cast<float>(mean);
    figures.spread =
        static_cast<float>(std::sqrt(std::max(0.0, static_cast<double>(squares) / count - mean * mean)));
    for (int y = 0; y < kRasterHeight; ++y) {
        const auto [top, bottom] = part(y, kRasterHeight, picture.height);
        for (int x = 0; x < kRasterWidth; ++x) {
            const auto [left, right] = part(x, kRasterWidth, picture.width);
            int total = 0;
            for (int row = top; row < bottom; ++row) {
                for (int column = left; column < right; ++column) {
                    total += lumas[static_cast<std::size_t>(row) * width + static_cast<std::size_t>(column)];
                }
            }
            const int samples = (bottom - top) * (right - left);
            figures.raster[static_cast<std::size_t>(y) * kRasterWidth + static_cast<std::size_t>(x)] =
                static_cast<uint8_t>((total + samples / 2) / samples);
        }
    }
    return figures;
}

std::string makeJpeg(const SmallPicture& picture) {
    const std::unique_ptr<void, FreeCompressor> compressor(tjInitCompress());
    std::vector<unsigned char> buffer(tjBufSize(picture.width, picture.height, TJSAMP_420));
    for (const int quality : kQualities) {
        unsigned char* bytes = buffer.data();
        unsigned long size = buffer.size();
        if (tjCompress2(compressor.get(), picture.samples.data(), picture.width, 3 * picture.width,
                        picture.height, TJPF_RGB, &bytes, &size, TJSAMP_420, quality,
                        TJFLAG_NOREALLOC) != 0) {
            throw std::runtime_error("the picture cannot be made a JPEG");
        }
        if (size <= picturing::kJpegBytes) {
            return {reinterpret_cast<const char*>(bytes), size};
        }
    }
    throw std::runtime_error("the picture does not fit into a JPEG's limit");
}

}  // namespace pictured
