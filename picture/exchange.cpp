#include "exchange.h"

#include <cmath>
#include <cstring>
#include <type_traits>

namespace pictured {

namespace {

static_assert(std::is_trivially_copyable_v<RequestHead> && std::is_trivially_copyable_v<AnswerHead>);

constexpr float kLoudnessHighest = 40;

bool within(float value, float least, float most) {
    return value >= least && value <= most;  // false for what is no number
}

void check(const AnswerHead& head) {
    const auto number = [](auto verdict) { return static_cast<uint32_t>(verdict); };
    if (head.mark != kAnswerMark || number(head.picture) >= kPictureVerdicts ||
        number(head.sound) >= kSoundVerdicts) {
        throw Untrustworthy("sent what is no answer");
    }
    if (head.picture == PictureVerdict::kDecoded) {
        if (head.width == 0 || head.width > kSideLimit || head.height == 0 || head.height > kSideLimit ||
            uint64_t{head.width} * head.height > kSamplesLimit) {
            throw Untrustworthy("sent a size that no picture has");
        }
        if (head.jpegBytes == 0 || head.jpegBytes > picturing::kJpegBytes) {
            throw Untrustworthy("sent a JPEG beyond its limit");
        }
        if (!within(head.lumaMean, 0, 255) || !within(head.lumaSpread, 0, 255)) {
            throw Untrustworthy("sent figures that no picture has");
        }
    } else if (head.jpegBytes != 0) {
        throw Untrustworthy("sent a JPEG of no picture");
    }
    if (head.sound == SoundVerdict::kMeasured &&
        !within(head.loudness, static_cast<float>(picturing::kSilenceLufs), kLoudnessHighest)) {
        throw Untrustworthy("sent a loudness that no sound has");
    }
}

// Bytes of a JPEG, most significant first.
class Segments {
  public:
    explicit Segments(std::string_view bytes) : bytes_(bytes) {}

    std::optional<unsigned> byte() {
        if (bytes_.empty()) {
            return std::nullopt;
        }
        const auto value = static_cast<uint8_t>(bytes_.front());
        bytes_.remove_prefix(1);
        return value;
    }
    // What follows a marker with a length.
    std::optional<std::string_view> segment() {
        const auto high = byte();
        const auto low = byte();
        if (!low) {
            return std::nullopt;
        }
        const std::size_t length = *high << 8 | *low;
        if (length < 2 || length - 2 > bytes_.size()) {
            return std::nullopt;
        }
        const std::string_view content = bytes_.substr(0, length - 2);
        bytes_.remove_prefix(length - 2);
        return content;
    }
    std::string_view rest() const {
        return bytes_;
    }

  private:
    std::string_view bytes_;
};

unsigned at(std::string_view bytes, std::size_t index) {
    return static_cast<uint8_t>(bytes[index]);
}

// ITU-T T.81, B.2.2: precision, lines, samples per line, components.
bool isPlainFrame(std::string_view frame) {
    if (frame.size() < 6 || at(frame, 0) != 8) {
        return false;
    }
    const unsigned height = at(frame, 1) << 8 | at(frame, 2);
    const unsigned width = at(frame, 3) << 8 | at(frame, 4);
    const unsigned components = at(frame, 5);
    return height >= 1 && height <= unsigned{picturing::kShotHeight} && width >= 1 &&
           width <= unsigned{picturing::kShotWidth} && (components == 1 || components == 3) &&
           frame.size() == 6 + std::size_t{3} * components;
}

// Entropy-coded data to the end of the image: no marker in it but restarts and the last.
bool isPlainScan(std::string_view data) {
    for (std::size_t i = 0; i + 1 < data.size(); ++i) {
        if (at(data, i) == 0xFF && at(data, i + 1) != 0) {
            return at(data, i + 1) == 0xD9 && i + 2 == data.size() && i > 0;
        }
    }
    return false;
}

}  // namespace

bool isPlainJpeg(std::string_view bytes) {
    // ITU-T T.81, table B.1.
    constexpr unsigned kStart = 0xD8, kFrame = 0xC0, kHuffman = 0xC4, kQuantization = 0xDB, kScan = 0xDA,
                       kJfif = 0xE0;
    Segments segments(bytes);
    if (segments.byte() != 0xFFU || segments.byte() != kStart) {
        return false;
    }
    bool frame = false;
    for (;;) {
        if (segments.byte() != 0xFFU) {
            return false;
        }
        const auto marker = segments.byte();
        const auto content = segments.segment();
        if (!marker || !content) {
            return false;
        }
        switch (*marker) {
            case kFrame:
                if (frame || !isPlainFrame(*content)) {
                    return false;
                }
                frame = true;
                break;
            case kScan:
                return frame && isPlainScan(segments.rest());
            case kHuffman:
            case kQuantization:
            case kJfif:
                break;
            default:
                return false;
        }
    }
}

std::optional<Answer> AnswerReader::add(std::string_view bytes) {
    bytes_ += bytes;
    Answer answer;
    if (bytes_.size() < sizeof answer.head) {
        return std::nullopt;
    }
    std::memcpy(&answer.head, bytes_.data(), sizeof answer.head);
    check(answer.head);
    const bool decoded = answer.head.picture == PictureVerdict::kDecoded;
    const std::size_t size =
        sizeof answer.head + (decoded ? answer.raster.size() + answer.head.jpegBytes : 0);
    if (bytes_.size() > size) {
        throw Untrustworthy("said more than its answer");
    }
    if (bytes_.size() < size) {
        return std::nullopt;
    }
    if (decoded) {
        std::memcpy(answer.raster.data(), bytes_.data() + sizeof answer.head, answer.raster.size());
        answer.jpeg = bytes_.substr(sizeof answer.head + answer.raster.size());
        if (!isPlainJpeg(answer.jpeg)) {
            throw Untrustworthy("sent what is no JPEG");
        }
    }
    bytes_.clear();
    return answer;
}

}  // namespace pictured
