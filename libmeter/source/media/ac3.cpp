#include <array>
#include <bit>

#include "fields/bitReader.h"
#include "media/audioFrame.h"

namespace meter {
namespace {

constexpr uint32_t kSyncWord = 0x0B77;
constexpr uint32_t kLastAc3Id = 10;  // bsid; above it is E-AC-3 (annex E)
constexpr uint32_t kLastEac3Id = 16;
constexpr std::array<uint32_t, 3> kSampleRates = {48000, 44100, 32000};  // fscod
constexpr std::array<uint16_t, 19> kBitrates = {32,  40,  48,  56,  64,  80,  96,  112, 128, 160,
                                                192, 224, 256, 320, 384, 448, 512, 576, 640};  // kbit/s
constexpr uint32_t kBlockSamples = 256;
constexpr uint32_t kBlocks = 6;
constexpr uint32_t kSampleRateReserved = 3;

// Loudspeakers as chanmap (E.1.3.1.8) has them, the first one at bit 15.
constexpr uint32_t kLeft = 0x8000;
constexpr uint32_t kCentre = 0x4000;
constexpr uint32_t kRight = 0x2000;
constexpr uint32_t kLeftSurround = 0x1000;
constexpr uint32_t kRightSurround = 0x0800;
constexpr uint32_t kPairs = 0x0400 | 0x0200 | 0x0040 | 0x0020 | 0x0010 | 0x0004;  // places of two each
constexpr uint32_t kCentreSurround = 0x0100;
constexpr uint32_t kLfe = 0x0001;
constexpr std::array<uint32_t, 8> kPlaces = {
    kLeft | kRight,  // two programs
    kCentre,
    kLeft | kRight,
    kLeft | kCentre | kRight,
    kLeft | kRight | kCentreSurround,
    kLeft | kCentre | kRight | kCentreSurround,
    kLeft | kRight | kLeftSurround | kRightSurround,
    kLeft | kCentre | kRight | kLeftSurround | kRightSurround,
};  // acmod

// syncinfo and bsi (5.3.1, 5.3.2) behind the sync word.
std::optional<AudioFrame> readAc3(Bytes head) {
    BitReader reader(head);
    reader.skip(16 + 16);  // syncword, crc1
    const uint32_t rateCode = reader.bits(2);
    const uint32_t sizeCode = reader.bits(6);
    const uint32_t id = reader.bits(5);
    reader.skip(3);  // bsmod
    const uint32_t mode = reader.bits(3);
    if ((mode & 1) != 0 && mode != 1)
        reader.skip(2);  // cmixlev
    if ((mode & 4) != 0)
        reader.skip(2);  // surmixlev
    if (mode == 2)
        reader.skip(2);  // dsurmod
    const bool lfe = reader.flag();
    if (rateCode >= kSampleRates.size() || sizeCode / 2 >= kBitrates.size())
        return std::nullopt;
    const uint32_t kbps = kBitrates[sizeCode / 2];
    // Words of 16 bits in the 1536 samples of a frame; at 44.1 kHz every second size has one more.
    uint32_t words = kbps * 1000 * 96 / kSampleRates[rateCode];
    if (kSampleRates[rateCode] == 44100)
        words += sizeCode & 1;
    const uint32_t halvings = id > 8 ? id - 8 : 0;  // half and quarter rates
    AudioFrame frame;
    frame.size = words * 2;
    frame.samples = kBlocks * kBlockSamples;
    frame.codedRate = kSampleRates[rateCode] >> halvings;
    frame.sampleRate = frame.codedRate;
    frame.bitrate = kbps * 1000 >> halvings;
    frame.places = kPlaces[mode] | (lfe ? kLfe : 0);
    frame.channels = countLoudspeakers(frame.places);
    return frame;
}

// bsi of annex E up to chanmap.
std::optional<AudioFrame> readEac3(Bytes head) {
    constexpr uint32_t kDependent = 1;
    constexpr uint32_t kReservedType = 3;
    constexpr std::array<uint32_t, 4> kBlockCounts = {1, 2, 3, 6};
    BitReader reader(head);
    reader.skip(16);
    const uint32_t type = reader.bits(2);
    const uint32_t substream = reader.bits(3);
    AudioFrame frame;
    frame.size = (reader.bits(11) + 1) * 2;
    const uint32_t rateCode = reader.bits(2);
    const uint32_t second = reader.bits(2);  // numblkscod, or fscod2
    const bool reduced = rateCode == kSampleRateReserved;
    const uint32_t mode = reader.bits(3);
    const bool lfe = reader.flag();
    if (type == kReservedType || (reduced && second >= kSampleRates.size()))
        return std::nullopt;
    frame.samples = (reduced ? kBlocks : kBlockCounts[second]) * kBlockSamples;
    frame.codedRate = reduced ? kSampleRates[second] / 2 : kSampleRates[rateCode];
    frame.sampleRate = frame.codedRate;
    frame.places = kPlaces[mode] | (lfe ? kLfe : 0);
    // Other independent substreams are other programs; what they bring is not heard with the first one.
    frame.continues = type == kDependent || substream != 0;
    if (type != kDependent && substream != 0)
        frame.places = 0;
    if (type == kDependent) {
        reader.skip(5 + 5);  // bsid, dialnorm
        if (reader.flag())
            reader.skip(8);  // compr
        if (mode == 0) {
            reader.skip(5);
            if (reader.flag())
                reader.skip(8);
        }
        if (reader.flag())  // chanmape
            frame.places = reader.bits(16);
    }
    frame.channels = countLoudspeakers(frame.places);
    return frame;
}

}  // namespace

uint32_t countLoudspeakers(uint32_t places) {
    return static_cast<uint32_t>(std::popcount(places) + std::popcount(places & kPairs));
}

std::optional<AudioFrame> readAc3Frame(Bytes head) {
    if (head.size() < kAudioSyncSize || u16At(head, 0) != kSyncWord)
        return std::nullopt;
    const uint32_t id = head[5] >> 3U;  // bsid, at the same place in both
    if (id > kLastEac3Id)
        return std::nullopt;
    const auto frame = id <= kLastAc3Id ? readAc3(head) : readEac3(head);
    return frame && frame->size >= kAudioSyncSize ? frame : std::nullopt;
}

}  // namespace meter
