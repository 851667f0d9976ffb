// One SMC key as a line of text: the row format that machine profiles and
// `ostrel smc dump` share (docs/vsmc-profiles.md), so a key table read from one machine
// can be loaded as another virtual Mac.
//
//     key TC0P   sp78    2 0xc0 63.4
//     key F0ID   {fds   16 0x80 <00 00 0c 00> "Left side"
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace csmc {

// One key of an SMC key table.
struct KeyEntry {
    std::uint32_t key = 0;
    std::uint32_t type = 0;
    std::uint32_t size = 0;  // may exceed 32 only in hand-built tables (tests)
    std::uint8_t attributes = 0;
    std::array<std::uint8_t, 32> bytes{};

    bool operator==(const KeyEntry &) const = default;
};

// One "key ..." line, with its line feed. The value is written as a number where that
// reads back to the same bytes, otherwise as bytes and text.
std::string formatKeyRow(const KeyEntry &entry);

// A code as row text: the bare characters when they are printable and need no quoting
// (trailing blanks dropped, so 'FS! ' is FS!), otherwise a quoted form.
std::string codeToken(std::uint32_t code);

// Bytes as quoted row text: printable characters as they are, '"' and '\' escaped with a
// backslash, every other byte as \xNN.
std::string quotedText(std::string_view bytes);

}  // namespace csmc
