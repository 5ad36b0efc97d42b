// Whether a source of measures is there.
#pragma once

#include "common/clock.h"

namespace station {

// Each source has its own; one that is silent makes what it measures itself unknown and nothing else.
class Presence {
  public:
    virtual ~Presence() = default;

    // Whether a channel's sample of that time is still what is.
    virtual bool fresh(SteadyTime sample, SteadyTime now) const = 0;
};

}  // namespace station
