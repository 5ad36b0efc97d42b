// Conversion of floating-point values to integers that is defined for every value.
#pragma once

#include <concepts>
#include <limits>

// Truncates toward zero. A value outside the integer's range gives the nearest limit, NaN gives 0.
template <std::integral Int, std::floating_point Float>
constexpr Int saturate(Float value) {
    using Limits = std::numeric_limits<Int>;
    // The largest integer itself may have no floating-point form; the power of two above it always has one.
    constexpr Float kAboveMaximum = static_cast<Float>(Int{1} << (Limits::digits - 1)) * 2;
    constexpr Float kMinimum = static_cast<Float>(Limits::min());
    if (value != value) {
        return 0;
    }
    if (value >= kAboveMaximum) {
        return Limits::max();
    }
    if (value <= kMinimum) {
        return Limits::min();
    }
    return static_cast<Int>(value);
}
