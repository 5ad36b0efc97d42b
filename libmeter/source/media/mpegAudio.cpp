#include <array>

#include "fields/bitReader.h"
#include "media/audioFrame.h"

namespace meter {
namespace {

enum Version : uint32_t { kVersion25 = 0, kReserved = 1, kVersion2 = 2, kVersion1 = 3 };

constexpr uint32_t kFree = 0;
constexpr uint32_t kForbidden = 15;

// kbit/s by bitrate_index (ISO/IEC 11172-3 2.4.2.3, 13818-3 2.4.2.3): layers 1 to 3 of version 1, then layer
// 1 and layers 2 and 3 of the lower sampling frequencies.
constexpr std::array<std::array<uint16_t, 15>, 5> kBitrates = {{
    {0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},
    {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320},
    {0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},
    {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},
}};

constexpr std::array<uint32_t, 3> kSampleRates = {44100, 48000, 32000};  // of version 1

}  // namespace

std::optional<AudioFrame> readMpegAudioFrame(Bytes head) {
    constexpr uint32_t kSyncWord = 0x7FF;
    constexpr uint32_t kMono = 3;
    BitReader reader(head);
    const bool sync = reader.bits(11) == kSyncWord;
    const uint32_t version = reader.bits(2);
    const uint32_t layer = 4 - reader.bits(2);
    reader.skip(1);  // protection_bit
    const uint32_t bitrateIndex = reader.bits(4);
    const uint32_t rateIndex = reader.bits(2);
    const bool padding = reader.flag();
    reader.skip(1);
    const uint32_t mode = reader.bits(2);
    if (!sync || reader.overrun() || version == kReserved || layer > 3 || bitrateIndex == kFree ||
        bitrateIndex == kForbidden || rateIndex >= kSampleRates.size())
        return std::nullopt;
    const bool low = version != kVersion1;
    AudioFrame frame;
    frame.sampleRate = kSampleRates[rateIndex] >> (version == kVersion1 ? 0 : (version == kVersion2 ? 1 : 2));
    frame.codedRate = frame.sampleRate;
    const std::size_t row = low ? (layer == 1 ? 3 : 4) : layer - 1;
    frame.bitrate = kBitrates[row][bitrateIndex] * 1000U;
    frame.channels = mode == kMono ? 1 : 2;
    const uint32_t slot = layer == 1 ? 4 : 1;
    frame.samples = layer == 1 ? 384 : (layer == 3 && low ? 576 : 1152);
    frame.size = (frame.samples / 8 / slot * frame.bitrate / frame.sampleRate + (padding ? 1 : 0)) * slot;
    return frame.size >= kAudioSyncSize ? std::optional(frame) : std::nullopt;
}

}  // namespace meter
