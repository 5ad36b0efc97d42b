// A piece of what a channel carries, still coded, for whoever decodes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace meter {

enum class ExcerptOutcome : uint8_t {
    kTaken,             // there is a picture
    kNoPackets,         // nothing came
    kScrambled,         // the video is
    kNoVideo,           // no service has any, or none came
    kNoRandomAccess,    // no whole I picture with its parameter sets came
    kTooLarge,          // the picture is beyond kExcerptVideoBytes
    kUnsupportedCodec,  // none of ExcerptVideo
};

enum class ExcerptVideo : uint8_t { kMpeg2, kH264, kH265 };
enum class ExcerptAudio : uint8_t { kMpeg, kAacAdts, kAacLatm, kAc3, kEac3 };

inline constexpr std::size_t kExcerptVideoBytes = std::size_t{4} * 1024 * 1024;
inline constexpr std::size_t kExcerptAudioBytes = std::size_t{1024} * 1024;

template <typename Codec>
struct ExcerptStream {
    Codec codec{};
    std::string data;
};

struct Excerpt {
    ExcerptOutcome outcome = ExcerptOutcome::kNoPackets;
    // The picture of a random access point, both of its fields where it has two, with parameter sets or
    // sequence header in front, as a byte stream with start codes. With kTaken alone.
    std::optional<ExcerptStream<ExcerptVideo>> video;
    // About two seconds of PES payload, beginning with a PES packet's; frames may be cut at both ends. Where
    // it was wanted and there is some, whatever the outcome.
    std::optional<ExcerptStream<ExcerptAudio>> audio;
    int64_t wall =
        0;  // when the picture's last packet arrived, ns since the Unix epoch; without one, when it ended
};

}  // namespace meter
