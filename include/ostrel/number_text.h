// Numbers as text, the way users type and read them in curves, descriptions and logs.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ostrel {

// The shortest decimal text that reads back (through readNumber, for every value but the
// subnormal ones, which it counts as underflow) to exactly `value`, with no trailing ".0": 3000 →
// "3000", 72.5 → "72.5", 0.25 → "0.25", -0.0 → "-0". Magnitudes from 1e-4 up to (not including)
// 1e16, and zero, are written as plain decimals; anything outside that range, which no temperature
// or fan speed ever is, in exponent form: 1e16 → "1e+16", 0.000015 → "1.5e-05". Non-finite values
// are "inf", "-inf" and "nan". Never fails; does not depend on the process locale.
std::string numberText(double value);

// Reads a whole text as a number the way strtod does in the POSIX locale (decimal and
// hexadecimal forms, "inf", "infinity", "nan" in any case), with three further rules: the
// text must not be empty or start with white space, every character must be consumed, and
// a value that overflows or underflows (ERANGE) does not read. Returns nothing when the
// text does not read; infinities and NaN do read, callers reject them where they must.
// Independent of the process locale; safe from any thread; leaves errno as it was.
std::optional<double> readNumber(std::string_view text);

}  // namespace ostrel
