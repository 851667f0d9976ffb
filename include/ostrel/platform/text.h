// Small text helpers shared by parsers at every layer.
#pragma once

#include <array>
#include <charconv>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

namespace ostrel::text {

// The value of a hexadecimal digit (0-9, a-f, A-F), or -1.
constexpr int hexDigitValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// The letter in lower case for A to Z; every other byte unchanged (UTF-8 text stays
// valid).
constexpr char asciiLower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The blanks that trimBlanks removes, UTF-8 encoded: tab and the Unicode space separators
// (U+0020, U+00A0, U+1680, U+2000 to U+200A, U+202F, U+205F, U+3000). Line breaks are not
// blanks.
inline constexpr std::array<std::string_view, 18> kBlanks = {
    "\t",           " ",
    "\xC2\xA0",     "\xE1\x9A\x80",
    "\xE2\x80\x80", "\xE2\x80\x81",
    "\xE2\x80\x82", "\xE2\x80\x83",
    "\xE2\x80\x84", "\xE2\x80\x85",
    "\xE2\x80\x86", "\xE2\x80\x87",
    "\xE2\x80\x88", "\xE2\x80\x89",
    "\xE2\x80\x8A", "\xE2\x80\xAF",
    "\xE2\x81\x9F", "\xE3\x80\x80",
};

// The text without blanks (see kBlanks) at either end; a view into the same characters.
constexpr std::string_view trimBlanks(std::string_view text) {
    bool trimmed = true;
    while (trimmed && !text.empty()) {
        trimmed = false;
        for (std::string_view blank : kBlanks) {
            if (text.starts_with(blank)) {
                text.remove_prefix(blank.size());
                trimmed = true;
            }
            if (text.ends_with(blank)) {
                text.remove_suffix(blank.size());
                trimmed = true;
            }
        }
    }
    return text;
}

// The bytes as UTF-8 text: every byte that does not belong to a well-formed sequence
// (stray continuation bytes, truncated or overlong sequences, surrogates, code points above
// U+10FFFF) becomes U+FFFD.
std::string utf8Repaired(std::string_view bytes);

// Text from outside (a profile, a cache file, the firmware) made safe to print on a
// terminal: repaired as UTF-8, then every control character written as an escape (C0 and
// DEL as \x1b, C1 as \u009b) and a backslash as two, so that a name can neither move
// the cursor nor pass for another name.
std::string printable(std::string_view bytes);

// A decimal number that is the whole text ("63.4", "-127", "+2", "1e3"), or nothing.
inline std::optional<double> parseNumber(std::string_view text) {
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
    }
    double value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

}  // namespace ostrel::text
