// Times as sets of spans.
#pragma once

#include <algorithm>
#include <chrono>
#include <vector>

#include "common/clock.h"

namespace station {

struct Span {
    WallTime from;
    WallTime until;  // exclusive

    bool operator==(const Span&) const = default;
};

// Disjoint spans, none empty, in the order of time.
class Spans {
  public:
    Spans() = default;
    // In any order; they may overlap, and those that are empty or end before they begin are left out.
    explicit Spans(std::vector<Span> any);

    Spans within(const Spans& other) const;
    Spans without(const Spans& other) const;
    std::chrono::milliseconds length() const;
    // Whether one of them has all of it.
    bool covers(const Span& span) const;
    bool empty() const {
        return spans_.empty();
    }

  private:
    std::vector<Span> spans_;
};

}  // namespace station
