#include "media/mpeg2Video.h"

#include <iterator>
#include <numeric>

#include "fields/bitReader.h"
#include "media/profileNames.h"

namespace meter {
namespace {

enum StartCode : uint8_t {
    kPicture = 0x00,
    kFirstSlice = 0x01,
    kLastSlice = 0xAF,
    kSequenceHeader = 0xB3,
    kExtension = 0xB5,
    kGroup = 0xB8,
};

enum Extension : uint8_t { kSequenceExtension = 1, kDisplayExtension = 2, kPictureCodingExtension = 8 };

constexpr uint32_t kFramePicture = 3;

// Table 6-4.
constexpr Ratio kFrameRates[] = {{},      {24000, 1001}, {24, 1},       {25, 1}, {30000, 1001},
                                 {30, 1}, {50, 1},       {60000, 1001}, {60, 1}};

// Table 6-3: 1 square samples, else the aspect of the display.
constexpr Ratio kDisplayAspects[] = {{}, {}, {4, 3}, {16, 9}, {221, 100}};
constexpr uint32_t kSquare = 1;

Ratio reduced(uint64_t numerator, uint64_t denominator) {
    if (numerator == 0 || denominator == 0)
        return {};
    const uint64_t divisor = std::gcd(numerator, denominator);
    return {static_cast<uint32_t>(numerator / divisor), static_cast<uint32_t>(denominator / divisor)};
}

BitReader behindStartCode(Bytes unit) {
    BitReader reader(unit);
    reader.skip(8);
    return reader;
}

}  // namespace

std::size_t Mpeg2Reader::wanted(uint8_t startCode) const {
    switch (startCode) {
        case kPicture:
        case kGroup:
            return 5;
        case kSequenceHeader:
            return 8;
        case kExtension:
            return 12;
        default:
            return startCode <= kLastSlice ? 1 : 0;
    }
}

bool Mpeg2Reader::isSlice(uint8_t startCode) const {
    return startCode >= kFirstSlice && startCode <= kLastSlice;
}

void Mpeg2Reader::unit(Bytes unit) {
    constexpr std::size_t kLeastHeader = 5;
    const uint8_t startCode = u8At(unit, 0);
    if (isSlice(startCode)) {
        slice_ = true;
        endHeaders();
        return;
    }
    if (unit.size() < kLeastHeader)
        return;
    if (startCode == kSequenceHeader) {
        readSequence(unit);
    } else if (startCode == kGroup) {
        closedGroup_ = (unit[4] & 0x40) != 0;  // behind 25 bits of time_code
    } else if (startCode == kPicture) {
        readPicture(unit);
    } else {
        readExtension(unit);
    }
}

void Mpeg2Reader::readSequence(Bytes unit) {
    BitReader reader = behindStartCode(unit);
    VideoFormat format;
    format.width = reader.bits(12);
    format.height = reader.bits(12);
    aspect_ = reader.bits(4);
    const uint32_t rate = reader.bits(4);
    if (reader.overrun() || rate >= std::size(kFrameRates))
        return;
    format.frameRate = headerRate_ = kFrameRates[rate];
    displayWidth_ = 0;
    displayHeight_ = 0;
    sequence_ = format;
    sequenceHeader_ = true;
}

void Mpeg2Reader::readExtension(Bytes unit) {
    switch (unit[1] >> 4) {
        case kSequenceExtension:
            readSequenceExtension(unit);
            break;
        case kDisplayExtension:
            readDisplayExtension(unit);
            break;
        case kPictureCodingExtension:
            if (header_)
                header_->structure = unit[3] & 0x03;  // behind four f_codes and intra_dc_precision
            break;
        default:
            break;
    }
}

void Mpeg2Reader::readSequenceExtension(Bytes unit) {
    BitReader reader = behindStartCode(unit);
    reader.skip(4 + 1);  // identifier, escape bit
    const uint32_t profile = reader.bits(3);
    const uint32_t level = reader.bits(4);
    const bool progressive = reader.flag();
    const uint32_t chroma = reader.bits(2);
    const uint32_t widthHigh = reader.bits(2);
    const uint32_t heightHigh = reader.bits(2);
    reader.skip(12 + 1 + 8 + 1);  // bit rate, marker, buffer, low_delay
    const uint32_t numerator = reader.bits(2) + 1;
    const uint32_t denominator = reader.bits(5) + 1;
    if (reader.overrun())
        return;
    sequence_.profile = mpeg2ProfileName(profile);
    sequence_.level = level;
    sequence_.interlaced = !progressive;
    sequence_.chroma = static_cast<uint8_t>(chroma);
    sequence_.width = (sequence_.width & 0xFFF) | widthHigh << 12;
    sequence_.height = (sequence_.height & 0xFFF) | heightHigh << 12;
    sequence_.frameRate =
        reduced(uint64_t{headerRate_.numerator} * numerator, uint64_t{headerRate_.denominator} * denominator);
}

void Mpeg2Reader::readDisplayExtension(Bytes unit) {
    BitReader reader = behindStartCode(unit);
    reader.skip(4 + 3);  // identifier, video_format
    if (reader.flag()) {
        sequence_.primaries = static_cast<uint8_t>(reader.bits(8));
        sequence_.transfer = static_cast<uint8_t>(reader.bits(8));
        reader.skip(8);
    }
    const uint32_t width = reader.bits(14);
    reader.skip(1);
    const uint32_t height = reader.bits(14);
    if (!reader.overrun()) {
        displayWidth_ = width;
        displayHeight_ = height;
    }
}

void Mpeg2Reader::readPicture(Bytes unit) {
    BitReader reader = behindStartCode(unit);
    const uint32_t temporalReference = reader.bits(10);
    const uint32_t type = reader.bits(3);
    constexpr uint32_t kPredicted = 2;
    constexpr uint32_t kBidirectional = 3;
    header_ = Header{type == kPredicted       ? PictureType::kP
                     : type == kBidirectional ? PictureType::kB
                                              : PictureType::kI,
                     temporalReference, kFramePicture};
}

// The first slice: all headers of the picture came.
void Mpeg2Reader::endHeaders() {
    const std::optional<Header> header = std::exchange(header_, std::nullopt);
    if (!header)
        return;
    const bool isField = header->structure != kFramePicture && header->structure != 0;
    const std::optional<Header> first = std::exchange(firstField_, isField ? header : std::nullopt);
    if (isField && first && first->temporalReference == header->temporalReference &&
        first->structure != header->structure) {
        firstField_.reset();
        return;
    }
    if (sequenceHeader_)
        updateFormat();
    const bool intra = header->type == PictureType::kI;
    picture_ = PictureStart{.type = header->type,
                            .closed = intra && closedGroup_,
                            .randomAccess = intra && (closedGroup_ || sequenceHeader_)};
    closedGroup_ = false;
    sequenceHeader_ = false;
}

void Mpeg2Reader::updateFormat() {
    VideoFormat format = sequence_;
    if (format.width == 0 || format.height == 0)
        return;
    const uint32_t width = displayWidth_ != 0 ? displayWidth_ : format.width;
    const uint32_t height = displayHeight_ != 0 ? displayHeight_ : format.height;
    if (aspect_ == kSquare)
        format.pixelAspect = {1, 1};
    else if (aspect_ < std::size(kDisplayAspects))
        format.pixelAspect = reduced(uint64_t{kDisplayAspects[aspect_].numerator} * height,
                                     uint64_t{kDisplayAspects[aspect_].denominator} * width);
    format_ = format;
}

}  // namespace meter
