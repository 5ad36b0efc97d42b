// ITU-T H.262 (MPEG-2 video): what headers tell without decoding.
#pragma once

#include <optional>
#include <utility>

#include "fields/bytes.h"
#include "media/videoFormat.h"

namespace meter {

// Reads one stream's units behind start codes as StartCodeScanner finds them.
class Mpeg2Reader {
  public:
    std::size_t wanted(uint8_t startCode) const;
    // Whether a unit with this first byte may be the last one of a PES packet.
    bool isSlice(uint8_t startCode) const;
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
    // The picture that began last is a field, whose other one has not begun.
    bool awaitsField() const {
        return firstField_.has_value();
    }

  private:
    struct Header {  // of a picture, until what follows it says how it is coded
        PictureType type;
        uint32_t temporalReference;
        uint32_t structure;
    };

    void readSequence(Bytes unit);
    void readExtension(Bytes unit);
    void readSequenceExtension(Bytes unit);
    void readDisplayExtension(Bytes unit);
    void readPicture(Bytes unit);
    void endHeaders();
    void updateFormat();

    // Of the sequence header and its extensions.
    VideoFormat sequence_;
    Ratio headerRate_;           // of the header alone: an extension may come again
    uint32_t aspect_ = 0;        // aspect_ratio_information
    uint32_t displayWidth_ = 0;  // 0: as coded
    uint32_t displayHeight_ = 0;

    std::optional<VideoFormat> format_;
    std::optional<Header> header_;
    std::optional<Header> firstField_;  // that waits for its second one
    std::optional<PictureStart> picture_;
    bool sequenceHeader_ = false;  // in front of the next picture
    bool closedGroup_ = false;     // its group of pictures is closed
    bool slice_ = false;
};

}  // namespace meter
