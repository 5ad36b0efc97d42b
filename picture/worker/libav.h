// Owners of what libavcodec and libavutil allocate.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <span>

namespace pictured {

template <auto Release>
struct Releaser {
    template <typename T>
    void operator()(T* pointer) const {
        Release(&pointer);
    }
};
using Context = std::unique_ptr<AVCodecContext, Releaser<avcodec_free_context>>;
using Frame = std::unique_ptr<AVFrame, Releaser<av_frame_free>>;
using Packet = std::unique_ptr<AVPacket, Releaser<av_packet_free>>;

// A context that decodes on this thread alone, not yet opened; null: this build has no such decoder.
inline Context makeContext(AVCodecID id) {
    const AVCodec* codec = avcodec_find_decoder(id);
    Context context(codec == nullptr ? nullptr : avcodec_alloc_context3(codec));
    if (context) {
        context->thread_count = 1;
        context->thread_type = 0;
    }
    return context;
}

inline Frame makeFrame() {
    Frame frame(av_frame_alloc());
    return frame ? std::move(frame) : throw std::bad_alloc();
}

// A copy of the bytes, with the padding that decoders read beyond them.
inline Packet makePacket(std::span<const uint8_t> bytes) {
    Packet packet(av_packet_alloc());
    if (!packet || av_new_packet(packet.get(), static_cast<int>(bytes.size())) < 0) {
        throw std::bad_alloc();
    }
    std::memcpy(packet->data, bytes.data(), bytes.size());
    return packet;
}

}  // namespace pictured
