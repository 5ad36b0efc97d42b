#include <array>

#include "fields/bitReader.h"
#include "media/audioFrame.h"
#include "media/profileNames.h"

namespace meter {
namespace {

// ISO/IEC 14496-3 table 1.18.
constexpr std::array<uint32_t, 13> kSampleRates = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                                   22050, 16000, 12000, 11025, 8000,  7350};
// Channels by channelConfiguration (table 1.19); 0: a program_config_element says, or reserved.
constexpr std::array<uint8_t, 16> kChannels = {0, 1, 2, 3, 4, 5, 6, 8, 0, 0, 0, 7, 8, 24, 8, 0};
constexpr uint32_t kFrameSamples = 1024;
constexpr uint32_t kShortFrameSamples = 960;
constexpr uint32_t kExplicitRate = 15;

enum ObjectType : uint32_t { kAacMain = 1, kAacLtp = 4, kSbr = 5, kAacScalable = 6, kEscape = 31, kPs = 29 };

// Channels of a program_config_element (4.4.1.1).
uint32_t readProgramConfig(BitReader& reader) {
    reader.skip(4 + 2 + 4);  // element_instance_tag, object_type, sampling_frequency_index
    const uint32_t front = reader.bits(4);
    const uint32_t side = reader.bits(4);
    const uint32_t back = reader.bits(4);
    const uint32_t lfe = reader.bits(2);
    reader.skip(3 + 4);  // data and coupling elements
    if (reader.flag())
        reader.skip(4);  // mono_mixdown_element_number
    if (reader.flag())
        reader.skip(4);  // stereo_mixdown_element_number
    if (reader.flag())
        reader.skip(3);  // matrix_mixdown_idx, pseudo_surround_enable
    uint32_t channels = lfe;
    for (uint32_t i = 0; i < front + side + back; ++i) {
        channels += reader.flag() ? 2 : 1;  // a pair
        reader.skip(4);
    }
    return reader.overrun() ? 0 : channels;
}

uint32_t readObjectType(BitReader& reader) {
    const uint32_t type = reader.bits(5);
    return type == kEscape ? 32 + reader.bits(6) : type;
}

uint32_t readSampleRate(BitReader& reader) {
    const uint32_t index = reader.bits(4);
    if (index == kExplicitRate)
        return reader.bits(24);
    return index < kSampleRates.size() ? kSampleRates[index] : 0;
}

// AudioSpecificConfig (1.6.2.1), as far as it is needed.
void readSpecificConfig(BitReader& reader, AudioFrame& frame) {
    uint32_t type = readObjectType(reader);
    frame.codedRate = readSampleRate(reader);
    frame.sampleRate = frame.codedRate;
    const uint32_t configuration = reader.bits(4);
    frame.channels = kChannels[configuration];
    frame.profile = aacProfileName(type);
    if (type == kSbr || type == kPs) {
        if (type == kPs && frame.channels == 1)
            frame.channels = 2;
        frame.sampleRate = readSampleRate(reader);
        type = readObjectType(reader);
    }
    if ((type < kAacMain || type > kAacLtp) && type != kAacScalable)
        return;
    // GASpecificConfig (4.4.1).
    if (reader.flag())  // frameLengthFlag
        frame.samples = kShortFrameSamples;
    if (reader.flag())  // dependsOnCoreCoder
        reader.skip(14);
    reader.skip(1);  // extensionFlag
    if (configuration == 0)
        frame.channels = readProgramConfig(reader);
}

uint32_t readLatmValue(BitReader& reader) {
    const uint32_t bytes = reader.bits(2) + 1;
    return reader.bits(bytes * 8);
}

// StreamMuxConfig (1.7.3.1) up to the configuration of the first layer of the first program.
void readStreamMuxConfig(BitReader& reader, AudioFrame& frame) {
    const bool version1 = reader.flag();
    if (version1) {
        if (reader.flag())  // audioMuxVersionA: not defined
            return;
        readLatmValue(reader);  // taraBufferFullness
    }
    reader.skip(1);  // allStreamsSameTimeFraming
    const uint32_t subFrames = reader.bits(6) + 1;
    reader.skip(4 + 3);  // numProgram, numLayer
    if (version1)
        readLatmValue(reader);  // ascLen
    readSpecificConfig(reader, frame);
    frame.samples *= subFrames;
}

}  // namespace

std::optional<AudioFrame> readAdtsFrame(Bytes head) {
    constexpr uint32_t kSyncWord = 0xFFF;
    constexpr uint32_t kProgramConfigElement = 5;
    BitReader reader(head);
    const bool sync = reader.bits(12) == kSyncWord;
    reader.skip(1);  // ID
    const uint32_t layer = reader.bits(2);
    const bool hasCrc = !reader.flag();
    const uint32_t profile = reader.bits(2);
    const uint32_t rateIndex = reader.bits(4);
    reader.skip(1);
    const uint32_t configuration = reader.bits(3);
    reader.skip(4);
    const uint32_t size = reader.bits(13);
    reader.skip(11);  // adts_buffer_fullness
    const uint32_t blocks = reader.bits(2);
    const uint32_t headerSize = hasCrc ? 9 : 7;
    if (!sync || layer != 0 || rateIndex >= kSampleRates.size() || size < kAudioSyncSize ||
        size < headerSize || reader.overrun())
        return std::nullopt;
    AudioFrame frame;
    frame.size = size;
    frame.samples = kFrameSamples * (blocks + 1);
    frame.codedRate = kSampleRates[rateIndex];
    frame.sampleRate = frame.codedRate;
    frame.channels = kChannels[configuration];
    frame.profile = aacProfileName(profile + 1);
    if (configuration == 0 && head.size() > headerSize) {
        reader.skip(hasCrc ? 16 : 0);
        if (reader.bits(3) == kProgramConfigElement)
            frame.channels = readProgramConfig(reader);
    }
    return frame;
}

std::optional<AudioFrame> readLoasFrame(Bytes head) {
    constexpr uint32_t kSyncWord = 0x2B7;
    constexpr uint32_t kSyncBytes = 3;
    BitReader reader(head);
    const bool sync = reader.bits(11) == kSyncWord;
    const uint32_t length = reader.bits(13);  // audioMuxLengthBytes
    if (!sync || length + kSyncBytes < kAudioSyncSize || reader.overrun())
        return std::nullopt;
    AudioFrame frame;
    frame.size = length + kSyncBytes;
    if (head.size() > kAudioSyncSize && !reader.flag()) {  // useSameStreamMux: nothing is said anew
        frame.samples = kFrameSamples;
        readStreamMuxConfig(reader, frame);
        if (reader.overrun()) {
            frame = {};
            frame.size = length + kSyncBytes;
        }
    }
    return frame;
}

}  // namespace meter
