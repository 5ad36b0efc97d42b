// What kestor-picture and its workers say to each other over a socket: a request and its answer, in turn, as
// the machine has these structures, since both are one program. A worker may have been taken over by what it
// decodes: AnswerReader believes nothing that it says.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>

#include "pictureLimits.h"

namespace pictured {

inline constexpr int kRasterWidth = 64;  // what two pictures are compared by
inline constexpr int kRasterHeight = 36;
using Raster =
    std::array<uint8_t, std::size_t{kRasterWidth} * kRasterHeight>;  // luma, row by row from the top

// What is longer or higher is no picture for a viewer, and is not decoded.
inline constexpr uint32_t kSideLimit = 8192;
inline constexpr uint64_t kSamplesLimit = uint64_t{4096} * 2304;  // luma samples of a picture

inline constexpr int kWorkerSocket = 3;   // a worker's descriptor
inline constexpr int kCannotLockUp = 78;  // status of a worker that ends since it cannot give up its rights
inline constexpr uint32_t kRequestMark = 0x4B505231;
inline constexpr uint32_t kAnswerMark = 0x4B504131;

// Followed by the coded picture and the coded sound. Codecs as picturing::VideoCodec and AudioCodec; 0 with
// no bytes.
struct RequestHead {
    uint32_t mark = kRequestMark;
    uint32_t videoCodec = 0;
    uint32_t videoBytes = 0;
    uint32_t audioCodec = 0;
    uint32_t audioBytes = 0;
};

enum class PictureVerdict : uint32_t {
    kNone,  // none was asked for
    kDecoded,
    kDamaged,      // the decoder made nothing of it
    kTooLarge,     // beyond kSideLimit or kSamplesLimit
    kUnknownKind,  // of samples: more than the scaler takes
};
inline constexpr uint32_t kPictureVerdicts = 5;

enum class SoundVerdict : uint32_t {
    kNone,
    kMeasured,
    kDamaged,   // nothing of it could be decoded
    kTooShort,  // less than 400 ms could
};
inline constexpr uint32_t kSoundVerdicts = 4;

// Followed, with kDecoded, by the raster and the JPEG.
struct AnswerHead {
    uint32_t mark = kAnswerMark;
    PictureVerdict picture = PictureVerdict::kNone;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t whole = 0;  // 0: the decoder made parts of the picture up, or left them out
    uint32_t jpegBytes = 0;
    float lumaMean = 0;
    float lumaSpread = 0;
    SoundVerdict sound = SoundVerdict::kNone;
    float loudness = 0;
};

struct Answer {
    AnswerHead head;
    Raster raster{};
    std::string jpeg;
};

// The worker said what no worker says; what() continues "the worker ".
struct Untrustworthy : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Takes an answer's bytes as they come. Holds no more than one answer (35 KiB) and what came with one call.
class AnswerReader {
  public:
    // The answer once it is whole. Throws Untrustworthy for sizes, figures or a JPEG that cannot be, and for
    // bytes behind the answer; nothing more is to be given to it then.
    std::optional<Answer> add(std::string_view bytes);

  private:
    std::string bytes_;
};

// A baseline JPEG from its first marker to its last, with tables, one frame of at most kShotWidth by
// kShotHeight in one or three components, and one scan: what a worker makes. Segments of other kinds are not
// let through to people's browsers.
bool isPlainJpeg(std::string_view bytes);

}  // namespace pictured
