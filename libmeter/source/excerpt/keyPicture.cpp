#include "excerpt/keyPicture.h"

#include <algorithm>

#include "media/startCodes.h"

namespace meter {

namespace {

constexpr std::size_t kStartCodeTail = 2;  // of a start code, in the piece before

// First bytes of units: start codes of H.262, nal_unit_type of H.264 (table 7-1) and of H.265 (table 7-1).
namespace mpeg2 {
constexpr uint8_t kPicture = 0x00;
constexpr uint8_t kSequenceHeader = 0xB3;
constexpr uint8_t kExtension = 0xB5;
constexpr uint8_t kSequenceEnd = 0xB7;
}  // namespace mpeg2
namespace h264 {
constexpr uint8_t kSei = 6;
constexpr uint8_t kSequenceSet = 7;
constexpr uint8_t kPictureSet = 8;
constexpr uint8_t kSequenceEnd = 10;
constexpr uint8_t kStreamEnd = 11;
constexpr uint8_t kSequenceSetExtension = 13;
constexpr uint8_t typeOf(uint8_t header) {
    return header & 0x1F;
}
}  // namespace h264
namespace h265 {
constexpr uint8_t kVideoSet = 32;
constexpr uint8_t kSequenceSet = 33;
constexpr uint8_t kPictureSet = 34;
constexpr uint8_t kSequenceEnd = 36;
constexpr uint8_t kStreamEnd = 37;
constexpr uint8_t kPrefixSei = 39;
constexpr uint8_t typeOf(uint8_t header) {
    return header >> 1 & 0x3F;
}
// nuh_layer_id.
bool isBaseLayer(Bytes unit) {
    return unit.size() >= 2 && (u16At(unit, 0) >> 3 & 0x3F) == 0;
}
}  // namespace h265

}  // namespace

KeyPicture::KeyPicture(ExcerptVideo codec) : codec_(codec) {
    if (codec == ExcerptVideo::kH264) {
        reader_.emplace<H264Reader>();
    } else if (codec == ExcerptVideo::kH265) {
        reader_.emplace<H265Reader>();
    }
}

KeyPicture::Unit KeyPicture::kindOf(uint8_t header) const {
    if (std::visit([header](const auto& reader) { return reader.isSlice(header); }, reader_)) {
        return Unit::kSlice;
    }
    if (codec_ == ExcerptVideo::kMpeg2) {
        switch (header) {
            case mpeg2::kSequenceHeader:
                return Unit::kSequenceSet;
            case mpeg2::kPicture:
                return Unit::kFront;
            case mpeg2::kExtension:
                return front_.empty() ? Unit::kSet : Unit::kFront;
            case mpeg2::kSequenceEnd:
                return Unit::kEnd;
            default:
                return Unit::kOther;
        }
    }
    if (codec_ == ExcerptVideo::kH264) {
        switch (h264::typeOf(header)) {
            case h264::kSequenceSet:
                return Unit::kSequenceSet;
            case h264::kPictureSet:
            case h264::kSequenceSetExtension:
                return Unit::kSet;
            case h264::kSei:
                return Unit::kFront;
            case h264::kSequenceEnd:
            case h264::kStreamEnd:
                return Unit::kEnd;
            default:
                return Unit::kOther;
        }
    }
    switch (h265::typeOf(header)) {
        case h265::kVideoSet:
        case h265::kSequenceSet:
            return Unit::kSequenceSet;
        case h265::kPictureSet:
            return Unit::kSet;
        case h265::kPrefixSei:
            return Unit::kFront;
        case h265::kSequenceEnd:
        case h265::kStreamEnd:
            return Unit::kEnd;
        default:
            return Unit::kOther;
    }
}

std::size_t KeyPicture::wanted(uint8_t header) const {
    return std::visit([header](const auto& reader) { return reader.wanted(header); }, reader_);
}

void KeyPicture::read(Bytes unit) {
    const Bytes head = unit.first(std::min(unit.size(), wanted(unit[0])));
    if (!head.empty()) {
        std::visit([head](auto& reader) { reader.unit(head); }, reader_);
    }
}

void KeyPicture::gap() {
    open_.clear();
    use_ = Use::kPassed;
    front_.clear();
    giveUp();
}

void KeyPicture::giveUp() {
    if (state_ == State::kTaking) {
        picture_.clear();
        state_ = State::kLooking;
    }
}

bool KeyPicture::awaitsField() const {
    return std::visit([](const auto& reader) { return reader.awaitsField(); }, reader_);
}

// Whether the slice that was read last, which begins no picture, keeps the open one from being intra coded.
bool KeyPicture::isPredicted() const {
    const auto* const reader = std::get_if<H264Reader>(&reader_);
    return reader != nullptr && (!paired_ || reader->awaitsField()) && reader->sliceType() != PictureType::kI;
}

void KeyPicture::feed(Bytes piece) {
    std::size_t from = open_.size() - std::min(open_.size(), kStartCodeTail);
    open_.insert(open_.end(), piece.begin(), piece.end());
    while (!isEnded()) {
        const std::size_t end = findStartCode(open_, from);
        if (end == open_.size()) {
            break;
        }
        closeUnit(Bytes(open_).first(end));
        open_.erase(open_.begin(), open_.begin() + static_cast<std::ptrdiff_t>(end + 3));
        use_ = Use::kOpen;
        from = 0;
    }
    if (!isEnded()) {
        lookAtHead();
    }
    if (isEnded()) {
        open_ = {};
        front_ = {};
        sets_.clear();
    } else if (use_ == Use::kPassed && open_.size() > kStartCodeTail) {
        open_.erase(open_.begin(), open_.end() - kStartCodeTail);
    }
}

// What is to become of the open unit, as soon as enough of it is there.
void KeyPicture::lookAtHead() {
    if (use_ == Use::kOpen && !open_.empty()) {
        const Unit kind = kindOf(open_[0]);
        if (kind == Unit::kSlice && open_.size() >= wanted(open_[0])) {
            beginSlice(open_);
        } else if (kind == Unit::kOther || open_.size() > kFrontBytes) {
            use_ = Use::kPassed;
        }
    }
    if (use_ == Use::kKept && picture_.size() + open_.size() > kExcerptVideoBytes) {
        picture_ = {};
        state_ = State::kTooLarge;
    }
}

void KeyPicture::closeUnit(Bytes unit) {
    // trailing_zero_8bits, and zero_byte of the start code behind. NAL units end with no such byte, headers
    // of H.262 may.
    while (codec_ != ExcerptVideo::kMpeg2 && !unit.empty() && unit.back() == 0) {
        unit = unit.first(unit.size() - 1);
    }
    if (unit.empty()) {
        return;
    }
    if (use_ == Use::kKept) {
        append(unit);
        return;
    }
    if (use_ == Use::kPassed) {
        return;
    }
    switch (kindOf(unit[0])) {
        case Unit::kSlice:
            beginSlice(unit);
            if (use_ == Use::kKept) {
                append(unit);
            }
            break;
        case Unit::kSequenceSet:
            keepSet(unit, true);
            break;
        case Unit::kSet:
            keepSet(unit, false);
            break;
        case Unit::kFront:
            keepFront(unit);
            break;
        case Unit::kEnd:
            if (awaitsField()) {
                giveUp();
            } else if (state_ == State::kTaking) {
                state_ = State::kWhole;
            }
            break;
        case Unit::kOther:
            break;
    }
}

void KeyPicture::append(Bytes unit) {
    constexpr std::string_view kStartCode("\0\0\0\1", 4);
    if (picture_.size() + kStartCode.size() + unit.size() > kExcerptVideoBytes) {
        picture_ = {};
        state_ = State::kTooLarge;
        return;
    }
    picture_ += kStartCode;
    picture_.append(reinterpret_cast<const char*>(unit.data()), unit.size());
}

void KeyPicture::beginSlice(Bytes head) {
    const bool isHalf = awaitsField();
    read(head);
    const std::optional<PictureStart> began = std::visit(
        [](auto& reader) {
            reader.takeSlice();
            return reader.takePicture();
        },
        reader_);
    sliceSinceSets_ = true;
    if (state_ == State::kTaking && (began ? isHalf : isPredicted())) {
        giveUp();
    }
    if (began && state_ == State::kTaking) {
        state_ = State::kWhole;
        return;
    }
    if (began && began->type == PictureType::kI && setsAreComplete() &&
        (codec_ != ExcerptVideo::kH265 || began->randomAccess)) {
        state_ = State::kTaking;
        paired_ = awaitsField();
        picture_.clear();
        for (const std::vector<uint8_t>& set : sets_) {
            append(set);
        }
    }
    const bool keeps = state_ == State::kTaking && (codec_ != ExcerptVideo::kH265 || h265::isBaseLayer(head));
    if (keeps) {
        picture_ += front_;
    }
    front_.clear();
    use_ = keeps ? Use::kKept : Use::kPassed;
}

void KeyPicture::keepSet(Bytes unit, bool sequence) {
    if (codec_ == ExcerptVideo::kH265 && !h265::isBaseLayer(unit)) {
        return;
    }
    read(unit);
    // A stream that repeats its sets tells all of them before the next slice.
    if (sequence && sliceSinceSets_) {
        sets_.clear();
        setsBytes_ = 0;
        sliceSinceSets_ = false;
    }
    const auto known =
        std::ranges::find_if(sets_, [unit](const auto& set) { return std::ranges::equal(set, unit); });
    if (known == sets_.end() && setsBytes_ + unit.size() <= kFrontBytes) {
        setsBytes_ += unit.size();
        sets_.emplace_back(unit.begin(), unit.end());
        // The second field's own.
        if (state_ == State::kTaking && awaitsField()) {
            append(unit);
        }
    }
}

void KeyPicture::keepFront(Bytes unit) {
    read(unit);
    if (codec_ == ExcerptVideo::kMpeg2 && unit[0] == mpeg2::kPicture) {
        front_.clear();
    }
    if (front_.size() + unit.size() <= kFrontBytes) {
        front_ += std::string_view("\0\0\0\1", 4);
        front_.append(reinterpret_cast<const char*>(unit.data()), unit.size());
    }
}

bool KeyPicture::setsAreComplete() const {
    const auto has = [this](auto matches) {
        return std::ranges::any_of(sets_, [&](const auto& set) { return matches(set[0]); });
    };
    switch (codec_) {
        case ExcerptVideo::kMpeg2:
            return has([](uint8_t header) { return header == mpeg2::kSequenceHeader; });
        case ExcerptVideo::kH264:
            return has([](uint8_t header) { return h264::typeOf(header) == h264::kSequenceSet; }) &&
                   has([](uint8_t header) { return h264::typeOf(header) == h264::kPictureSet; });
        case ExcerptVideo::kH265:
            return has([](uint8_t header) { return h265::typeOf(header) == h265::kSequenceSet; }) &&
                   has([](uint8_t header) { return h265::typeOf(header) == h265::kPictureSet; });
    }
    return false;
}

}  // namespace meter
