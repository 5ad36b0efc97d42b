// One audio stream: what its frames say, and its bit rate.
#pragma once

#include <array>
#include <optional>

#include "fields/bytes.h"
#include "media/audioFrame.h"
#include "meter/report.h"
#include "services/serviceModel.h"

namespace meter {

// Goes from frame to frame by their sizes; that a frame begins is believed when another one begins where it
// ends.
class AudioStream {
  public:
    // REQUIRES: an audio codec. `aacProfileLevel`: of a descriptor, which alone tells of HE-AAC in ADTS.
    AudioStream(Codec codec, std::optional<uint8_t> aacProfileLevel);

    // The next bytes of the elementary stream.
    void feed(Bytes payload) {
        if (skip_ >= payload.size())
            skip_ -= static_cast<uint32_t>(payload.size());
        else
            walk(payload);
    }
    void secondEnded();
    void fill(AudioReport& report) const;

  private:
    // Frames one after the other.
    struct Volume {
        uint64_t bytes = 0;
        uint64_t samples = 0;
    };

    void walk(Bytes payload);
    void takeSync();
    void takeHead();
    void account(const AudioFrame& frame);
    void slide();
    void applyDescriptor(AudioFrame& frame) const;
    std::optional<uint64_t> measuredRate() const;

    AudioFrameReader read_;
    std::optional<uint8_t> aacProfileLevel_;
    std::array<uint8_t, kAudioHeadLimit> head_{};
    uint32_t headSize_ = 0;
    uint32_t headWanted_ = kAudioSyncSize;
    uint32_t skip_ = 0;                    // bytes up to the next frame
    std::optional<AudioFrame> candidate_;  // the frame before, until the next one confirms it
    AudioFrame group_;                     // a frame with the places of the dependent ones that follow it
    AudioFrame known_;                     // the last whole group; size 0: not known
    Volume second_;                        // that runs
    std::optional<Volume> lastSecond_;
};

}  // namespace meter
