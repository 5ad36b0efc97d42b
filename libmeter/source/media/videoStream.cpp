#include "media/videoStream.h"

#include <algorithm>
#include <string>
#include <utility>

#include "media/profileNames.h"
#include "media/timeStamps.h"

namespace meter {
namespace {

// The first PES packets are looked through and those behind one with several pictures, then each
// kLookInterval-th one.
constexpr uint32_t kLookInterval = 64;
// PES packets of several pictures until all are looked through, and of single ones until that ends: damage
// makes one look like the other now and then.
constexpr uint32_t kSeveralUnits = 2;
constexpr uint32_t kSingleUnits = 64;

// Frame rates beyond are a time base and not a rate.
constexpr double kFrameRateLimit = 300;

std::optional<std::string> text(std::string_view name) {
    return name.empty() ? std::nullopt : std::optional<std::string>(name);
}

bool beginsWithStartCode(Bytes payload) {
    return u24At(payload, 0) == 1 || u32At(payload, 0) == 1;
}

}  // namespace

// Hands a codec's reader to the scanner and its pictures to the stream.
template <typename Reader>
struct VideoStream::Guide {
    VideoStream& stream;
    Reader& reader;
    bool ending = false;  // the open unit ends with its PES packet, or with a gap behind it

    std::size_t wanted(uint8_t first) const {
        return reader.wanted(first);
    }
    void unit(Bytes unit) {
        if (ending && !reader.isSlice(unit[0]))
            return;
        reader.unit(unit);
        if (const auto picture = reader.takePicture())
            stream.addPicture(*picture);
        stream.sliceSeen_ |= reader.takeSlice();
    }
    bool done() const {
        return stream.sliceSeen_ && !stream.throughout_;
    }
};

VideoStream::VideoStream(Codec codec) {
    if (codec == Codec::kH264)
        reader_.emplace<H264Reader>();
    else if (codec == Codec::kH265)
        reader_.emplace<H265Reader>();
}

template <typename Use>
void VideoStream::visitReader(Use use) {
    std::visit(
        [this, &use]<typename Reader>(Reader& reader) {
            Guide<Reader> guide{*this, reader, false};
            use(guide);
        },
        reader_);
}

bool VideoStream::feed(bool start, bool randomAccess, Bytes payload, std::optional<Ticks> dts) {
    if (start)
        beginUnit(randomAccess, payload, dts);
    if (ended_)
        return false;
    visitReader([this, payload](auto& guide) {
        scanner_.feed(payload, guide);
        ended_ = guide.done();
    });
    return !ended_;
}

void VideoStream::beginUnit(bool randomAccess, Bytes payload, std::optional<Ticks> dts) {
    // Where PES packets begin anywhere, a unit may go on from the one before. Elsewhere it ended with that
    // one, whose picture it may be: slices of a still scene are short.
    const bool aligned = payload.empty() || beginsWithStartCode(payload);
    if (ended_)
        scanner_.reset();
    else if (aligned)
        visitReader([this](auto& guide) {
            guide.ending = true;
            scanner_.finish(guide);
        });
    if (throughout_)
        judgeUnit();
    throughout_ =
        severalUnits_ >= kSeveralUnits || !aligned || closeLooks_ > 0 || looks_ % kLookInterval == 0;
    ++looks_;
    closeLooks_ -= closeLooks_ > 0 ? 1 : 0;
    ended_ = false;
    several_ = false;
    sliceSeen_ = false;
    pictures_ = 0;
    randomAccess_ = randomAccess;
    dts_ = dts;
}

// The PES packet before was looked at to its end.
void VideoStream::judgeUnit() {
    if (several_) {
        severalUnits_ = std::min(severalUnits_ + 1, kSeveralUnits);
        singleUnits_ = 0;
        closeLooks_ = kCloseLooks;
    } else if (++singleUnits_ >= kSingleUnits) {
        severalUnits_ = 0;
        singleUnits_ = 0;
    }
}

void VideoStream::addPicture(PictureStart picture) {
    several_ |= pictures_ > 0 || sliceSeen_;
    if (pictures_ == 0 && randomAccess_ && picture.type == PictureType::kI)
        picture.randomAccess = true;
    groups_.add(picture, pictureTime());
    measureRate();
    ++pictures_;
}

// The time stamp is that of the first picture which begins in the PES packet; others follow by the frame
// rate.
std::optional<Ticks> VideoStream::pictureTime() const {
    if (pictures_ == 0 || !dts_)
        return dts_;
    const std::optional<VideoFormat>& known = format();
    if (!known || known->frameRate.denominator == 0)
        return std::nullopt;
    const Ticks period = kTimeStampsPerSecond * known->frameRate.denominator / known->frameRate.numerator;
    return (*dts_ + pictures_ * period) & (kTimeStampModulus - 1);
}

const std::optional<VideoFormat>& VideoStream::format() const {
    return std::visit([](const auto& reader) -> const std::optional<VideoFormat>& { return reader.format(); },
                      reader_);
}

void VideoStream::measureRate() {
    if (const auto now = pictureTime()) {
        const auto step = rateBegin_ ? timeStampStep(*rateBegin_, *now) : std::nullopt;
        if (!step) {
            rateBegin_ = now;
            ratePictures_ = 0;
        } else if (*step >= kTimeStampsPerSecond) {
            picturesPerSecond_ =
                ratePictures_ * static_cast<double>(kTimeStampsPerSecond) / static_cast<double>(*step);
            rateBegin_ = now;
            ratePictures_ = 0;
        }
    }
    ++ratePictures_;
}

void VideoStream::fill(VideoReport& video, GopReport& gop) const {
    groups_.fill(gop);
    video.picturesPerSecond = picturesPerSecond_;
    const std::optional<VideoFormat>& known = format();
    if (!known)
        return;
    video.width = known->width;
    video.height = known->height;
    if (known->pixelAspect.denominator != 0)
        video.pixelAspect = std::to_string(known->pixelAspect.numerator) + ":" +
                            std::to_string(known->pixelAspect.denominator);
    if (known->frameRate.denominator != 0) {
        const double rate = static_cast<double>(known->frameRate.numerator) / known->frameRate.denominator;
        if (rate <= kFrameRateLimit)
            video.frameRate = rate;
    }
    if (!video.frameRate)
        video.frameRate = picturesPerSecond_;
    if (video.frameRate && known->fieldPictures)
        *video.frameRate /= 2;
    video.interlaced = known->interlaced;
    video.profile = text(known->profile);
    video.level = known->level;
    video.chroma = text(chromaName(known->chroma));
    video.bitDepth = known->bitDepth;
    video.colour = text(primariesName(known->primaries));
    video.transfer = text(transferName(known->transfer));
}

}  // namespace meter
