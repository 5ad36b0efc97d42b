// How loud a piece of coded sound is.
#pragma once

#include <cstdint>
#include <span>

#include "exchange.h"

namespace pictured {

struct Loudness {
    SoundVerdict verdict = SoundVerdict::kDamaged;
    float lufs = 0;  // with kMeasured; at least picturing::kSilenceLufs
};

// EBU R 128 momentary loudness (EBU Tech 3341: 400 ms), every 100 ms, the largest. Frames may be cut at both
// ends. A piece whose sample rate or channels change is measured until then. `codec`: a
// picturing::AudioCodec.
Loudness measureLoudness(uint32_t codec, std::span<const uint8_t> stream);

}  // namespace pictured
