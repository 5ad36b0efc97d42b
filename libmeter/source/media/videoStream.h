// One video stream: its format and its groups of pictures.
#pragma once

#include <variant>

#include "media/h264.h"
#include "media/h265.h"
#include "media/mpeg2Video.h"
#include "media/pictureGroups.h"
#include "media/startCodes.h"
#include "meter/report.h"
#include "services/serviceModel.h"

namespace meter {

// Pictures are looked for up to the first slice of a PES packet alone. That suffices where a PES packet holds
// one frame; whether it does is found out by looking through all of some of them.
class VideoStream {
  public:
    // REQUIRES: a video codec that has a reader.
    explicit VideoStream(Codec codec);

    // A packet's share of a PES packet; returns whether the next one's is wanted.
    bool feed(bool start, bool randomAccess, Bytes payload, std::optional<Ticks> dts);
    void secondEnded() {
        groups_.secondEnded();
    }
    void fill(VideoReport& video, GopReport& gop) const;

  private:
    static constexpr uint32_t kCloseLooks = 16;

    using AnyReader = std::variant<Mpeg2Reader, H264Reader, H265Reader>;
    template <typename Reader>
    struct Guide;

    template <typename Use>
    void visitReader(Use use);
    void beginUnit(bool randomAccess, Bytes payload, std::optional<Ticks> dts);
    void judgeUnit();
    void addPicture(PictureStart picture);
    void measureRate();
    std::optional<Ticks> pictureTime() const;
    const std::optional<VideoFormat>& format() const;

    AnyReader reader_;
    StartCodeScanner scanner_;
    PictureGroups groups_;

    // PES packets looked at to their end: those that held several pictures, and the others since the last of
    // them.
    uint32_t severalUnits_ = 0;
    uint32_t singleUnits_ = 0;
    uint32_t closeLooks_ = kCloseLooks;  // PES packets to be looked through without a pause
    uint32_t looks_ = 0;                 // PES packets since the begin
    // Of the PES packet that runs:
    bool throughout_ = false;  // it is looked at to its end
    bool ended_ = false;       // nothing more of it is wanted
    bool sliceSeen_ = false;
    bool randomAccess_ = false;  // announced of its first picture
    bool several_ = false;       // a picture began behind another one, or behind a slice
    uint32_t pictures_ = 0;
    std::optional<Ticks> dts_;

    // Pictures by decoding time stamps.
    std::optional<Ticks> rateBegin_;
    uint32_t ratePictures_ = 0;
    std::optional<double> picturesPerSecond_;
};

}  // namespace meter
