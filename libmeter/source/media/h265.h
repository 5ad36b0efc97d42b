// ITU-T H.265: what parameter sets, SEI messages and slice segment headers tell without decoding.
#pragma once

#include <array>
#include <optional>
#include <utility>

#include "fields/bytes.h"
#include "media/videoFormat.h"

namespace meter {

// Reads one stream's NAL units of the base layer as StartCodeScanner finds them.
class H265Reader {
  public:
    std::size_t wanted(uint8_t header) const;
    // Whether a unit with this first byte may be the last one of a PES packet.
    bool isSlice(uint8_t header) const;
    void unit(Bytes unit);

    const std::optional<VideoFormat>& format() const {
        return format_;
    }
    std::optional<PictureStart> takePicture() {
        return std::exchange(picture_, std::nullopt);
    }
    bool takeSlice() {
        return std::exchange(slice_, false);
    }
    // Fields are pictures of their own.
    static constexpr bool awaitsField() {
        return false;
    }

  private:
    static constexpr std::size_t kPictureSets = 64;

    void readVideoSet(Bytes unit);
    void readSequenceSet(Bytes unit);
    void readPictureSet(Bytes unit);
    void readSei(Bytes unit);
    void readSlice(Bytes unit);

    std::array<uint8_t, kPictureSets> extraSliceBits_{};  // num_extra_slice_header_bits
    std::optional<VideoFormat> format_;
    Ratio videoSetRate_;  // where the sequence parameter set has no timing
    std::optional<uint8_t> preferredTransfer_;
    std::optional<PictureStart> picture_;
    bool slice_ = false;
};

}  // namespace meter
