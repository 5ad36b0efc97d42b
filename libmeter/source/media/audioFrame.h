// Headers of audio frames. Each reader is given bytes from where a frame may begin and says whether one does.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "fields/bytes.h"

namespace meter {

// Bytes of a frame that readers look at; a shorter frame is given as a whole.
inline constexpr std::size_t kAudioHeadLimit = 128;
// Bytes that tell how long a frame is.
inline constexpr std::size_t kAudioSyncSize = 8;

struct AudioFrame {
    uint32_t size = 0;       // bytes, at least kAudioSyncSize
    uint32_t samples = 0;    // a channel
    uint32_t codedRate = 0;  // Hz, which `samples` go by
    bool continues = false;  // a dependent substream: more of the frame before
    // What is heard; 0 and empty where the head does not tell.
    uint32_t sampleRate = 0;  // Hz
    uint32_t channels = 0;
    uint32_t bitrate = 0;      // bit/s that the header states
    uint32_t places = 0;       // loudspeakers, a bit each, where a dependent substream may add some
    std::string_view profile;  // static storage

    bool operator==(const AudioFrame&) const = default;
};

// Loudspeakers of AudioFrame::places.
uint32_t countLoudspeakers(uint32_t places);

// `head`: kAudioSyncSize bytes for the size alone, then as many as kAudioHeadLimit for the rest.
using AudioFrameReader = std::optional<AudioFrame> (*)(Bytes head);

std::optional<AudioFrame> readMpegAudioFrame(Bytes head);  // ISO/IEC 11172-3, 13818-3
std::optional<AudioFrame> readAdtsFrame(Bytes head);       // ISO/IEC 13818-7 6.2, 14496-3 1.A.3
std::optional<AudioFrame> readLoasFrame(Bytes head);       // ISO/IEC 14496-3 1.7
std::optional<AudioFrame> readAc3Frame(Bytes head);        // ETSI TS 102 366, AC-3 and E-AC-3

}  // namespace meter
