// Video usability information as H.264 (annex E) and H.265 (annex E) share it.
#pragma once

#include "fields/bitReader.h"
#include "media/videoFormat.h"

namespace meter {

// From aspect_ratio_info_present_flag up to and with the chroma sample locations.
void readUsability(BitReader& reader, VideoFormat& format);

// Where the reader ends within, what was read last means nothing.
inline Ratio frameRate(uint32_t timeScale, uint32_t unitsInTick) {
    return timeScale == 0 || unitsInTick == 0 ? Ratio{} : Ratio{timeScale, unitsInTick};
}

}  // namespace meter
