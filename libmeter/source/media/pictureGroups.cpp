#include "media/pictureGroups.h"

#include <utility>

#include "media/timeStamps.h"

namespace meter {

void PictureGroups::add(const PictureStart& picture, std::optional<Ticks> dts) {
    const bool mark = picture.closed || picture.randomAccess;
    const bool intra = picture.type == PictureType::kI;
    if (intra && !picture.closed)
        ++intraWithoutIdr_;
    if (mark || intra) {
        endGroup(dts);
        open_ = Group{
            .structure = mark ? "|" : "", .pictures = 0, .begin = dts, .closed = picture.closed, .ms = {}};
    }
    if (!open_)
        return;
    if (open_->pictures++ < kStructureLimit)
        open_->structure += static_cast<char>(picture.type);
}

void PictureGroups::endGroup(std::optional<Ticks> dts) {
    if (!open_)
        return;
    if (open_->begin && dts)
        if (const auto step = timeStampStep(*open_->begin, *dts))
            open_->ms = static_cast<double>(*step) / static_cast<double>(kTimeStampsPerMs);
    lengths_.add(open_->pictures);
    last_ = std::move(open_);
    open_.reset();
}

void PictureGroups::fill(GopReport& report) const {
    report.intraWithoutIdr = intraWithoutIdr_;
    if (last_) {
        report.structure = last_->structure;
        report.pictures = last_->pictures;
        report.ms = last_->ms;
        report.closed = last_->closed;
    }
    if (const auto lengths = lengths_.summary()) {
        report.lowest = lengths->lowest;
        report.highest = lengths->highest;
        report.mean = static_cast<double>(lengths->sum) / lengths->count;
    }
}

}  // namespace meter
