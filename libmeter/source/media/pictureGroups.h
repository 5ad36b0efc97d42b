// Groups of pictures as the pictures themselves show them: each begins with an I picture or where decoding
// can begin, in the order in which pictures come.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "fields/moment.h"
#include "media/minuteWindow.h"
#include "media/videoFormat.h"
#include "meter/report.h"

namespace meter {

// Pictures of a group that are shown; of a longer one the rest is counted.
inline constexpr std::size_t kStructureLimit = 300;

class PictureGroups {
  public:
    // `dts`: of the picture, 90 kHz units, where known.
    void add(const PictureStart& picture, std::optional<Ticks> dts);
    void secondEnded() {
        lengths_.secondEnded();
    }
    void fill(GopReport& report) const;

  private:
    struct Group {
        std::string structure;
        uint32_t pictures = 0;
        std::optional<Ticks> begin;
        bool closed = false;
        std::optional<double> ms;
    };

    void endGroup(std::optional<Ticks> dts);

    std::optional<Group> open_;
    std::optional<Group> last_;
    MinuteWindow lengths_;
    uint64_t intraWithoutIdr_ = 0;
};

}  // namespace meter
