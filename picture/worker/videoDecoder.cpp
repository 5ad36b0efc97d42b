#include "videoDecoder.h"

extern "C" {
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <cmath>
#include <cstring>

#include "libav.h"
#include "picture.pb.h"

namespace pictured {

namespace {

struct FreeScaler {
    void operator()(SwsContext* scaler) const {
        sws_freeContext(scaler);
    }
};
using Scaler = std::unique_ptr<SwsContext, FreeScaler>;

constexpr double kAspectWidest = 4.0;
constexpr int kSideLeast = 16;  // of what is shown
// Higher ones with unknown colours have those of HDTV (ITU-R BT.709), others of BT.601.
constexpr int kHighDefinitionHeight = 720;

AVCodecID videoCodecId(uint32_t codec) {
    switch (codec) {
        case picturing::VIDEO_MPEG2:
            return AV_CODEC_ID_MPEG2VIDEO;  // takes ISO/IEC 11172-2 as well
        case picturing::VIDEO_H264:
            return AV_CODEC_ID_H264;
        case picturing::VIDEO_H265:
            return AV_CODEC_ID_HEVC;
        default:
            return AV_CODEC_ID_NONE;
    }
}

// Marks samples before they are decoded: decoders that leave parts of a damaged picture out do not say so.
class Undecoded {
  public:
    static int makeBuffer(AVCodecContext* context, AVFrame* frame, int flags) {
        const int result = avcodec_default_get_buffer2(context, frame, flags);
        if (result >= 0) {
            for (int y = 0; y < frame->height; ++y) {
                forEachWord(*frame, y, frame->linesize[0],
                            [](uint8_t* word, uint64_t mark) { std::memcpy(word, &mark, sizeof mark); });
            }
        }
        return result;
    }

    // Whether any are left, whose luma becomes 0.
    static bool clear(const AVFrame& frame) {
        const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(frame.format));
        const int sampleBytes = descriptor == nullptr ? 1 : descriptor->comp[0].step;
        bool found = false;
        for (int y = 0; y < frame.height; ++y) {
            forEachWord(frame, y, frame.width * sampleBytes, [&found](uint8_t* word, uint64_t mark) {
                if (std::memcmp(word, &mark, sizeof mark) == 0) {
                    std::memset(word, 0, sizeof mark);
                    found = true;
                }
            });
        }
        return found;
    }

  private:
    // Of the first `bytes` of a line of luma, with what marks it. Words lie at multiples of their size; by
    // chance none is equal to its mark.
    template <typename Act>
    static void forEachWord(const AVFrame& frame, int y, int bytes, Act act) {
        constexpr uintptr_t kSize = sizeof(uint64_t);
        constexpr uint64_t kFactor = 0x9E3779B97F4A7C15;
        uint8_t* const line = frame.data[0] + std::ptrdiff_t{frame.linesize[0]} * y;
        const auto begin = reinterpret_cast<uintptr_t>(line);
        for (uintptr_t at = (begin + kSize - 1) / kSize * kSize;
             at + kSize <= begin + static_cast<uintptr_t>(bytes); at += kSize) {
            act(line + (at - begin), at * kFactor);
        }
    }
};

Frame decodeFrame(AVCodecContext& context, std::span<const uint8_t> stream) {
    // A picture whose references are missing is shown nevertheless: it was cut out as a random access point.
    context.flags |= AV_CODEC_FLAG_OUTPUT_CORRUPT;
    context.flags2 |= AV_CODEC_FLAG2_SHOW_ALL;
    context.max_pixels = static_cast<int64_t>(kSamplesLimit);
    context.pkt_timebase = {1, 90000};
    context.get_buffer2 = Undecoded::makeBuffer;
    if (avcodec_open2(&context, context.codec, nullptr) < 0) {
        return nullptr;
    }
    Packet packet = makePacket(stream);
    packet->flags |= AV_PKT_FLAG_KEY;
    Frame frame = makeFrame();
    // Decoders hold a picture back for those that come before it; at the end of the stream they hand it over.
    if (avcodec_send_packet(&context, packet.get()) < 0 && context.width == 0) {
        return nullptr;
    }
    if (avcodec_receive_frame(&context, frame.get()) >= 0) {
        return frame;
    }
    avcodec_send_packet(&context, nullptr);
    return avcodec_receive_frame(&context, frame.get()) >= 0 ? std::move(frame) : nullptr;
}

// `height`: of the frame, also where a field was decoded.
int colourTable(const AVFrame& frame, uint32_t height) {
    switch (frame.colorspace) {
        case AVCOL_SPC_BT709:
            return SWS_CS_ITU709;
        case AVCOL_SPC_BT2020_NCL:
        case AVCOL_SPC_BT2020_CL:
            return SWS_CS_BT2020;
        case AVCOL_SPC_FCC:
            return SWS_CS_FCC;
        case AVCOL_SPC_SMPTE240M:
            return SWS_CS_SMPTE240M;
        case AVCOL_SPC_BT470BG:
        case AVCOL_SPC_SMPTE170M:
            return SWS_CS_ITU601;
        default:
            return height >= kHighDefinitionHeight ? SWS_CS_ITU709 : SWS_CS_ITU601;
    }
}

// H.265 codes fields as pictures of their own (field_seq_flag).
bool isField(const AVFrame& frame, AVCodecID id) {
    return id == AV_CODEC_ID_HEVC && frame.interlaced_frame != 0;
}

// False: parts of it were made up, or are missing.
bool isWhole(const AVFrame& frame) {
    const bool leftOut = Undecoded::clear(frame);
    return !leftOut && frame.decode_error_flags == 0 && (frame.flags & AV_FRAME_FLAG_CORRUPT) == 0;
}

// False: samples of a kind that the scaler does not take.
bool scale(const AVFrame& frame, uint32_t height, SmallPicture& small) {
    const auto format = static_cast<AVPixelFormat>(frame.format);
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
    if (descriptor == nullptr || (descriptor->flags & AV_PIX_FMT_FLAG_HWACCEL) != 0 ||
        sws_isSupportedInput(format) == 0) {
        return false;
    }
    const Scaler scaler(sws_getContext(frame.width, frame.height, format, small.width, small.height,
                                       AV_PIX_FMT_RGB24, SWS_AREA, nullptr, nullptr, nullptr));
    if (!scaler) {
        return false;
    }
    const int full = frame.color_range == AVCOL_RANGE_JPEG ? 1 : 0;
    constexpr int kUnchanged = 1 << 16;
    sws_setColorspaceDetails(scaler.get(), sws_getCoefficients(colourTable(frame, height)), full,
                             sws_getCoefficients(SWS_CS_DEFAULT), 1, 0, kUnchanged, kUnchanged);
    const int row = 3 * small.width;
    // The scaler may write a vector's length beyond a row's end.
    constexpr int kSlack = 64;
    small.samples.assign(static_cast<std::size_t>(row) * static_cast<std::size_t>(small.height) + kSlack, 0);
    uint8_t* const planes[4] = {small.samples.data()};
    const int strides[4] = {row};
    if (sws_scale(scaler.get(), frame.data, frame.linesize, 0, frame.height, planes, strides) !=
        small.height) {
        return false;
    }
    small.samples.resize(small.samples.size() - kSlack);
    return true;
}

}  // namespace

Size fitShot(uint32_t width, uint32_t height, int sampleWidth, int sampleHeight) {
    double aspect = static_cast<double>(width) / static_cast<double>(height);
    if (sampleWidth > 0 && sampleHeight > 0) {
        aspect *= static_cast<double>(sampleWidth) / static_cast<double>(sampleHeight);
    }
    aspect = std::clamp(aspect, 1 / kAspectWidest, kAspectWidest);
    const double box = static_cast<double>(picturing::kShotWidth) / picturing::kShotHeight;
    const auto even = [](double side, int most) {
        return std::clamp(static_cast<int>(std::lround(side / 2)) * 2, kSideLeast, most);
    };
    if (aspect >= box) {
        return {picturing::kShotWidth, even(picturing::kShotWidth / aspect, picturing::kShotHeight)};
    }
    return {even(picturing::kShotHeight * aspect, picturing::kShotWidth), picturing::kShotHeight};
}

DecodedPicture decodePicture(uint32_t codec, std::span<const uint8_t> stream) {
    DecodedPicture decoded;
    const AVCodecID id = videoCodecId(codec);
    const Context context = makeContext(id);
    if (!context) {
        decoded.verdict = PictureVerdict::kUnknownKind;
        return decoded;
    }
    const Frame frame = decodeFrame(*context, stream);
    if (!frame) {
        const auto samples = static_cast<uint64_t>(std::max(0, context->width)) *
                             static_cast<uint64_t>(std::max(0, context->height));
        decoded.verdict = samples > kSamplesLimit ? PictureVerdict::kTooLarge : PictureVerdict::kDamaged;
        return decoded;
    }
    decoded.width = static_cast<uint32_t>(std::max(0, frame->width));
    decoded.height = static_cast<uint32_t>(std::max(0, frame->height));
    if (decoded.width == 0 || decoded.height == 0) {
        return decoded;
    }
    if (decoded.width > kSideLimit || decoded.height > kSideLimit) {
        decoded.verdict = PictureVerdict::kTooLarge;
        return decoded;
    }
    decoded.whole = isWhole(*frame);
    AVRational shape =
        frame->sample_aspect_ratio.num > 0 ? frame->sample_aspect_ratio : context->sample_aspect_ratio;
    if (isField(*frame, id)) {
        decoded.height *= 2;
        // Some encoders tell the shape of a field's samples, with which a frame would be upright.
        if (shape.num > 0 && int64_t{decoded.width} * shape.num < int64_t{decoded.height} * shape.den) {
            shape = av_mul_q(shape, {2, 1});
        }
    }
    const Size size = fitShot(decoded.width, decoded.height, shape.num, shape.den);
    decoded.small.width = size.width;
    decoded.small.height = size.height;
    decoded.verdict = scale(*frame, decoded.height, decoded.small) ? PictureVerdict::kDecoded
                                                                   : PictureVerdict::kUnknownKind;
    return decoded;
}

}  // namespace pictured
