// The SMC keys that fan control is built on, named once for every layer: the channel's
// transports, the kit and the virtual Mac.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace csmc {

// The four-character code of a text: its first four bytes, first one most significant,
// missing ones counting as blanks ("flt" is 'flt '). The same rule as smc_fourcc.
constexpr std::uint32_t fourcc(std::string_view text) {
    std::uint32_t code = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        code = (code << 8) | (i < text.size() ? static_cast<unsigned char>(text[i]) : ' ');
    }
    return code;
}

// The force mask: bit n set puts fan n under manual control (Intel machines before the T2).
inline constexpr std::uint32_t kForceMaskKey = fourcc("FS! ");
// The test key: on Apple silicon, fan mode writes are honoured only while it is 1.
inline constexpr std::uint32_t kTestKey = fourcc("Ftst");

// A fan's key: "F", the fan's index as upper-case hexadecimal, then the suffix, cut to four
// characters (fanKey(10, "Md") is 'FAMd', fanKey(0, "ID") is 'F0ID').
constexpr std::uint32_t fanKey(std::size_t index, std::string_view suffix) {
    char digits[17] = {};
    std::size_t count = 0;
    do {
        digits[count++] = "0123456789ABCDEF"[index % 16];
        index /= 16;
    } while (index > 0);
    char name[4] = {' ', ' ', ' ', ' '};
    std::size_t at = 0;
    name[at++] = 'F';
    while (count > 0 && at < 4) {
        name[at++] = digits[--count];
    }
    for (std::size_t i = 0; i < suffix.size() && at < 4; ++i) {
        name[at++] = suffix[i];
    }
    return fourcc(std::string_view(name, 4));
}

}  // namespace csmc
