#include "store/spans.h"

namespace station {

namespace {

// The first span that ends behind a time.
auto firstBehind(const std::vector<Span>& spans, WallTime time) {
    return std::ranges::upper_bound(spans, time, {}, &Span::until);
}

}  // namespace

Spans::Spans(std::vector<Span> any) {
    std::erase_if(any, [](const Span& span) { return span.from >= span.until; });
    std::ranges::sort(any, {}, &Span::from);
    for (const Span& span : any) {
        if (!spans_.empty() && span.from <= spans_.back().until) {
            spans_.back().until = std::max(spans_.back().until, span.until);
        } else {
            spans_.push_back(span);
        }
    }
}

Spans Spans::within(const Spans& other) const {
    Spans result;
    for (const Span& span : spans_) {
        for (auto next = firstBehind(other.spans_, span.from);
             next != other.spans_.end() && next->from < span.until; ++next) {
            result.spans_.push_back({std::max(span.from, next->from), std::min(span.until, next->until)});
        }
    }
    return result;
}

Spans Spans::without(const Spans& other) const {
    Spans result;
    for (const Span& span : spans_) {
        WallTime from = span.from;
        for (auto next = firstBehind(other.spans_, from);
             next != other.spans_.end() && next->from < span.until; ++next) {
            if (from < next->from) {
                result.spans_.push_back({from, next->from});
            }
            from = next->until;
        }
        if (from < span.until) {
            result.spans_.push_back({from, span.until});
        }
    }
    return result;
}

bool Spans::covers(const Span& span) const {
    const auto next = firstBehind(spans_, span.from);
    return next != spans_.end() && next->from <= span.from && span.until <= next->until;
}

std::chrono::milliseconds Spans::length() const {
    std::chrono::milliseconds sum{0};
    for (const Span& span : spans_) {
        sum += span.until - span.from;
    }
    return sum;
}

}  // namespace station
