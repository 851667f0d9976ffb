// Small text helpers shared by parsers at every layer.
#pragma once

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

}  // namespace ostrel::text
