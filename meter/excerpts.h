// Excerpts that are taken for somebody else: what is wanted, and what became of it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "meter/excerpt.h"

namespace meterd {

struct ExcerptTaken {
    uint32_t group = 0;
    uint64_t ticket = 0;
    std::optional<meter::Excerpt> excerpt;  // none: the group is not watched
    bool crowded = false;                   // given up since all that are open hold too much together
};

struct ExcerptWanted {
    uint32_t group = 0;
    uint64_t ticket = 0;  // comes back
    bool audio = false;
    // Called once, by the thread that measures: it must not wait.
    std::function<void(ExcerptTaken&&)> taken;
};

}  // namespace meterd
