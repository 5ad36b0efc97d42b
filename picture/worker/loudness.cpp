#include "loudness.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}
#include <ebur128.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <optional>
#include <vector>

#include "libav.h"
#include "picture.pb.h"

namespace pictured {

namespace {

constexpr int kChannelsLimit = 8;
constexpr int kRateLeast = 8000;
constexpr int kRateMost = 192'000;
constexpr int kStepsInSecond = 10;
constexpr int kStepsInWindow = 4;
constexpr double kLoudest = 20.0;

struct CloseParser {
    void operator()(AVCodecParserContext* parser) const {
        av_parser_close(parser);
    }
};

AVCodecID audioCodecId(uint32_t codec) {
    switch (codec) {
        case picturing::AUDIO_MPEG:
            return AV_CODEC_ID_MP3;  // its decoder and parser take all three layers
        case picturing::AUDIO_AAC_ADTS:
            return AV_CODEC_ID_AAC;
        case picturing::AUDIO_AAC_LATM:
            return AV_CODEC_ID_AAC_LATM;
        case picturing::AUDIO_AC3:
            return AV_CODEC_ID_AC3;
        case picturing::AUDIO_EAC3:
            return AV_CODEC_ID_EAC3;
        default:
            return AV_CODEC_ID_NONE;
    }
}

// ITU-R BS.1770, table 3: low frequency effects do not count, surrounds do with +1.5 dB.
channel placeOf(AVChannel place, int channels) {
    switch (place) {
        case AV_CHAN_FRONT_LEFT:
            return EBUR128_LEFT;
        case AV_CHAN_FRONT_RIGHT:
            return EBUR128_RIGHT;
        case AV_CHAN_FRONT_CENTER:
            return channels == 1 ? EBUR128_LEFT : EBUR128_CENTER;
        case AV_CHAN_SIDE_LEFT:
        case AV_CHAN_BACK_LEFT:
            return EBUR128_LEFT_SURROUND;
        case AV_CHAN_SIDE_RIGHT:
        case AV_CHAN_BACK_RIGHT:
            return EBUR128_RIGHT_SURROUND;
        case AV_CHAN_LOW_FREQUENCY:
            return EBUR128_UNUSED;
        default:
            return EBUR128_CENTER;  // counts once
    }
}

template <typename Sample>
Sample valueAt(const uint8_t* plane, int place) {
    Sample value;
    std::memcpy(&value, plane + static_cast<std::size_t>(place) * sizeof value, sizeof value);
    return value;
}

float sampleOf(const AVFrame& frame, int channel, int index, int channels) {
    const auto format = static_cast<AVSampleFormat>(frame.format);
    const bool planar = av_sample_fmt_is_planar(format) != 0;
    const uint8_t* plane = frame.extended_data[planar ? channel : 0];
    const int place = planar ? index : index * channels + channel;
    switch (av_get_packed_sample_fmt(format)) {
        case AV_SAMPLE_FMT_FLT:
            return valueAt<float>(plane, place);
        case AV_SAMPLE_FMT_S16:
            return static_cast<float>(valueAt<int16_t>(plane, place)) / 32768.0F;
        case AV_SAMPLE_FMT_S32:
            return static_cast<float>(valueAt<int32_t>(plane, place)) / 2147483648.0F;
        default:
            return 0;  // no decoder here makes others
    }
}

// The meter, fed with frames as they are decoded.
class Meter {
  public:
    Meter() = default;
    ~Meter() {
        if (state_ != nullptr) {
            ebur128_destroy(&state_);
        }
    }
    Meter(const Meter&) = delete;

    // False: it is of another shape than those before, or of one that is not measured.
    bool add(const AVFrame& frame) {
        const int channels = frame.ch_layout.nb_channels;
        if (state_ == nullptr && !begin(frame, channels)) {
            return false;
        }
        if (channels != channels_ || frame.sample_rate != rate_) {
            return false;
        }
        for (int index = 0; index < frame.nb_samples; ++index) {
            for (int channel = 0; channel < channels; ++channel) {
                const float sample = sampleOf(frame, channel, index, channels);
                step_.push_back(std::isfinite(sample) ? std::clamp(sample, -kSampleLimit, kSampleLimit) : 0);
            }
            if (step_.size() == stepSamples()) {
                finishStep();
            }
        }
        return true;
    }

    Loudness result() const {
        if (!largest_) {
            return {state_ == nullptr ? SoundVerdict::kDamaged : SoundVerdict::kTooShort};
        }
        return {SoundVerdict::kMeasured,
                static_cast<float>(std::clamp(*largest_, picturing::kSilenceLufs, kLoudest))};
    }

  private:
    static constexpr float kSampleLimit = 4;  // full scale is 1; decoders overshoot a little

    bool begin(const AVFrame& frame, int channels) {
        if (channels < 1 || channels > kChannelsLimit || frame.sample_rate < kRateLeast ||
            frame.sample_rate > kRateMost) {
            return false;
        }
        channels_ = channels;
        rate_ = frame.sample_rate;
        state_ =
            ebur128_init(static_cast<unsigned>(channels), static_cast<unsigned long>(rate_), EBUR128_MODE_M);
        if (state_ == nullptr) {
            throw std::bad_alloc();
        }
        for (int i = 0; i < channels; ++i) {
            const AVChannel place =
                av_channel_layout_channel_from_index(&frame.ch_layout, static_cast<unsigned>(i));
            ebur128_set_channel(state_, static_cast<unsigned>(i), placeOf(place, channels));
        }
        return true;
    }

    std::size_t stepSamples() const {
        return static_cast<std::size_t>(channels_) * static_cast<std::size_t>(rate_ / kStepsInSecond);
    }

    void finishStep() {
        ebur128_add_frames_float(state_, step_.data(), step_.size() / static_cast<std::size_t>(channels_));
        step_.clear();
        double now = 0;
        if (++steps_ >= kStepsInWindow && ebur128_loudness_momentary(state_, &now) == EBUR128_SUCCESS) {
            largest_ = std::max(now, largest_.value_or(picturing::kSilenceLufs));  // silence is -infinity
        }
    }

    ebur128_state* state_ = nullptr;
    int channels_ = 0;
    int rate_ = 0;
    int steps_ = 0;
    std::vector<float> step_;
    std::optional<double> largest_;
};

}  // namespace

Loudness measureLoudness(uint32_t codec, std::span<const uint8_t> stream) {
    const AVCodecID id = audioCodecId(codec);
    const Context context = makeContext(id);
    const std::unique_ptr<AVCodecParserContext, CloseParser> parser(context ? av_parser_init(id) : nullptr);
    if (!parser || avcodec_open2(context.get(), context->codec, nullptr) < 0) {
        return {};
    }
    const Packet padded = makePacket(stream);
    const Packet packet(av_packet_alloc());
    const Frame frame = makeFrame();
    if (!packet) {
        throw std::bad_alloc();
    }
    Meter meter;
    const uint8_t* next = padded->data;
    int left = padded->size;
    while (left > 0) {
        uint8_t* data = nullptr;
        int size = 0;
        const int taken = av_parser_parse2(parser.get(), context.get(), &data, &size, next, left,
                                           AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
        if (taken < 0 || (taken == 0 && size == 0)) {
            break;
        }
        next += taken;
        left -= taken;
        if (size == 0) {
            continue;
        }
        packet->data = data;
        packet->size = size;
        if (avcodec_send_packet(context.get(), packet.get()) < 0) {
            continue;  // cut, or damaged
        }
        while (avcodec_receive_frame(context.get(), frame.get()) >= 0) {
            if (!meter.add(*frame)) {
                return meter.result();
            }
        }
    }
    return meter.result();
}

}  // namespace pictured
