// ITU-T H.264: what sequence parameter sets, SEI messages and slice headers tell without decoding.
#pragma once

#include <array>
#include <optional>
#include <utility>

#include "fields/bytes.h"
#include "media/videoFormat.h"

namespace meter {

// Reads one stream's NAL units as StartCodeScanner finds them.
class H264Reader {
  public:
    std::size_t wanted(uint8_t header) const;
    // Whether a unit with this first byte may be the last one of a PES packet.
    bool isSlice(uint8_t header) const;
    void unit(Bytes unit);

    // What the latest sequence parameter set says.
    const std::optional<VideoFormat>& format() const {
        return format_;
    }
    // The picture that began, once; second fields begin none.
    std::optional<PictureStart> takePicture() {
        return std::exchange(picture_, std::nullopt);
    }
    // Whether a slice was read since the last call.
    bool takeSlice() {
        return std::exchange(slice_, false);
    }
    // The picture that began last is a field, whose other one has not begun.
    bool awaitsField() const {
        return firstField_.has_value();
    }
    // Of the slice that was read last; none: it cannot be read.
    std::optional<PictureType> sliceType() const {
        return sliceType_;
    }

  private:
    static constexpr std::size_t kSequenceSets = 32;
    static constexpr std::size_t kPictureSets = 256;
    static constexpr uint8_t kUnknown = 0xFF;

    struct SequenceSet {
        uint8_t frameNumberBits = 0;  // 0: not known
        bool frameMbsOnly = true;
        bool separateColourPlanes = false;
    };
    struct Field {
        uint32_t frameNumber;
        bool bottom;
    };

    void readSequenceSet(Bytes unit);
    void readPictureSet(Bytes unit);
    void readSei(Bytes unit);
    void readSlice(Bytes unit);
    bool isSecondField(const std::optional<Field>& field);

    std::array<SequenceSet, kSequenceSets> sequenceSets_{};
    std::array<uint8_t, kPictureSets> sequenceOf_ = [] {
        std::array<uint8_t, kPictureSets> none;
        none.fill(kUnknown);
        return none;
    }();
    std::optional<VideoFormat> format_;
    std::optional<uint8_t> preferredTransfer_;  // of a SEI message
    std::optional<PictureStart> picture_;
    std::optional<Field> firstField_;  // that waits for its second one
    bool recoveryPoint_ = false;       // a SEI message says so of the next picture
    std::optional<PictureType> sliceType_;
    bool slice_ = false;
};

}  // namespace meter
