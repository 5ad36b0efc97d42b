// Metrics of kestor-picture.
#pragma once

#include "state/state.h"
#include "web/exposition.h"

namespace station {

// Nothing where no pictures are to be taken.
void writePictures(Exposition& out, const StationState& state);

}  // namespace station
