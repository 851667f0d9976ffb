// Small text helpers shared by parsers at every layer.
#pragma once

#include <charconv>
#include <optional>
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
