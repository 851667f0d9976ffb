// Checked conversions of doubles, shared by every layer that turns a measured or decoded
// number into an integer.
#pragma once

#include <cstdint>
#include <optional>

namespace ostrel::numbers {

// `value` truncated toward zero, when it is a finite number whose integral part a signed
// 64-bit integer holds (-2^63 <= value < 2^63; 2^63 itself does not fit). Nothing for NaN,
// the infinities and larger magnitudes, whose conversion would be undefined.
constexpr std::optional<std::int64_t> truncatedInt64(double value) {
    if (!(value >= -0x1p63 && value < 0x1p63)) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(value);
}

}  // namespace ostrel::numbers
